// SPDX-License-Identifier: GPL-3.0-or-later
// What a host meets on bad days: unusual rates, extreme values, a non-finite input, a
// restored project that changes the latency, a one-channel bus, any buffer size.

#include "tests/support/ReadyProcessor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

using namespace support;

namespace
{
bool allFinite (const juce::AudioBuffer<float>& buffer)
{
    for (int c = 0; c < buffer.getNumChannels(); ++c)
        if (! std::all_of (buffer.getReadPointer (c), buffer.getReadPointer (c) + buffer.getNumSamples(), [] (float x)
                           { return std::isfinite (x); }))
            return false;
    return true;
}

/** Level in dB of a sine run through the processor, measured over its last block. */
double sineGainDb (Processor& processor, int numChannels, double frequency, int blocks)
{
    juce::MidiBuffer midi;
    for (int b = 0;; ++b)
    {
        auto buffer = makeSine (numChannels, 512, frequency / 48000.0, 512.0 * b);
        const auto input = buffer.getRMSLevel (0, 0, 512);
        processor.processBlock (buffer, midi);
        processor.runPendingKernelDesign();
        if (b == blocks - 1)
            return 20.0 * std::log10 (buffer.getRMSLevel (0, 0, 512) / input);
    }
}
}

// (That the first block is processed, with the latency known before it, is checked through
// the VST2 interface against the reference model.)
TEST (Start, RestoringAProjectReportsItsLatencyAtOnce)
{
    Processor source, restored;
    setParameter (source, ParameterTable::linPhaseIndex, 1.0f);
    juce::MemoryBlock state;
    source.getStateInformation (state);

    makeReady (restored, 512);
    EXPECT_EQ (0, restored.getLatencySamples());
    restored.setStateInformation (state.getData(), (int) state.getSize());
    EXPECT_EQ (Processor::linearPhaseLatency, restored.getLatencySamples());
}

// Hosts restore a session between prepareToPlay and the first block (Audacity does): that
// block starts from the restored values exactly as if they had been there at prepare.
TEST (Start, AStateRestoredBeforeTheFirstBlockTakesEffectAtOnce)
{
    for (float linPhase : { 0.0f, 1.0f })
    {
        SCOPED_TRACE (linPhase > 0 ? "linear phase" : "minimum phase");
        Processor source, restoredBefore, restoredAfter;
        const float values[] = { 0.8f, 0, linPhase, -3, 4, -2, 200, 6000 };
        for (int i = 0; i < 8; ++i)
            setParameter (source, i, values[i]);
        juce::MemoryBlock state;
        source.getStateInformation (state);

        restoredBefore.setStateInformation (state.getData(), (int) state.getSize());
        makeReady (restoredBefore, 512);
        makeReady (restoredAfter, 512);
        restoredAfter.setStateInformation (state.getData(), (int) state.getSize());

        const auto input = makeNoise (2, 1536, 5);
        auto before = input, after = input;
        processInBlocks (restoredBefore, before, 512);
        processInBlocks (restoredAfter, after, 512);
        EXPECT_EQ (0.0f, maxDifference (before, after));

        // A glide from the defaults would leave the very first sample dry.
        if (linPhase == 0.0f)
        {
            EXPECT_NE (input.getSample (0, 0), after.getSample (0, 0));
        }
    }
}

// Every rate a host may choose, with the defaults, the editor's extremes and finite values far
// beyond them: the output stays finite and bounded, blocks of varying size and glides included.
TEST (Recovery, AnyRateAndFiniteSettingGivesFiniteOutput)
{
    struct Extreme
    {
        const char* what;
        float values[8];
    };
    const Extreme settings[] = {
        { "defaults", { 0, 0, 0, 0, 0, 0, 150, 4500 } },
        { "editor maxima", { 1, 0, 1, 6, 6, 3, 300, 15000 } },
        { "editor minima", { -1, 0, 0, -6, -6, -3, 20, 3000 } },
        { "far outside", { -40, 0, 1, 90, -300, 500, 1.0e9f, -1.0e9f } },
        { "zero and negative corners", { 3, 0, 0, -90, 60, -60, 0, -5 } },
    };
    const double rates[] = { 8000, 11025, 22050, 44100, 48000, 96000, 192000, 384000 };

    for (const auto& setting : settings)
    {
        for (auto rate : rates)
        {
            SCOPED_TRACE (std::string (setting.what) + " at " + std::to_string ((int) rate));
            Processor processor;
            makeReady (processor, 1024, rate);

            for (int i = 0; i < 8; ++i)
                setParameter (processor, i, setting.values[i]);

            auto audio = makeNoise (2, 8192, 7);
            juce::MidiBuffer midi;
            int start = 0;
            for (int n : { 1, 17, 1024, 333, 1024, 64, 1024, 1024, 1024, 1024, 1024, 1024, 1024 })
            {
                if (start + n > audio.getNumSamples())
                    break;
                auto block = blockOf (audio, start, n);
                processor.processBlock (block, midi);
                start += n;
            }

            ASSERT_TRUE (allFinite (audio));
            // Stable: the settled tail is no louder than the gains allow (well under 1e20).
            EXPECT_LT (audio.getMagnitude (start / 2, start - start / 2), 1.0e20f);
        }
    }
}

