// SPDX-License-Identifier: GPL-3.0-or-later
#include "PluginProcessor.h"
#include "editor/PluginEditor.h"
#include "platform/HostInfo.h"

#include <cmath>

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
}

QuendaAudioProcessor::~QuendaAudioProcessor()
{
    cancelPendingUpdate();
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
    engine.prepare (maximumBlockSize);
    engineLock.release();

    // Unpaired, like the one at construction: frees a lock another instance holds right now.
    engineLock.release();

    requestFilterComputation();
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
    computeFilters();
}

void QuendaAudioProcessor::computeFilters()
{
    filtersLock.wait();
    filtersReady = true;
    filtersLock.release();

    engineLock.wait();
    engine.design (getSampleRate());
    engineLock.release();
}

//==============================================================================
void QuendaAudioProcessor::configureShelves()
{
    const auto rate = getSampleRate();

    for (int channel = 0; channel < 2; ++channel)
    {
        filters[channel].configure (Biquad::lowShelfQ, (double) lowFreq->get(), lowShelfQ, (double) low->get(), rate);
        filters[2 + channel].configure (Biquad::highShelfMirrored, (double) highFreq->get(), highShelfQ, (double) high->get(), rate);
    }
}

void QuendaAudioProcessor::prepareToPlay (double, int)
{
    previousTrimDb = trim->get();
    previousTilt = (double) tilt->get();

    configureShelves();

    for (auto& smoother : smoothers)
        smoother.previous = smoother.target;
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

    if (n > engine.getPreparedBlockSize())
    {
        // This block is lost while the buffers grow. Sizing for the host's declared maximum
        // too means a host that exceeds it once does not go silent block after block.
        for (int channel = 0; channel < numChannels; ++channel)
            buffer.clear (channel, 0, n);

        prepareEngine (std::max (n, getBlockSize()));
    }

    // Every parameter is read once per block, so all stages agree even while a host writes.
    const auto values = getParameterValues();
    const auto linearPhase = values[linPhaseIndex] >= 0.5f;

    if (linearPhase != latencyIsLinear)
    {
        const auto latency = baseLatency + (linearPhase ? linearPhaseLatency : 0);

        if (latency != getLatencySamples())
            setLatencySamples (latency);

        latencyIsLinear = linearPhase;
    }

    const auto sampleRate = getSampleRate();

    if (sampleRate != preparedSampleRate)
    {
        for (auto& filter : filters)
        {
            if (isUsableSampleRate (sampleRate))
                filter.sampleRate = sampleRate;

            filter.design();
        }

        preparedSampleRate = sampleRate;
        requestFilterComputation();
        return;
    }

    filtersLock.wait();
    const auto ready = filtersReady;
    filtersLock.release();

    if (! ready)
    {
        requestFilterComputation();
        return;
    }

    processTilt (buffer, numChannels, values);
    processShelves (buffer, numChannels, values);
    processTrim (buffer, numChannels, values);
}

void QuendaAudioProcessor::processTilt (juce::AudioBuffer<float>& buffer, int numChannels, const StateBlock::Values& values)
{
    const auto n = buffer.getNumSamples();
    const auto linearPhase = values[linPhaseIndex] >= 0.5f;
    const auto bypassed = values[bypassIndex] >= 0.5f;
    const auto engineChannels = std::min (numChannels, TiltEngine::numChannels);

    engineLock.wait();

    engine.writeInput (buffer.getArrayOfReadPointers(), engineChannels, n);

    const double target = bypassed ? 0.0 : (double) values[tiltIndex];
    const auto gliding = target != previousTilt;
    const auto needPositive = gliding || target > 0.0;
    const auto needNegative = gliding || target < 0.0;
    const auto step = (target - previousTilt) / n;
    const auto dryDelay = baseLatency + (linearPhase ? linearPhaseLatency : 0);

    for (int channel = 0; channel < engineChannels; ++channel)
        engine.writeDry (channel, buffer.getReadPointer (channel), n, dryDelay);

    engine.convolve (engineChannels, n, needPositive, needNegative, linearPhase);

    for (int channel = 0; channel < engineChannels; ++channel)
    {
        auto* samples = buffer.getWritePointer (channel);
        const auto* positive = engine.positiveOutput (channel);
        const auto* negative = engine.negativeOutput (channel);
        const auto* delayedDry = engine.dry (channel);

        for (int i = 0; i < n; ++i)
        {
            const auto t = gliding ? previousTilt + i * step : target;
            const auto drySample = linearPhase ? delayedDry[i] : samples[i];
            const auto weight = std::abs (t);
            const auto dryPart = (float) (1.0 - weight) * drySample;

            // At t = 0 the wet outputs may not have been computed and must not be read.
            if (t == 0.0)
            {
                samples[i] = dryPart;
                continue;
            }

            const auto wet = t < 0.0 ? negative[i] : positive[i];
            samples[i] = (float) ((double) wet * weight + (double) dryPart);
        }
    }

    previousTilt = target;

    for (int channel = 0; channel < engineChannels; ++channel)
        engine.advanceDry (channel, n, dryDelay);

    engine.consume (n, needPositive, needNegative);

    engineLock.release();
}

void QuendaAudioProcessor::processShelves (juce::AudioBuffer<float>& buffer, int numChannels, const StateBlock::Values& values)
{
    const auto bypassed = values[bypassIndex] >= 0.5f;
    const auto lowCorner = (double) values[lowFreqIndex];
    const auto highCorner = (double) values[highFreqIndex];
    const auto n = buffer.getNumSamples();
    const auto shelfChannels = std::min (numChannels, 2);

    if (! bypassed)
    {
        const float targets[] = { values[lowIndex], values[lowIndex], values[highIndex], values[highIndex] };

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

    for (auto& smoother : smoothers)
        smoother.previous = smoother.target;
}

void QuendaAudioProcessor::processTrim (juce::AudioBuffer<float>& buffer, int numChannels, const StateBlock::Values& values)
{
    const auto n = buffer.getNumSamples();
    const auto trimDb = values[bypassIndex] >= 0.5f ? 0.0f : values[trimIndex];

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
}

juce::AudioProcessor* JUCE_CALLTYPE createPluginFilter()
{
    return new QuendaAudioProcessor();
}
