// SPDX-License-Identifier: GPL-3.0-or-later
// Quenda's LV2 entry. Each parameter is an input control port in plain units: the host owns
// the values, so what it shows and stores is what the processor uses. JUCE 7's own LV2
// wrapper declares patch properties instead, which Ardour 7 reads as 0 and Audacity cannot
// set at all.

// The message thread below needs JUCE's X11 declarations.
#define JUCE_GUI_BASICS_INCLUDE_XHEADERS 1

#include "plugin/PluginProcessor.h"
#include "plugin/StateBlock.h"
#include "plugin/lv2/Lv2Ports.h"

#include <juce_audio_plugin_client/utility/juce_LinuxMessageThread.h>

#include <lv2/atom/atom.h>
#include <lv2/buf-size/buf-size.h>
#include <lv2/core/lv2.h>
#include <lv2/instance-access/instance-access.h>
#include <lv2/options/options.h>
#include <lv2/parameters/parameters.h>
#include <lv2/state/state.h>
#include <lv2/ui/ui.h>
#include <lv2/urid/urid.h>

#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>

namespace
{
constexpr auto numParameters = (std::size_t) ParameterTable::numParameters;

const void* findFeature (const LV2_Feature* const* features, const char* uri)
{
    if (features != nullptr)
        for (auto* const* feature = features; *feature != nullptr; ++feature)
            if (std::strcmp ((*feature)->URI, uri) == 0)
                return (*feature)->data;

    return nullptr;
}

/** A numeric option of any integer or float atom type; hosts differ in the Int's size. */
std::optional<double> readNumber (const LV2_Options_Option& option, const LV2_URID_Map& map)
{
    if (option.value == nullptr)
        return {};

    const auto type = option.type;
    const auto* value = option.value;

    if (type == map.map (map.handle, LV2_ATOM__Int) || type == map.map (map.handle, LV2_ATOM__Long))
    {
        if (option.size == sizeof (std::int32_t))
        {
            std::int32_t number;
            std::memcpy (&number, value, sizeof (number));
            return (double) number;
        }

        if (option.size == sizeof (std::int64_t))
        {
            std::int64_t number;
            std::memcpy (&number, value, sizeof (number));
            return (double) number;
        }
    }
    else if (type == map.map (map.handle, LV2_ATOM__Float) && option.size == sizeof (float))
    {
        float number;
        std::memcpy (&number, value, sizeof (number));
        return (double) number;
    }
    else if (type == map.map (map.handle, LV2_ATOM__Double) && option.size == sizeof (double))
    {
        double number;
        std::memcpy (&number, value, sizeof (number));
        return number;
    }

    return {};
}

/** The largest block the host announces; a longer one is still processed, in pieces. */
int maximumBlockFromOptions (const LV2_Feature* const* features)
{
    constexpr int fallback = 4096;
    const auto* map = static_cast<const LV2_URID_Map*> (findFeature (features, LV2_URID__map));
    const auto* options = static_cast<const LV2_Options_Option*> (findFeature (features, LV2_OPTIONS__options));

    if (map == nullptr || options == nullptr)
        return fallback;

    std::optional<double> maximum, nominal;
    const auto maxKey = map->map (map->handle, LV2_BUF_SIZE__maxBlockLength);
    const auto nominalKey = map->map (map->handle, LV2_BUF_SIZE__nominalBlockLength);

    for (auto* option = options; option->key != 0; ++option)
    {
        if (option->key == maxKey)
            maximum = readNumber (*option, *map);
        else if (option->key == nominalKey)
            nominal = readNumber (*option, *map);
    }

    for (auto value : { maximum, nominal })
        if (value && *value >= 1.0 && *value <= 1048576.0)
            return (int) *value;

    return fallback;
}

class Lv2Instance
{
public:
    Lv2Instance (double rate, const LV2_Feature* const* features)
        : sampleRate (rate),
          maximumBlock (maximumBlockFromOptions (features)),
          map (static_cast<const LV2_URID_Map*> (findFeature (features, LV2_URID__map)))
    {
        for (auto& value : applied)
            value.store (std::numeric_limits<float>::quiet_NaN());
        processor->setRateAndBufferSizeDetails (sampleRate, maximumBlock);
    }

