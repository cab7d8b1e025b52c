// SPDX-License-Identifier: GPL-3.0-or-later
// quenda-editor-snapshot: renders the plug-in window to a PNG without a display.
// Usage: quenda-editor-snapshot OUT.png [scale] [parameter=value ...]

#include "plugin/PluginEditor.h"
#include "plugin/ParameterTable.h"
#include "plugin/PluginProcessor.h"

#include <juce_gui_basics/juce_gui_basics.h>

#include <iostream>
#include <memory>

int main (int argc, char** argv)
{
    if (argc < 2)
    {
        std::cerr << "usage: " << argv[0] << " OUT.png [scale] [parameter=value ...]\n";
        return 2;
    }

    juce::ScopedJuceInitialiser_GUI juceInitialiser;

    const juce::File target = juce::File::getCurrentWorkingDirectory().getChildFile (argv[1]);
    float scale = 1.0f;
    int firstSetting = 2;

    if (argc > 2 && ! juce::String (argv[2]).containsChar ('='))
    {
        scale = juce::jmax (0.25f, juce::String (argv[2]).getFloatValue());
        firstSetting = 3;
    }

    QuendaAudioProcessor processor;

    for (int i = firstSetting; i < argc; ++i)
    {
        const juce::String setting (argv[i]);
        const auto id = setting.upToFirstOccurrenceOf ("=", false, false);
        const auto index = ParameterTable::indexOf (id.toStdString());

        if (index == ParameterTable::numParameters)
        {
            std::cerr << "unknown parameter: " << id << "\n";
            return 2;
        }

        processor.getParameters()[(int) index]->setValue (setting.fromFirstOccurrenceOf ("=", false, false).getFloatValue());
    }

    std::unique_ptr<juce::AudioProcessorEditor> editor (processor.createEditor());
    // One poll, as the running window would have done within 50 ms.
    if (auto* quendaEditor = dynamic_cast<QuendaAudioProcessorEditor*> (editor.get()))
        quendaEditor->timerCallback();

    const auto snapshot = editor->createComponentSnapshot (editor->getLocalBounds(), true, scale);

    target.deleteFile();
    juce::FileOutputStream out (target);
    juce::PNGImageFormat png;

    if (! out.openedOk() || ! png.writeImageToStream (snapshot, out))
    {
        std::cerr << "cannot write " << target.getFullPathName() << "\n";
        return 1;
    }

    std::cout << target.getFullPathName() << " (" << snapshot.getWidth() << " x " << snapshot.getHeight() << ")\n";
    return 0;
}
