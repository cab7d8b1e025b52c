// SPDX-License-Identifier: GPL-3.0-or-later
#include "PluginProcessor.h"
#include "plugin/PluginEditor.h"
#include "platform/HostInfo.h"

#include "dsp/DesignLimits.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

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

// WaveLab needs the kernels before the block that asked for them returns.
bool hostWantsSynchronousDesign()
{
    return platform::hostExecutablePath().find ("wavelab") != std::string::npos;
}

thread_local QuendaAudioProcessor* lastCreated = nullptr;
}

QuendaAudioProcessor* QuendaAudioProcessor::lastCreatedOnThisThread() noexcept
{
    return lastCreated;
}

QuendaAudioProcessor::QuendaAudioProcessor()
    : juce::AudioProcessor (BusesProperties().withInput ("Input", juce::AudioChannelSet::stereo(), true).withOutput ("Output", juce::AudioChannelSet::stereo(), true)),
      // The wrapper that creates this instance is known by now and fixes the normalisation.
      parameters (*this, normalisationFor (wrapperType)),
      engineLock (platform::NamedSemaphore::open (engineLockName)),
      kernelDesignLock (platform::NamedSemaphore::open (kernelDesignLockName)),
      designs (KernelDesigns::create (tiltStage.getKernelBank(), engineLock, kernelDesignLock, hostWantsSynchronousDesign())),
      latencyReporter (LatencyReporter::create (*this, baseLatency))
{
    if (getLatencySamples() != baseLatency)
        setLatencySamples (baseLatency);

    // Unpaired on purpose: at count 1 this does nothing; it frees a lock another instance
    // holds at this moment.
    engineLock.release();
    kernelDesignLock.release();

    // No design yet: prepareToPlay makes the kernels for the host's rate, and a block that
    // finds none asks for them. Hosts that only open and close an instance (a plug-in scan)
    // then never have a design on the message thread to wait for when they close it.
    prepareEngine (juce::jlimit (0, largestBlockSize, getBlockSize()));

    lastCreated = this;
}

QuendaAudioProcessor::~QuendaAudioProcessor()
{
    if (lastCreated == this)
        lastCreated = nullptr;

    LatencyReporter::dispose (std::move (latencyReporter));

    // Hosts delete instances on any thread, some while they block the message thread
    // (JUCE's VST2 wrapper on Linux holds its lock): nothing here may wait for it.
    KernelDesigns::dispose (std::move (designs));
}

const juce::String QuendaAudioProcessor::getProgramName (int)
{
    // VST2 sessions know the one program as unnamed; VST3 validators and LV2 preset lists
    // need a name.
    if (wrapperType == wrapperType_VST || wrapperType == wrapperType_Undefined)
        return {};

    return "Default";
}

juce::AudioProcessorParameter* QuendaAudioProcessor::getBypassParameter() const
{
    // Only VST3 gets it. The VST2 wrapper would turn a host's bypass into a saved "bypass"
    // value, and JUCE's LV2 wrapper overwrites this parameter from the host's "enabled" port
    // every block, so a saved or automated bypass would be lost.
    return wrapperType == wrapperType_VST3 ? &parameters.getBypass() : nullptr;
}

bool QuendaAudioProcessor::isBusesLayoutSupported (const BusesLayout& layout) const
{
    const auto output = layout.getMainOutputChannelSet();
    return (output == juce::AudioChannelSet::mono() || output == juce::AudioChannelSet::stereo())
           && layout.getMainInputChannelSet() == output;
}

//==============================================================================
void QuendaAudioProcessor::prepareEngine (int maximumBlockSize)
{
    // Held while the buffers change so that no kernel computation can run on half-made ones.
    engineLock.wait();
    tiltStage.prepare (maximumBlockSize);
    engineLock.release();

    // Unpaired, like the one at construction: frees a lock another instance holds right now.
    engineLock.release();
}

void QuendaAudioProcessor::requestKernelDesign()
{
    // Not getSampleRate(): the audio thread changes it when the host's rate changes.
    const auto rate = blockSampleRate.load();
    designs->request (rate > 0.0 ? rate : getSampleRate());
}

void QuendaAudioProcessor::runPendingKernelDesign()
{
    designs->runPendingRequest();
}

void QuendaAudioProcessor::rateSetWhileResumed (double sampleRate)
{
    if (! limits::isUsableSampleRate (sampleRate))
        return;

    // Kernels first: a host without time info has its blocks follow the rate given here.
    designs->designAhead (sampleRate);
    HostSampleRate::setRateSetWhileResumed (sampleRate);
}

//==============================================================================
namespace
{
// On the bits, so that it vectorises: infinities and NaNs are the magnitudes with every
// exponent bit set.
bool isFinite (const float* samples, int n) noexcept
{
    int32_t beyond = 0;

    for (int i = 0; i < n; ++i)
    {
        int32_t bits;
        std::memcpy (&bits, samples + i, sizeof (bits));
        beyond |= (bits & 0x7fffffff) >= 0x7f800000 ? 1 : 0;
    }

    return beyond == 0;
}
}

void QuendaAudioProcessor::reportLatency (bool linearPhase)
{
    latencyReporter->reportNow (baseLatency + (linearPhase ? linearPhaseLatency : 0));
}