    void connect (std::uint32_t port, void* data) noexcept
    {
        if (port == Lv2Ports::inputLeft || port == Lv2Ports::inputRight)
            inputs[port - Lv2Ports::inputLeft] = static_cast<const float*> (data);
        else if (port == Lv2Ports::outputLeft || port == Lv2Ports::outputRight)
            outputs[port - Lv2Ports::outputLeft] = static_cast<float*> (data);
        else if (port == Lv2Ports::latency)
            latencyOut = static_cast<float*> (data);
        else if (port == Lv2Ports::enabled)
            enabledIn = static_cast<const float*> (data);
        else if (const auto index = Lv2Ports::parameterIndex (port); index < numParameters)
            controls[index] = static_cast<const float*> (data);
    }

    void activate()
    {
        processor->setRateAndBufferSizeDetails (sampleRate, maximumBlock);
        processor->prepareToPlay (sampleRate, maximumBlock);
    }

    void deactivate()
    {
        processor->releaseResources();
    }

    void run (std::uint32_t numSamples) noexcept
    {
        applyControls();

        if (outputs[0] == nullptr || outputs[1] == nullptr || inputs[0] == nullptr || inputs[1] == nullptr)
            return;

        const auto n = (int) numSamples;

        // Hosts may run in place; a separate output takes a copy of the input first.
        for (size_t channel = 0; channel < 2; ++channel)
            if (outputs[channel] != inputs[channel])
                std::memmove (outputs[channel], inputs[channel], sizeof (float) * numSamples);

        // The host's own on/off passes the audio through, without the processor's delay.
        if (n > 0 && (enabledIn == nullptr || *enabledIn >= 0.5f))
        {
            juce::AudioBuffer<float> buffer (outputs.data(), 2, n);
            processor->processBlock (buffer, midi);
        }

        // The latency of this block, before the message thread has reported it.
        if (latencyOut != nullptr)
            *latencyOut = (float) processor->getLatencyOfLastBlock();
    }

    LV2_State_Status save (LV2_State_Store_Function store, LV2_State_Handle handle)
    {
        if (map == nullptr)
            return LV2_STATE_ERR_NO_FEATURE;

        // The processor's state block, but a control the host moved since the last block is
        // saved with its new value: the host saves its ports beside the block, and a restore
        // must not find the two disagreeing. The next block applies it to the processor.
        auto values = processor->getParameterValues();

        for (size_t i = 0; i < numParameters; ++i)
            if (const auto pending = pendingControl (i))
                values[i] = plainValue (i, *pending);

        const auto text = StateBlock::write (values).toBase64Encoding();
        return store (handle, urid (stateKey()), text.toRawUTF8(), text.getNumBytesAsUTF8() + 1,
                      urid (LV2_ATOM__String), LV2_STATE_IS_POD | LV2_STATE_IS_PORTABLE);
    }

    LV2_State_Status restore (LV2_State_Retrieve_Function retrieve, LV2_State_Handle handle)
    {
        if (map == nullptr)
            return LV2_STATE_ERR_NO_FEATURE;

        size_t size = 0;
        std::uint32_t type = 0, flags = 0;

        // Earlier builds' one preset names a program and carries no values: the ports do.
        if (retrieve (handle, urid (programKey()), &size, &type, &flags) != nullptr)
            return LV2_STATE_SUCCESS;

        const auto* data = retrieve (handle, urid (stateKey()), &size, &type, &flags);

        if (data == nullptr)
            return LV2_STATE_ERR_NO_PROPERTY;

        if (type != urid (LV2_ATOM__String))
            return LV2_STATE_ERR_BAD_TYPE;

        // The size counts the terminating zero; a host's text may lack it.
        const auto* text = static_cast<const char*> (data);
        juce::MemoryBlock block;
        block.fromBase64Encoding (juce::String::fromUTF8 (text, (int) strnlen (text, size)));
        processor->setStateInformation (block.getData(), (int) block.getSize());

        // The restored values stand until the host moves a control; hosts that restore
        // their port values as well (lilv, Ardour) set the same ones.
        for (size_t i = 0; i < numParameters; ++i)
            if (controls[i] != nullptr)
                applied[i].store (*controls[i]);

        return LV2_STATE_SUCCESS;
    }

