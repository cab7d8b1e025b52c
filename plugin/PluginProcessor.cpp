// SPDX-License-Identifier: GPL-3.0-or-later
#include "PluginProcessor.h"
#include "plugin/PluginEditor.h"
#include "platform/HostInfo.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

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

    juce::String toString (std::string_view text)
    {
        return juce::String (text.data(), text.size());
    }

    // WaveLab needs the kernels before the block that asked for them returns.
    bool hostWantsSynchronousComputation()
    {
        return platform::hostExecutablePath().find ("wavelab") != std::string::npos;
    }

    constexpr double lowShelfQ = 0.35;
    constexpr double highShelfQ = 0.5;

    bool isUsableSampleRate (double rate) noexcept
    {
        return rate > 0.0 && rate < 384000.0;
    }
}

QuendaAudioProcessor::QuendaAudioProcessor()
    : juce::AudioProcessor (BusesProperties().withInput ("Input", juce::AudioChannelSet::stereo(), true)
                                             .withOutput ("Output", juce::AudioChannelSet::stereo(), true)),
      computeOnRequestingThread (hostWantsSynchronousComputation()),
      engineLock (platform::NamedSemaphore::open (engineLockName)),
      filtersLock (platform::NamedSemaphore::open (filtersLockName))
{
    // The wrapper that creates this instance is known by now and fixes the normalisation.
    const auto normalisation = normalisationFor (wrapperType);

    for (size_t i = 0; i < entries.size(); ++i)
    {
        const auto& parameter = entries[i];

        if (parameter.isSwitch)
        {
            switchParameters[i] = new juce::AudioParameterBool (juce::ParameterID { toString (parameter.id), 1 },
                                                                toString (parameter.name),
                                                                parameter.isOn (parameter.defaultValue));
            addParameter (switchParameters[i]);
        }
        else
        {
            floatParameters[i] = new PlainFloatParameter (parameter, normalisation);
            addParameter (floatParameters[i]);
        }
    }

    tilt = floatParameters[tiltIndex];
    bypass = switchParameters[bypassIndex];
    linPhase = switchParameters[linPhaseIndex];
    trim = floatParameters[trimIndex];
    low = floatParameters[lowIndex];
    high = floatParameters[highIndex];
    lowFreq = floatParameters[lowFreqIndex];
    highFreq = floatParameters[highFreqIndex];

    if (getLatencySamples() != baseLatency)
        setLatencySamples (baseLatency);

    // Unpaired on purpose: at count 1 this does nothing; it frees a lock another instance
    // holds at this moment.
    engineLock.release();
    filtersLock.release();

    prepareEngine (std::max (getBlockSize(), 0));
    requestFilterComputation();
}

