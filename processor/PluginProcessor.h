// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "PlainParameter.h"
#include "StateBlock.h"

#include <juce_audio_processors/juce_audio_processors.h>

/** Quenda: a spectral tilt, a low and a high shelf, then an output trim. */
class QuendaAudioProcessor : public juce::AudioProcessor,
                             public juce::AsyncUpdater
{
public:
    /** Parameter indices as hosts and the editor see them. */
    enum ParameterIndex
    {
        tiltIndex = 0,
        bypassIndex,
        linPhaseIndex,
        trimIndex,
        lowIndex,
        highIndex,
        lowFreqIndex,
        highFreqIndex,
        numParameters
    };

    QuendaAudioProcessor();
    ~QuendaAudioProcessor() override;

    const juce::String getName() const override       { return "Quenda"; }

    void prepareToPlay (double sampleRate, int maximumExpectedSamplesPerBlock) override;
    void releaseResources() override                  {}
    void processBlock (juce::AudioBuffer<float>&, juce::MidiBuffer&) override;
    using juce::AudioProcessor::processBlock;

    /** Stereo or mono, the same on both sides; without this JUCE 7's VST2 wrapper offers 64 channels. */
    bool isBusesLayoutSupported (const BusesLayout& layout) const override;

    double getTailLengthSeconds() const override      { return 0.0; }
    bool acceptsMidi() const override                 { return false; }
    bool producesMidi() const override                { return false; }

    juce::AudioProcessorEditor* createEditor() override;
    bool hasEditor() const override                   { return true; }

    int getNumPrograms() override                     { return 1; }
    int getCurrentProgram() override                  { return 0; }
    void setCurrentProgram (int) override             {}
    const juce::String getProgramName (int) override  { return {}; }
    void changeProgramName (int, const juce::String&) override {}

    void getStateInformation (juce::MemoryBlock& destData) override;
    void setStateInformation (const void* data, int sizeInBytes) override;

    /** The current values of all eight parameters, in index order. */
    StateBlock::Values getParameterValues() const;

private:
    void handleAsyncUpdate() override {}

    PlainFloatParameter* addFloatParameter (const juce::String& id, const juce::String& name,
                                            float defaultValue, juce::NormalisableRange<float> displayRange);

    // Owned by the framework's parameter list.
    PlainFloatParameter* tilt = nullptr;
    juce::AudioParameterBool* bypass = nullptr;
    juce::AudioParameterBool* linPhase = nullptr;
    PlainFloatParameter* trim = nullptr;
    PlainFloatParameter* high = nullptr;
    PlainFloatParameter* low = nullptr;
    PlainFloatParameter* lowFreq = nullptr;
    PlainFloatParameter* highFreq = nullptr;

    int baseLatency = 0;

    JUCE_DECLARE_NON_COPYABLE_WITH_LEAK_DETECTOR (QuendaAudioProcessor)
};