// A block with a NaN or an infinity leaves nothing behind: that block comes out silent and
// the next one is processed as by a fresh instance. prepareToPlay clears everything too.
TEST (Recovery, NonFiniteInputIsForgottenAfterOneBlock)
{
    for (auto bad : { std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity() })
    {
        auto processor = makeConvolvingProcessor (512, 0.6f);
        auto fresh = makeConvolvingProcessor (512, 0.6f);
        setParameter (*processor, ParameterTable::lowIndex, 4.0f);
        setParameter (*fresh, ParameterTable::lowIndex, 4.0f);
        juce::MidiBuffer midi;

        auto poisoned = makeNoise (2, 512, 3);
        poisoned.setSample (1, 100, bad);
        processor->processBlock (poisoned, midi);
        EXPECT_TRUE (allFinite (poisoned) && poisoned.getMagnitude (0, 512) == 0.0f);

        // The glides have settled in the poisoned instance; let the fresh one's settle too.
        juce::AudioBuffer<float> settle (2, 512);
        settle.clear();
        fresh->processBlock (settle, midi);

        auto after = makeNoise (2, 4096, 4);
        auto expected = after;
        processInBlocks (*processor, after, 512);
        processInBlocks (*fresh, expected, 512);
        EXPECT_LT (maxDifference (after, expected), 1.0e-6f);   // NaN fails too
    }
}

// A one-channel bus: only channel 0 is processed, and bypass leaves the high shelf's gain.
TEST (MonoBus, BypassKeepsTheHighShelf)
{
    for (int numChannels : { 1, 2 })
    {
        Processor processor;
        ASSERT_TRUE (processor.setBusesLayout ({ { juce::AudioChannelSet::canonicalChannelSet (numChannels) },
                                                 { juce::AudioChannelSet::canonicalChannelSet (numChannels) } }));
        processor.setRateAndBufferSizeDetails (48000.0, 512);
        setParameter (processor, ParameterTable::highIndex, 3.0f);
        setParameter (processor, ParameterTable::lowIndex, 6.0f);
        processor.prepareToPlay (48000.0, 512);

        // Well above the high corner and far from the low one.
        EXPECT_NEAR (3.0, sineGainDb (processor, numChannels, 16000.0, 20), 0.3) << numChannels;
        EXPECT_GT (sineGainDb (processor, numChannels, 30.0, 40), 4.5) << numChannels;

        setParameter (processor, ParameterTable::bypassIndex, 1.0f);
        EXPECT_NEAR (numChannels == 1 ? 3.0 : 0.0, sineGainDb (processor, numChannels, 16000.0, 20), 0.3) << numChannels;
        EXPECT_NEAR (0.0, sineGainDb (processor, numChannels, 30.0, 40), 0.3) << numChannels;
    }
}

// A session sounds the same whatever buffer size the host or the renderer declares and plays:
// only the partitions' float rounding may differ, never the kernels.
TEST (BufferSize, EveryBlockSizeGivesTheSameAudio)
{
    // Noise with a strong low end, where kernels designed for the block size differed most.
    juce::AudioBuffer<float> input (2, 65536);
    for (int c = 0; c < 2; ++c)
    {
        const auto white = noise ((size_t) input.getNumSamples(), 40u + (unsigned) c, 0.02f);
        float level = 0.0f;
        for (int i = 0; i < input.getNumSamples(); ++i)
            input.setSample (c, i, level = 0.995f * level + white[(size_t) i]);
    }

    for (auto linear : { false, true })
    {
        for (auto tilt : { 1.0f, -0.5f })
        {
            juce::AudioBuffer<float> reference;
            for (int block : { 512, 32, 1693, 1694, 4096, 16384 })
            {
                Processor processor;
                setParameter (processor, ParameterTable::linPhaseIndex, linear ? 1.0f : 0.0f);
                setParameter (processor, ParameterTable::tiltIndex, tilt);
                makeReady (processor, block);
                auto audio = input;
                processInBlocks (processor, audio, block);

                if (block == 512)
                    reference = audio;
                else
                    EXPECT_LE (maxDifference (reference, audio), 1.0e-6f) << "block " << block << (linear ? ", linear" : ", minimum") << " phase, tilt " << tilt;
            }
        }
    }
}
