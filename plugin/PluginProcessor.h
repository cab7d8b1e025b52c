// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "ParameterTable.h"
#include "PlainParameter.h"
#include "StateBlock.h"
#include "dsp/Biquad.h"
#include "dsp/TiltStage.h"
#include "platform/NamedSemaphore.h"

#include <juce_audio_processors/juce_audio_processors.h>

#include <atomic>
#include <mutex>

/** Quenda: a spectral tilt, a low and a high shelf, then an output trim.

    The parameter indices (tiltIndex ...) come from ParameterTable, in host order.
*/
class QuendaAudioProcessor : public juce::AudioProcessor,
                             public juce::AsyncUpdater,
                             public ParameterTable
{
public:
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
    const juce::String getProgramName (int) override;
    void changeProgramName (int, const juce::String&) override {}

    /** The "bypass" switch, for the VST3 wrapper's host bypass (it adds a second one otherwise). */
    juce::AudioProcessorParameter* getBypassParameter() const override;

    void getStateInformation (juce::MemoryBlock& destData) override;
    void setStateInformation (const void* data, int sizeInBytes) override;

    /** The current values of all eight parameters, in index order. */
    StateBlock::Values getParameterValues() const;

    /** Re-applies the shelf settings (type, Q, corner, gain, rate) without touching the
        tilt, the trim or the gain glides. */
    void configureShelves();

    /** Names of the locks shared by all instances of the user. */
    static constexpr const char* engineLockName = "Local\\SelvanePQuenda_semaphore";
    static constexpr const char* filtersLockName = "Local\\SelvaneComputeFilters_semaphore";

    /** Latency added while linear phase is on: the kernel's centre. */
    static constexpr int linearPhaseLatency = TiltStage::linearPhaseDelay;

private:
    /** A shelf gain's glide over one block, in dB. */
    struct GainSmoother
    {
        float target = 0.0f;
        float previous = 0.0f;
        float current = 0.0f;
        double increment = 0.0;
    };

    void handleAsyncUpdate() override;

    /** Sizes the tilt stage and the kernel sets for blocks of up to blockSize samples. */
    void prepareEngine (int maximumBlockSize);

    /** Runs computeFilters() at once in the one host that needs it, otherwise on the
        message thread. */
    void requestFilterComputation();

    /** Designs the kernels for the current sample rate under the shared locks and hands
        them to the audio thread. */
    void computeFilters();

    /** Shelves at the current settings and rate with their state cleared, no glide pending. */
    void resetShelves (const StateBlock::Values& values);

    /** Reports the latency for a "lin_phase" state, once per change, from either thread. */
    void reportLatency (bool linearPhase);

    /** After a block whose output was not finite: silence it and clear every filter state. */
    void recoverFromNonFiniteOutput (juce::AudioBuffer<float>& buffer, int numChannels) noexcept;

    /** False, leaving the block as it is, while no kernels are designed. */
    bool processTilt (juce::AudioBuffer<float>& buffer, int numChannels, const StateBlock::Values& values);
    void processShelves (juce::AudioBuffer<float>& buffer, int numChannels, const StateBlock::Values& values);
    void processTrim (juce::AudioBuffer<float>& buffer, int numChannels, const StateBlock::Values& values);

    // Low shelf of channels 0 and 1, then high shelf of channels 0 and 1.
    Biquad filters[4];

    // Owned by the framework's parameter list; by index, one of the two is set.
    std::array<PlainFloatParameter*, numParameters> floatParameters {};
    std::array<juce::AudioParameterBool*, numParameters> switchParameters {};

    // The same objects by name, for the audio code.
    PlainFloatParameter* tilt = nullptr;
    juce::AudioParameterBool* bypass = nullptr;
    juce::AudioParameterBool* linPhase = nullptr;
    PlainFloatParameter* trim = nullptr;
    PlainFloatParameter* high = nullptr;
    PlainFloatParameter* low = nullptr;
    PlainFloatParameter* lowFreq = nullptr;
    PlainFloatParameter* highFreq = nullptr;

    GainSmoother smoothers[4];
    bool latencyIsLinear = false;
    std::atomic<int> reportedLatency { 0 };

    TiltStage tiltStage;
    std::atomic<bool> filtersReady { false };
    int baseLatency = 0;

    float previousTrimDb = 0.0f;
    double preparedSampleRate = 0.0;

    const bool computeOnRequestingThread;
    std::mutex asyncDesign;                // held by a design that runs from the async update
    std::atomic<bool> destroying { false };
    platform::NamedSemaphore& engineLock;
    platform::NamedSemaphore& filtersLock;

    JUCE_DECLARE_NON_COPYABLE_WITH_LEAK_DETECTOR (QuendaAudioProcessor)
};