    QuendaAudioProcessor& getProcessor() noexcept { return *processor; }

private:
    /** Takes each control the host changed since the last block, without notifying anyone:
            the value came from the host. A value set by the editor or a restore stays until
            the host's own value moves. */
    void applyControls() noexcept
    {
        auto& parameters = processor->getParameters();

        for (size_t i = 0; i < numParameters; ++i)
        {
            if (const auto value = pendingControl (i))
            {
                applied[i].store (*value);
                // The processor's parameters of an unknown wrapper take plain values as given.
                parameters[(int) i]->setValue (plainValue (i, *value));
            }
        }
    }

    /** The control's value when the host moved it since the last block. */
    std::optional<float> pendingControl (size_t i) const noexcept
    {
        if (controls[i] == nullptr)
            return {};

        const auto value = *controls[i];

        if (! std::isfinite (value) || value == applied[i].load())
            return {};

        return value;
    }

    static float plainValue (size_t i, float control) noexcept
    {
        const auto& entry = ParameterTable::entry (i);
        return entry.isSwitch ? (entry.isOn (control) ? 1.0f : 0.0f) : control;
    }

    LV2_URID urid (const char* uri) const { return map->map (map->handle, uri); }

    static const char* stateKey()
    {
        static const auto key = juce::String (JucePlugin_LV2URI) + Lv2Ports::stateKeySuffix;
        return key.toRawUTF8();
    }

    static const char* programKey()
    {
        static const auto key = juce::String (JucePlugin_LV2URI) + Lv2Ports::programKeySuffix;
        return key.toRawUTF8();
    }

    juce::ScopedJuceInitialiser_GUI juceInitialiser;
    juce::SharedResourcePointer<juce::MessageThread> messageThread;
    std::unique_ptr<QuendaAudioProcessor> processor = std::make_unique<QuendaAudioProcessor>();

    const double sampleRate;
    const int maximumBlock;
    const LV2_URID_Map* const map;

    std::array<const float*, 2> inputs {};
    std::array<float*, 2> outputs {};
    std::array<const float*, numParameters> controls {};
    std::array<std::atomic<float>, numParameters> applied;
    float* latencyOut = nullptr;
    const float* enabledIn = nullptr;
    juce::MidiBuffer midi;

    JUCE_DECLARE_NON_COPYABLE (Lv2Instance)
};

//==============================================================================
/** The editor inside the host's window. It reads the processor directly (instance access)
        and tells the host each value the plug-in side changed (editor, restore), so the host's
        controls never fall behind. */
class Lv2Ui : private juce::Component
{
public:
    Lv2Ui (Lv2Instance& instanceIn, LV2UI_Write_Function writeIn, LV2UI_Controller controllerIn,
           void* parent, const LV2UI_Resize* resizeIn)
        : instance (instanceIn), write (writeIn), controller (controllerIn), resize (resizeIn),
          editor (instance.getProcessor().createEditorIfNeeded())
    {
        hostValues.fill (std::numeric_limits<float>::quiet_NaN());
        pluginValues = instance.getProcessor().getParameterValues();

        setOpaque (true);
        if (editor != nullptr)
        {
            setSize (editor->getWidth(), editor->getHeight());
            addAndMakeVisible (*editor);
        }

        addToDesktop (0, parent);
        setVisible (true);

        if (resize != nullptr && resize->ui_resize != nullptr)
            resize->ui_resize (resize->handle, getWidth(), getHeight());
    }

    ~Lv2Ui() override
    {
        removeChildComponent (editor.get());
        instance.getProcessor().editorBeingDeleted (editor.get());
    }

    void* windowHandle() { return getWindowHandle(); }

    void portEvent (std::uint32_t port, std::uint32_t size, std::uint32_t format, const void* buffer)
    {
        const auto index = Lv2Ports::parameterIndex (port);

        if (index < numParameters && format == 0 && size == sizeof (float) && buffer != nullptr)
            std::memcpy (&hostValues[index], buffer, sizeof (float));
    }

    void idle()
    {
        eventLoop->processPendingEvents();

        const auto values = instance.getProcessor().getParameterValues();

        for (size_t i = 0; i < numParameters; ++i)
        {
            if (values[i] == pluginValues[i])
                continue;

            pluginValues[i] = values[i];

            if (values[i] != hostValues[i])
            {
                hostValues[i] = values[i];
                write (controller, Lv2Ports::parameterPort (i), sizeof (float), 0, &values[i]);
            }
        }
    }

private:
    void paint (juce::Graphics& g) override { g.fillAll (juce::Colours::black); }