void QuendaAudioProcessor::prepareToPlay (double sampleRate, int maximumExpectedSamplesPerBlock)
{
    // A rate no filter can be designed for is refused: the last usable one stays.
    if (! (std::isfinite (sampleRate) && sampleRate > 0.0))
        setRateAndBufferSizeDetails (std::isfinite (preparedSampleRate) && preparedSampleRate > 0.0 ? preparedSampleRate : 44100.0,
                                     maximumExpectedSamplesPerBlock);

    HostSampleRate::setRateSetWhileResumed (0.0);

    // Everything a block needs is made here, off the audio thread: buffers for the declared
    // block size, kernels for this rate, filters and glides starting from silence, and the
    // latency, so that the first block is already fully processed.
    prepareEngine (juce::jlimit (1, largestBlockSize, maximumExpectedSamplesPerBlock));
    designs->designNow (getSampleRate());

    shelfStage.prepare (getSampleRate());
    const auto settings = BlockSettings::from (getParameterValues(), shelfStage.getSampleRate());

    tiltStage.reset (settings.tilt);
    shelfStage.reset (settings.shelves);
    trimStage.reset (settings.trim);
    preparedSampleRate = getSampleRate();
    blockSampleRate = preparedSampleRate;
    waitingForFirstBlock = true;

    latencyIsLinear = settings.tilt.linearPhase;
    reportLatency (latencyIsLinear);
}

void QuendaAudioProcessor::processBlockBypassed (juce::AudioBuffer<float>& buffer, juce::MidiBuffer&)
{
    juce::ScopedNoDenormals noDenormals;

    for (auto channel = getTotalNumInputChannels(); channel < getTotalNumOutputChannels(); ++channel)
        buffer.clear (channel, 0, buffer.getNumSamples());

    if (buffer.getNumSamples() > 0)
        silenceIfNotFinite (buffer, std::min (getTotalNumOutputChannels(), buffer.getNumChannels()));
}

void QuendaAudioProcessor::processBlock (juce::AudioBuffer<float>& buffer, juce::MidiBuffer&)
{
    // Denormal feedback in the shelves and the convolution's tails costs up to half as much again.
    juce::ScopedNoDenormals noDenormals;

    const auto numInputs = getTotalNumInputChannels();
    const auto numOutputs = getTotalNumOutputChannels();
    const auto n = buffer.getNumSamples();

    for (auto channel = numInputs; channel < numOutputs; ++channel)
        buffer.clear (channel, 0, n);

    if (n <= 0)
        return;

    const auto numChannels = std::min (numOutputs, buffer.getNumChannels());

    // A VST2 host may set a new rate while running; the wrapper keeps it from us until the
    // next resume. Taking it over here makes it a change of rate like any other.
    const auto hostRate = HostSampleRate::current();

    if (limits::isUsableSampleRate (hostRate) && hostRate != getSampleRate())
        setRateAndBufferSizeDetails (hostRate, getBlockSize());

    const auto sampleRate = getSampleRate();

    // A host that changes the rate without preparing again: the shelves follow at once, and so
    // does the tilt, with kernels made ahead where the host set the rate, otherwise made here
    // in what prepare made (about a millisecond, once). Only while another thread is designing
    // does it wait for the message thread's design.
    if (sampleRate != preparedSampleRate)
    {
        shelfStage.followSampleRate (sampleRate);
        preparedSampleRate = sampleRate;
        blockSampleRate = sampleRate;

        if (! tiltStage.hasKernelsFor (sampleRate) && ! tiltStage.designKernelsInBlock (sampleRate))
            requestKernelDesign();
    }

    auto settings = BlockSettings::from (getParameterValues(), shelfStage.getSampleRate());
    settings.tilt.kernelSampleRate = sampleRate;
    const auto linearPhase = settings.tilt.linearPhase;

    // The audio takes the new latency from this block; the host is told from the message thread.
    if (linearPhase != latencyIsLinear)
    {
        latencyReporter->switchTo (baseLatency + (linearPhase ? linearPhaseLatency : 0));
        latencyIsLinear = linearPhase;
    }

    auto* const* channels = buffer.getArrayOfWritePointers();

    // Hosts restore a session between prepareToPlay and the first block: that block starts
    // from the restored values as if they had been there at prepare, with no glide.
    if (waitingForFirstBlock)
    {
        tiltStage.reset (settings.tilt);
        shelfStage.reset (settings.shelves);
        trimStage.reset (settings.trim);
        waitingForFirstBlock = false;
    }

    if (! designs->isReady() || ! tiltStage.process (channels, numChannels, n, settings.tilt))
    {
        requestKernelDesign();
        silenceIfNotFinite (buffer, numChannels);
        return;
    }

    shelfStage.process (channels, numChannels, n, settings.shelves);
    trimStage.process (channels, numChannels, n, settings.trim);
    silenceIfNotFinite (buffer, numChannels);
}

void QuendaAudioProcessor::silenceIfNotFinite (juce::AudioBuffer<float>& buffer, int numChannels) noexcept
{
    // One check per block: a non-finite input or state must not stay in the filters.
    for (int channel = 0; channel < numChannels; ++channel)
    {
        if (! isFinite (buffer.getReadPointer (channel), buffer.getNumSamples()))
        {
            recoverFromNonFiniteOutput (buffer, numChannels);
            break;
        }
    }
}

void QuendaAudioProcessor::recoverFromNonFiniteOutput (juce::AudioBuffer<float>& buffer, int numChannels) noexcept
{
    for (int channel = 0; channel < numChannels; ++channel)
        buffer.clear (channel, 0, buffer.getNumSamples());

    shelfStage.clearState();
    tiltStage.reset();
}

juce::AudioProcessorEditor* QuendaAudioProcessor::createEditor()
{
    return new QuendaAudioProcessorEditor (*this);
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

    for (size_t i = 0; i < restored->size(); ++i)
        if (const auto& value = (*restored)[i])
            parameters.setPlainValue (i, *value);

    // The host learns the latency of the restored phase mode now, not at the first block.
    reportLatency (parameters.isLinearPhase());
}

juce::AudioProcessor* JUCE_CALLTYPE createPluginFilter()
{
    return new QuendaAudioProcessor();
}
