// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "BlockSettings.h"
#include "HostSampleRate.h"
#include "KernelDesigns.h"
#include "LatencyReporter.h"
#include "ParameterTable.h"
#include "Parameters.h"
#include "StateBlock.h"
#include "dsp/ShelfStage.h"
#include "dsp/TiltStage.h"
#include "dsp/TrimStage.h"
#include "platform/NamedSemaphore.h"

#include <juce_audio_processors/juce_audio_processors.h>

#include <atomic>
#include <memory>

/** Quenda: a spectral tilt, a low and a high shelf, then an output trim. */
class QuendaAudioProcessor : public juce::AudioProcessor, public HostSampleRate
{
public:
    QuendaAudioProcessor();
    ~QuendaAudioProcessor() override;

    const juce::String getName() const override { return "Quenda"; }

    void prepareToPlay (double sampleRate, int maximumExpectedSamplesPerBlock) override;
    void releaseResources() override {}
    void processBlock (juce::AudioBuffer<float>&, juce::MidiBuffer&) override;
    using juce::AudioProcessor::processBlock;

    /** The host's bypass (VST2): the input as it is, but never a NaN or infinity. */
    void processBlockBypassed (juce::AudioBuffer<float>&, juce::MidiBuffer&) override;
    using juce::AudioProcessor::processBlockBypassed;

    /** Stereo or mono, the same on both sides; without this JUCE 7's VST2 wrapper offers 64 channels. */
    bool isBusesLayoutSupported (const BusesLayout& layout) const override;

    double getTailLengthSeconds() const override { return 0.0; }
    bool acceptsMidi() const override { return false; }
    bool producesMidi() const override { return false; }

    juce::AudioProcessorEditor* createEditor() override;
    bool hasEditor() const override { return true; }

    int getNumPrograms() override { return 1; }
    int getCurrentProgram() override { return 0; }
    void setCurrentProgram (int) override {}
    const juce::String getProgramName (int) override;
    void changeProgramName (int, const juce::String&) override {}

    /** The "bypass" switch, for the VST3 wrapper's host bypass (it adds a second one otherwise). */
    juce::AudioProcessorParameter* getBypassParameter() const override;

    void getStateInformation (juce::MemoryBlock& destData) override;
    void setStateInformation (const void* data, int sizeInBytes) override;

    /** The current values of all eight parameters, in index order. */
    StateBlock::Values getParameterValues() const { return parameters.getValues(); }

    /** The parameters by index, for the editor and the renderer. */
    Parameters& getParameterSet() noexcept { return parameters; }

    /** Asks for the kernels of the current rate, as the audio thread does when it lacks them. */
    void requestKernelDesign();

    /** Message thread: runs a requested design now instead of from the queue. */
    void runPendingKernelDesign();

    /** A VST2 host set a new rate while resumed (on its own thread, never the audio thread):
        the kernels for it are made here, and blocks at that rate use them from the first. */
    void rateSetWhileResumed (double sampleRate);

    /** Names of the locks shared by all instances of the user. Instances of older builds
        in the same session take them too, so the texts never change. */
    static constexpr const char* engineLockName = "Local\\SelvanePQuenda_semaphore";
    static constexpr const char* kernelDesignLockName = "Local\\SelvaneComputeFilters_semaphore";

    /** Latency added while linear phase is on: the kernel's centre. */
    static constexpr int linearPhaseLatency = TiltStage::linearPhaseDelay;

    /** The longest block a host may declare; longer blocks are processed in pieces. */
    static constexpr int largestBlockSize = 65536;

    /** The latency of the last block, before the message thread has told the host. Lock-free:
        the VST2 entry hands it to the host right after the block of a switch. */
    int getLatencyOfLastBlock() const noexcept { return latencyReporter->latest(); }

    /** The instance the calling thread created last (the VST2 entry pairs it with its effect). */
    static QuendaAudioProcessor* lastCreatedOnThisThread() noexcept;

private:
    /** Sizes the tilt stage and the kernel sets for blocks of up to blockSize samples. */
    void prepareEngine (int maximumBlockSize);

    /** Reports the latency for a "lin_phase" state, once per change, from either thread. */
    void reportLatency (bool linearPhase);

    /** After a block whose output was not finite: silence it and clear every filter state. */
    void recoverFromNonFiniteOutput (juce::AudioBuffer<float>& buffer, int numChannels) noexcept;

    /** Silences the block and clears every filter state where an output sample is not finite. */
    void silenceIfNotFinite (juce::AudioBuffer<float>& buffer, int numChannels) noexcept;

    Parameters parameters;

    bool latencyIsLinear = false;

    TiltStage tiltStage;
    ShelfStage shelfStage;
    TrimStage trimStage;
    int baseLatency = 0;

    double preparedSampleRate = 0.0;
    std::atomic<double> blockSampleRate { 0.0 };   // the rate blocks run at, for requests from any thread
    bool waitingForFirstBlock = false;             // prepared, no block processed yet

    platform::NamedSemaphore& engineLock;
    platform::NamedSemaphore& kernelDesignLock;

    // Shared with the designs posted to the message thread, which never see this object.
    std::shared_ptr<KernelDesigns> designs;
    std::shared_ptr<LatencyReporter> latencyReporter;

    JUCE_DECLARE_NON_COPYABLE_WITH_LEAK_DETECTOR (QuendaAudioProcessor)
};
