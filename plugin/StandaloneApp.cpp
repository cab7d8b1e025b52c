// SPDX-License-Identifier: GPL-3.0-or-later
// The standalone application: JUCE's plug-in window, but it refuses to start without a display
// (JUCE's own app crashes there) and its title says when no audio device is open.

#include <juce_audio_plugin_client/juce_audio_plugin_client.h>
#include <juce_audio_utils/juce_audio_utils.h>
#include <juce_audio_plugin_client/Standalone/juce_StandaloneFilterWindow.h>

#include <iostream>

namespace
{
class QuendaStandaloneWindow : public juce::StandaloneFilterWindow, private juce::ChangeListener
{
public:
    QuendaStandaloneWindow (const juce::String& name, juce::PropertySet* settings)
        : juce::StandaloneFilterWindow (name,
                                        juce::LookAndFeel::getDefaultLookAndFeel().findColour (juce::ResizableWindow::backgroundColourId),
                                        settings, false),
          appName (name)
    {
        getDeviceManager().addChangeListener (this);
        showDeviceState();
    }

    ~QuendaStandaloneWindow() override
    {
        getDeviceManager().removeChangeListener (this);
    }

private:
    void changeListenerCallback (juce::ChangeBroadcaster*) override
    {
        showDeviceState();
    }

    // Without a device nothing plays; the settings dialog alone is easy to miss.
    void showDeviceState()
    {
        if (getDeviceManager().getCurrentAudioDevice() == nullptr)
            setName (appName + " - " + TRANS ("no audio device (Options > Audio/MIDI Settings)"));
        else
            setName (appName);
    }

    const juce::String appName;
};

class QuendaStandaloneApp : public juce::JUCEApplication
{
public:
    QuendaStandaloneApp()
    {
        juce::PropertiesFile::Options options;
        options.applicationName = getApplicationName();
        options.filenameSuffix = ".settings";
        options.osxLibrarySubFolder = "Application Support";
#if JUCE_LINUX || JUCE_BSD
        options.folderName = "~/.config";
#endif
        appProperties.setStorageParameters (options);
    }

    const juce::String getApplicationName() override
    {
        return JucePlugin_Name;
    }
    const juce::String getApplicationVersion() override
    {
        return JucePlugin_VersionString;
    }
    bool moreThanOneInstanceAllowed() override
    {
        return true;
    }
    void anotherInstanceStarted (const juce::String&) override {}

    void initialise (const juce::String&) override
    {
        // JUCE finds no screens when it cannot reach an X server, and a window would crash.
        if (juce::Desktop::getInstance().getDisplays().getPrimaryDisplay() == nullptr)
        {
            std::cerr << getApplicationName() << ": cannot open a display"
                      << " (is DISPLAY set and the X server running?)" << std::endl;
            setApplicationReturnValue (1);
            quit();
            return;
        }

        mainWindow = std::make_unique<QuendaStandaloneWindow> (getApplicationName(), appProperties.getUserSettings());
        mainWindow->setVisible (true);
    }

    void shutdown() override
    {
        mainWindow = nullptr;
        appProperties.saveIfNeeded();
    }

    void systemRequestedQuit() override
    {
        if (mainWindow != nullptr)
            mainWindow->pluginHolder->savePluginState();

        // A modal dialog has to close first; try again once it has.
        if (juce::ModalComponentManager::getInstance()->cancelAllModalComponents())
        {
            juce::Timer::callAfterDelay (100, []
                                         {
                    if (auto* app = juce::JUCEApplicationBase::getInstance())
                        app->systemRequestedQuit(); });
        }
        else
        {
            quit();
        }
    }

private:
    juce::ApplicationProperties appProperties;
    std::unique_ptr<QuendaStandaloneWindow> mainWindow;
};
}

juce::JUCEApplicationBase* juce_CreateApplication();
juce::JUCEApplicationBase* juce_CreateApplication()
{
    return new QuendaStandaloneApp();
}