QuendaAudioProcessor::~QuendaAudioProcessor()
{
    cancelPendingUpdate();
    destroying = true;

    // Some hosts delete an instance on a thread of their own (JUCE's LV2 host does on every
    // prepareToPlay) while its message thread is designing: that design finishes first.
    {
        const std::lock_guard<std::mutex> designEnded (asyncDesign);
    }

    // An update the message thread had already taken out of the queue when it was cancelled
    // has not reached handleAsyncUpdate yet: one round trip there lets it see `destroying`.
    auto* messageManager = juce::MessageManager::getInstanceWithoutCreating();

    if (messageManager != nullptr && ! messageManager->isThisTheMessageThread())
    {
        auto roundTrip = std::make_shared<juce::WaitableEvent>();

        if (juce::MessageManager::callAsync ([roundTrip] { roundTrip->signal(); }))
            roundTrip->wait (2000);
    }
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
    return wrapperType == wrapperType_VST3 ? bypass : nullptr;
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

void QuendaAudioProcessor::requestFilterComputation()
{
    if (computeOnRequestingThread)
        computeFilters();
    else
        triggerAsyncUpdate();
}

void QuendaAudioProcessor::handleAsyncUpdate()
{
    const std::lock_guard<std::mutex> running (asyncDesign);

    if (! destroying)
        computeFilters();
}

void QuendaAudioProcessor::computeFilters()
{
    filtersLock.wait();
    filtersReady = true;
    filtersLock.release();

    // The shared lock serialises designs across instances; the audio thread never takes it,
    // it picks the new set up at its next block.
    engineLock.wait();
    tiltStage.designKernels (getSampleRate());
    engineLock.release();
}

//==============================================================================
namespace
{
    // Limits that keep every design finite and stable at any rate, far outside the
    // editor's ranges; the parameters themselves keep whatever value they were given.
    constexpr double lowestCorner = 0.01;
    constexpr double highestCornerRatio = 0.49;
    constexpr float gainLimitDb = 200.0f;
    constexpr double tiltLimit = 100.0;

    double safeCorner (double corner, double rate) noexcept
    {
        return juce::jlimit (lowestCorner, highestCornerRatio * rate, corner);
    }

    float safeGain (float gainDb) noexcept
    {
        return juce::jlimit (-gainLimitDb, gainLimitDb, gainDb);
    }

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

void QuendaAudioProcessor::configureShelves()
{
    const auto rate = getSampleRate();

    for (int channel = 0; channel < 2; ++channel)
    {
        filters[channel].configure (Biquad::lowShelfQ, (double) lowFreq->get(), lowShelfQ, (double) low->get(), rate);
        filters[2 + channel].configure (Biquad::highShelfMirrored, (double) highFreq->get(), highShelfQ, (double) high->get(), rate);
    }
}

void QuendaAudioProcessor::resetShelves (const StateBlock::Values& values)
{
    const auto bypassed = values[bypassIndex] >= 0.5f;
    const auto rate = getSampleRate();

    for (int index = 0; index < 4; ++index)
    {
        const auto isLow = index < 2;
        auto& filter = filters[index];
        auto& smoother = smoothers[index];

        smoother.target = bypassed ? 0.0f : safeGain (values[isLow ? lowIndex : highIndex]);
        smoother.previous = smoother.current = smoother.target;
        smoother.increment = 0.0;

        filter.type = isLow ? Biquad::lowShelfQ : Biquad::highShelfMirrored;
        filter.Q = isLow ? lowShelfQ : highShelfQ;

        if (isUsableSampleRate (rate))
            filter.sampleRate = rate;

        filter.Fc = safeCorner ((double) values[isLow ? lowFreqIndex : highFreqIndex], filter.sampleRate);
        filter.gainDb = (double) smoother.target;
        filter.design();
        filter.ready = 1;
        filter.z1 = filter.z2 = 0.0;
    }
}

void QuendaAudioProcessor::reportLatency (bool linearPhase)
{
    const auto latency = baseLatency + (linearPhase ? linearPhaseLatency : 0);

    if (reportedLatency.exchange (latency) != latency)
        setLatencySamples (latency);
}

void QuendaAudioProcessor::prepareToPlay (double, int maximumExpectedSamplesPerBlock)
{
    // Everything a block needs is made here, off the audio thread: buffers for the declared
    // block size, kernels for this rate, filters and glides starting from silence, and the
    // latency, so that the first block is already fully processed.
    cancelPendingUpdate();
    prepareEngine (std::max (maximumExpectedSamplesPerBlock, 1));
    computeFilters();

    const auto values = getParameterValues();
    const auto bypassed = values[bypassIndex] >= 0.5f;

    tiltStage.reset ({ bypassed ? 0.0 : juce::jlimit (-tiltLimit, tiltLimit, (double) values[tiltIndex]), values[linPhaseIndex] >= 0.5f });
    previousTrimDb = bypassed ? 0.0f : safeGain (values[trimIndex]);
    resetShelves (values);
    preparedSampleRate = getSampleRate();

    latencyIsLinear = values[linPhaseIndex] >= 0.5f;
    reportLatency (latencyIsLinear);
}

void QuendaAudioProcessor::processBlock (juce::AudioBuffer<float>& buffer, juce::MidiBuffer&)
{
    const auto numInputs = getTotalNumInputChannels();
    const auto numOutputs = getTotalNumOutputChannels();
    const auto n = buffer.getNumSamples();

    for (auto channel = numInputs; channel < numOutputs; ++channel)
        buffer.clear (channel, 0, n);

    if (n <= 0)
        return;

    const auto numChannels = std::min (numOutputs, buffer.getNumChannels());

    // Every parameter is read once per block, so all stages agree even while a host writes.
    const auto values = getParameterValues();
    const auto linearPhase = values[linPhaseIndex] >= 0.5f;

    if (linearPhase != latencyIsLinear)
    {
        reportLatency (linearPhase);
        latencyIsLinear = linearPhase;
    }

    const auto sampleRate = getSampleRate();

    // A host that changes the rate without preparing again: the shelves follow at once, the
    // kernels after the message thread has designed them.
    if (sampleRate != preparedSampleRate)
    {
        for (auto& filter : filters)
        {
            if (isUsableSampleRate (sampleRate))
                filter.sampleRate = sampleRate;

            filter.Fc = safeCorner (filter.Fc, filter.sampleRate);
            filter.design();
        }

        preparedSampleRate = sampleRate;
        requestFilterComputation();
        return;
    }

    if (! filtersReady || ! processTilt (buffer, numChannels, values))
    {
        requestFilterComputation();
        return;
    }

    processShelves (buffer, numChannels, values);
    processTrim (buffer, numChannels, values);

    // One check per block: a non-finite input or state must not stay in the filters.
    for (int channel = 0; channel < numChannels; ++channel)
    {
        if (! isFinite (buffer.getReadPointer (channel), n))
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

    for (auto& filter : filters)
        filter.z1 = filter.z2 = 0.0;

    tiltStage.reset();
}

bool QuendaAudioProcessor::processTilt (juce::AudioBuffer<float>& buffer, int numChannels, const StateBlock::Values& values)
{
    const auto linearPhase = values[linPhaseIndex] >= 0.5f;
    const auto bypassed = values[bypassIndex] >= 0.5f;
    const auto target = bypassed ? 0.0 : juce::jlimit (-tiltLimit, tiltLimit, (double) values[tiltIndex]);

    return tiltStage.process (buffer.getArrayOfWritePointers(), numChannels, buffer.getNumSamples(), { target, linearPhase });
}

void QuendaAudioProcessor::processShelves (juce::AudioBuffer<float>& buffer, int numChannels, const StateBlock::Values& values)
{
    const auto bypassed = values[bypassIndex] >= 0.5f;
    const auto lowCorner = safeCorner ((double) values[lowFreqIndex], filters[0].sampleRate);
    const auto highCorner = safeCorner ((double) values[highFreqIndex], filters[2].sampleRate);
    const auto n = buffer.getNumSamples();
    const auto shelfChannels = std::min (numChannels, 2);

    if (! bypassed)
    {
        const auto lowGain = safeGain (values[lowIndex]), highGain = safeGain (values[highIndex]);
        const float targets[] = { lowGain, lowGain, highGain, highGain };

        for (int k = 0; k < 4; ++k)
        {
            smoothers[k].target = targets[k];
            smoothers[k].increment = (double) ((smoothers[k].target - smoothers[k].previous) / (float) n);
        }
    }
    else
    {
        // Bypass takes shelf k to 0 dB for k below the channel count: on a mono bus the high
        // shelf keeps its gain.
        for (int shelf = 0; shelf < shelfChannels; ++shelf)
        {
            for (int channel = 0; channel < 2; ++channel)
            {
                auto& smoother = smoothers[2 * shelf + channel];
                smoother.target = 0.0f;
                smoother.increment = (double) ((0.0f - smoother.previous) / (float) n);
            }
        }
    }

    for (int channel = 0; channel < shelfChannels; ++channel)
    {
        auto& lowShelf = filters[channel];
        auto& highShelf = filters[2 + channel];

        if (lowCorner != lowShelf.Fc)
        {
            lowShelf.Fc = lowCorner;
            lowShelf.design();
        }

        if (highCorner != highShelf.Fc)
        {
            highShelf.Fc = highCorner;
            highShelf.design();
        }
    }

    const auto allSteady = std::all_of (std::begin (smoothers), std::end (smoothers),
                                        [] (const GainSmoother& s) { return s.target == s.previous; });

    if (allSteady && shelfChannels == 2)
    {
        // No glide: both channels side by side, low shelf then high shelf.
        for (int index = 0; index < 4; ++index)
        {
            smoothers[index].current = smoothers[index].target;

            if ((double) smoothers[index].current != filters[index].gainDb)
            {
                filters[index].gainDb = (double) smoothers[index].current;
                filters[index].design();
            }
        }

        Biquad::processStereoCascade (filters[0], filters[1], filters[2], filters[3],
                                      buffer.getWritePointer (0), buffer.getWritePointer (1), n);
    }
    else
    {
        for (int channel = 0; channel < shelfChannels; ++channel)
        {
            auto* samples = buffer.getWritePointer (channel);

            for (auto index : { channel, 2 + channel })
            {
                auto& filter = filters[index];
                auto& smoother = smoothers[index];
                const auto steady = smoother.target == smoother.previous;

                for (int i = 0; i < n; ++i)
                {
                    smoother.current = steady ? smoother.target
                                              : (float) ((double) smoother.previous + i * smoother.increment);

                    // Redesigned per sample while gliding; the state carries over, so no click.
                    if ((double) smoother.current != filter.gainDb)
                    {
                        filter.gainDb = (double) smoother.current;
                        filter.design();
                    }

                    samples[i] = filter.process (samples[i]);
                }
            }
        }
    }

    for (auto& smoother : smoothers)
        smoother.previous = smoother.target;
}

void QuendaAudioProcessor::processTrim (juce::AudioBuffer<float>& buffer, int numChannels, const StateBlock::Values& values)
{
    const auto n = buffer.getNumSamples();
    const auto trimDb = values[bypassIndex] >= 0.5f ? 0.0f : safeGain (values[trimIndex]);

    if (trimDb == previousTrimDb)
    {
        const auto gain = (float) std::pow (10.0, (double) trimDb / 20.0);

        for (int channel = 0; channel < numChannels; ++channel)
            juce::FloatVectorOperations::multiply (buffer.getWritePointer (channel), gain, n);
    }
    else
    {
        const auto startGain = (float) std::pow (10.0, (double) previousTrimDb / 20.0);
        const auto endGain = (float) std::pow (10.0, (double) trimDb / 20.0);

        // Starts at the old gain and stops one step short of the new one.
        for (int channel = 0; channel < numChannels; ++channel)
            buffer.applyGainRamp (channel, 0, n, startGain, endGain);
    }

    previousTrimDb = trimDb;
}

juce::AudioProcessorEditor* QuendaAudioProcessor::createEditor()
{
    return new QuendaAudioProcessorEditor (*this);
}

StateBlock::Values QuendaAudioProcessor::getParameterValues() const
{
    StateBlock::Values values {};

    for (size_t i = 0; i < values.size(); ++i)
        values[i] = floatParameters[i] != nullptr ? floatParameters[i]->get()
                                                  : (switchParameters[i]->get() ? 1.0f : 0.0f);

    return values;
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
    {
        const auto& value = (*restored)[i];

        if (! value)
            continue;

        if (floatParameters[i] != nullptr)
            floatParameters[i]->setPlainValueNotifyingHost (*value);
        else
            switchParameters[i]->setValueNotifyingHost (*value);
    }

    // The host learns the latency of the restored phase mode now, not at the first block.
    reportLatency (linPhase->get());
}

juce::AudioProcessor* JUCE_CALLTYPE createPluginFilter()
{
    return new QuendaAudioProcessor();
}
