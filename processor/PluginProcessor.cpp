// SPDX-License-Identifier: GPL-3.0-or-later
#include "PluginProcessor.h"
#include "editor/PluginEditor.h"

namespace
{
    // Formats whose wrappers keep 0..1 need the mapped form; the VST2 build hands hosts
    // the plain values themselves.
    PlainFloatParameter::Normalisation normalisationFor (juce::AudioProcessor::WrapperType wrapper)
    {
        switch (wrapper)
        {
            case juce::AudioProcessor::wrapperType_VST3:
            case juce::AudioProcessor::wrapperType_AudioUnit:
            case juce::AudioProcessor::wrapperType_AudioUnitv3:
            case juce::AudioProcessor::wrapperType_AAX:
            case juce::AudioProcessor::wrapperType_LV2:
            case juce::AudioProcessor::wrapperType_Unity:
                return PlainFloatParameter::Normalisation::mappedToRange;

            case juce::AudioProcessor::wrapperType_Undefined:
            case juce::AudioProcessor::wrapperType_VST:
            case juce::AudioProcessor::wrapperType_Standalone:
            default:
                return PlainFloatParameter::Normalisation::identity;
        }
    }

    juce::AudioParameterBool* makeSwitch (const juce::String& id, const juce::String& name)
    {
        return new juce::AudioParameterBool (juce::ParameterID { id, 1 }, name, false);
    }
}

QuendaAudioProcessor::QuendaAudioProcessor()
    : juce::AudioProcessor (BusesProperties().withInput ("Input", juce::AudioChannelSet::stereo(), true)
                                             .withOutput ("Output", juce::AudioChannelSet::stereo(), true))
{
    tilt = addFloatParameter ("tilt", "tilt", 0.0f, { -1.0f, 1.0f });

    bypass = makeSwitch ("bypass", "Bypass");
    addParameter (bypass);
    linPhase = makeSwitch ("lin_phase", "linear phase");
    addParameter (linPhase);

    trim = addFloatParameter ("trim", "trim", 0.0f, { -6.0f, 6.0f });
    low = addFloatParameter ("low", "low", 0.0f, { -6.0f, 6.0f });
    high = addFloatParameter ("high", "high", 0.0f, { -3.0f, 3.0f });
    lowFreq = addFloatParameter ("low_freq", "low_freq", 150.0f, { 20.0f, 300.0f, 0.0f, 0.5f });
    highFreq = addFloatParameter ("high_freq", "high_freq", 4500.0f, { 3000.0f, 15000.0f, 0.0f, 0.5f });

    if (getLatencySamples() != baseLatency)
        setLatencySamples (baseLatency);
}

QuendaAudioProcessor::~QuendaAudioProcessor()
{
    cancelPendingUpdate();
}

PlainFloatParameter* QuendaAudioProcessor::addFloatParameter (const juce::String& id, const juce::String& name,
                                                              float defaultValue,
                                                              juce::NormalisableRange<float> displayRange)
{
    auto* parameter = new PlainFloatParameter (id, name, defaultValue, displayRange, normalisationFor (wrapperType));
    addParameter (parameter);
    return parameter;
}

bool QuendaAudioProcessor::isBusesLayoutSupported (const BusesLayout& layout) const
{
    const auto output = layout.getMainOutputChannelSet();
    return (output == juce::AudioChannelSet::mono() || output == juce::AudioChannelSet::stereo())
        && layout.getMainInputChannelSet() == output;
}

void QuendaAudioProcessor::prepareToPlay (double, int)
{
}

void QuendaAudioProcessor::processBlock (juce::AudioBuffer<float>& buffer, juce::MidiBuffer&)
{
    juce::ScopedNoDenormals noDenormals;

    for (auto channel = getTotalNumInputChannels(); channel < getTotalNumOutputChannels(); ++channel)
        buffer.clear (channel, 0, buffer.getNumSamples());
}

juce::AudioProcessorEditor* QuendaAudioProcessor::createEditor()
{
    return new QuendaAudioProcessorEditor (*this);
}

StateBlock::Values QuendaAudioProcessor::getParameterValues() const
{
    return { tilt->get(), bypass->get() ? 1.0f : 0.0f, linPhase->get() ? 1.0f : 0.0f, trim->get(),
             low->get(), high->get(), lowFreq->get(), highFreq->get() };
}

void QuendaAudioProcessor::getStateInformation (juce::MemoryBlock& destData)
{
    destData = StateBlock::write (getParameterValues());
}

void QuendaAudioProcessor::setStateInformation (const void* data, int sizeInBytes)
{
    const auto restored = StateBlock::read (data, sizeInBytes);

    if (! restored)
        return;

    const auto& parameters = getParameters();

    for (size_t i = 0; i < restored->size(); ++i)
    {
        const auto& value = (*restored)[i];

        if (! value)
            continue;

        if (auto* plain = dynamic_cast<PlainFloatParameter*> (parameters[(int) i]))
            plain->setPlainValueNotifyingHost (*value);
        else
            parameters[(int) i]->setValueNotifyingHost (*value);
    }
}

juce::AudioProcessor* JUCE_CALLTYPE createPluginFilter()
{
    return new QuendaAudioProcessor();
}