    juce::SharedResourcePointer<juce::HostDrivenEventLoop> eventLoop;
    Lv2Instance& instance;
    const LV2UI_Write_Function write;
    const LV2UI_Controller controller;
    const LV2UI_Resize* const resize;
    std::unique_ptr<juce::AudioProcessorEditor> editor;
    StateBlock::Values hostValues {}, pluginValues {};
};

const LV2_State_Interface stateInterface {
    [] (LV2_Handle handle, LV2_State_Store_Function store, LV2_State_Handle stateHandle, std::uint32_t, const LV2_Feature* const*)
    {
        return static_cast<Lv2Instance*> (handle)->save (store, stateHandle);
    },
    [] (LV2_Handle handle, LV2_State_Retrieve_Function retrieve, LV2_State_Handle stateHandle, std::uint32_t, const LV2_Feature* const*)
    {
        return static_cast<Lv2Instance*> (handle)->restore (retrieve, stateHandle);
    }
};

const LV2UI_Idle_Interface idleInterface {
    [] (LV2UI_Handle ui)
    {
        static_cast<Lv2Ui*> (ui)->idle();
        return 0;
    }
};
}

LV2_SYMBOL_EXPORT const LV2_Descriptor* lv2_descriptor (std::uint32_t index)
{
    static const LV2_Descriptor descriptor {
        JucePlugin_LV2URI,
        [] (const LV2_Descriptor*, double rate, const char*, const LV2_Feature* const* features) -> LV2_Handle
        {
            if (! (rate > 0.0))
                return nullptr;

            return new Lv2Instance (rate, features);
        },
        [] (LV2_Handle handle, std::uint32_t port, void* data)
        {
            static_cast<Lv2Instance*> (handle)->connect (port, data);
        },
        [] (LV2_Handle handle)
        { static_cast<Lv2Instance*> (handle)->activate(); },
        [] (LV2_Handle handle, std::uint32_t numSamples)
        { static_cast<Lv2Instance*> (handle)->run (numSamples); },
        [] (LV2_Handle handle)
        { static_cast<Lv2Instance*> (handle)->deactivate(); },
        [] (LV2_Handle handle)
        { delete static_cast<Lv2Instance*> (handle); },
        [] (const char* uri) -> const void*
        {
            return std::strcmp (uri, LV2_STATE__interface) == 0 ? &stateInterface : nullptr;
        }
    };

    return index == 0 ? &descriptor : nullptr;
}

LV2_SYMBOL_EXPORT const LV2UI_Descriptor* lv2ui_descriptor (std::uint32_t index)
{
    static const auto uiUri = juce::String (JucePlugin_LV2URI) + Lv2Ports::uiSuffix;

    static const LV2UI_Descriptor descriptor {
        uiUri.toRawUTF8(),
        [] (const LV2UI_Descriptor*, const char*, const char*, LV2UI_Write_Function write, LV2UI_Controller controller,
            LV2UI_Widget* widget, const LV2_Feature* const* features) -> LV2UI_Handle
        {
            auto* instance = static_cast<Lv2Instance*> (const_cast<void*> (findFeature (features, LV2_INSTANCE_ACCESS_URI)));
            auto* parent = const_cast<void*> (findFeature (features, LV2_UI__parent));

            if (instance == nullptr || parent == nullptr || widget == nullptr)
                return nullptr;

            juce::SharedResourcePointer<juce::HostDrivenEventLoop> eventLoop;
            auto* ui = new Lv2Ui (*instance, write, controller, parent,
                                  static_cast<const LV2UI_Resize*> (findFeature (features, LV2_UI__resize)));
            *widget = ui->windowHandle();
            return ui;
        },
        [] (LV2UI_Handle ui)
        {
            juce::SharedResourcePointer<juce::HostDrivenEventLoop> eventLoop;
            delete static_cast<Lv2Ui*> (ui);
        },
        [] (LV2UI_Handle ui, std::uint32_t port, std::uint32_t size, std::uint32_t format, const void* buffer)
        {
            static_cast<Lv2Ui*> (ui)->portEvent (port, size, format, buffer);
        },
        [] (const char* uri) -> const void*
        {
            return std::strcmp (uri, LV2_UI__idleInterface) == 0 ? &idleInterface : nullptr;
        }
    };

    return index == 0 ? &descriptor : nullptr;
}
