// SPDX-License-Identifier: GPL-3.0-or-later
// The audio thread must not allocate: every parameter movement a host can automate, on
// blocks of any size up to the prepared one. Only a block longer than any before may.

#include "AllocationCounter.h"
#include "tests/support/ReadyProcessor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <iterator>

using namespace quenda_test;

namespace
{
    constexpr int preparedSize = 512;
    const int blockSizes[] = { 512, 512, 100, 1, 511, 37, 256 };
    constexpr int numBlocks = 28;

    struct Scenario
    {
        const char* name;
        std::function<void (Processor&, int block)> beforeBlock;
    };

    void set (Processor& processor, int index, float value)   { setParameter (processor, index, value); }

    const Scenario scenarios[] =
    {
        { "tilt 0 steady",          [] (Processor&, int) {} },
        { "tilt +0.7 steady",       [] (Processor& p, int) { set (p, Processor::tiltIndex, 0.7f); } },
        { "tilt -0.7 steady",       [] (Processor& p, int) { set (p, Processor::tiltIndex, -0.7f); } },
        { "tilt gliding through 0", [] (Processor& p, int k) { set (p, Processor::tiltIndex, 0.9f * std::sin (0.7f * (float) k)); } },
        { "linear phase toggling",  [] (Processor& p, int k)
            {
                set (p, Processor::tiltIndex, 0.5f);
                set (p, Processor::linPhaseIndex, k % 3 == 0 ? 1.0f : 0.0f);
            } },
        { "shelves gliding",        [] (Processor& p, int k)
            {
                set (p, Processor::lowIndex, (float) (k % 7) - 3.0f);
                set (p, Processor::highIndex, 2.0f - (float) (k % 5));
            } },
        { "corners changing",       [] (Processor& p, int k)
            {
                set (p, Processor::lowIndex, 4.0f);
                set (p, Processor::highIndex, -2.0f);
                set (p, Processor::lowFreqIndex, 20.0f + 13.0f * (float) k);
                set (p, Processor::highFreqIndex, 3000.0f + 450.0f * (float) k);
            } },
        { "trim ramps",             [] (Processor& p, int k) { set (p, Processor::trimIndex, (float) (k % 5) - 2.0f); } },
        { "bypass toggling",        [] (Processor& p, int k)
            {
                set (p, Processor::tiltIndex, -0.6f);
                set (p, Processor::lowIndex, 3.0f);
                set (p, Processor::trimIndex, 2.0f);
                set (p, Processor::bypassIndex, k % 4 < 2 ? 1.0f : 0.0f);
            } },
        { "everything at once",     [] (Processor& p, int k)
            {
                set (p, Processor::tiltIndex, 0.8f * std::cos (0.9f * (float) k));
                set (p, Processor::linPhaseIndex, k % 5 == 0 ? 1.0f : 0.0f);
                set (p, Processor::bypassIndex, k % 7 == 3 ? 1.0f : 0.0f);
                set (p, Processor::trimIndex, (float) (k % 3));
                set (p, Processor::lowIndex, (float) (k % 4));
                set (p, Processor::highIndex, -(float) (k % 3));
                set (p, Processor::lowFreqIndex, 100.0f + (float) k);
                set (p, Processor::highFreqIndex, 5000.0f - 10.0f * (float) k);
            } },
    };

    long allocationsIn (Processor& processor, juce::AudioBuffer<float>& block)
    {
        juce::MidiBuffer midi;
        return allocation_counter::countDuring ([&] { processor.processBlock (block, midi); });
    }
}

TEST (RealtimeSafety, NoBlockUpToThePreparedSizeAllocates)
{
    for (auto linearPhase : { false, true })
    {
        for (const auto& scenario : scenarios)
        {
            SCOPED_TRACE (std::string (scenario.name) + (linearPhase ? ", linear phase" : ", minimum phase"));

            Processor processor;
            set (processor, Processor::linPhaseIndex, linearPhase ? 1.0f : 0.0f);
            makeReady (processor, preparedSize);

            const auto input = makeNoise (preparedSize, 5);
            bool soundChanged = false;

            for (int k = 0; k < numBlocks; ++k)
            {
                scenario.beforeBlock (processor, k);

                auto audio = input;
                auto block = blockOf (audio, 0, blockSizes[(size_t) k % std::size (blockSizes)]);
                EXPECT_EQ (0, allocationsIn (processor, block)) << "block " << k << " of " << block.getNumSamples();

                for (int i = 0; i < block.getNumSamples(); ++i)
                    soundChanged = soundChanged || block.getSample (0, i) != input.getSample (0, i);
            }

            // Proves the blocks took the processing path rather than leaving dry.
            if (std::string (scenario.name) != "tilt 0 steady")
            {
                EXPECT_TRUE (soundChanged);
            }
        }
    }
}

TEST (RealtimeSafety, OnlyABlockLongerThanAnyBeforeAllocates)
{
    Processor processor;
    makeReady (processor, preparedSize);
    set (processor, Processor::tiltIndex, 0.5f);

    auto audio = makeNoise (4 * preparedSize, 6);
    auto longer = blockOf (audio, 0, 2 * preparedSize);
    auto shorter = blockOf (audio, 0, preparedSize + 1);
    auto longest = blockOf (audio, 0, 4 * preparedSize);

    EXPECT_GT (allocationsIn (processor, longer), 0) << "the counter missed the engine growing";
    processor.handleUpdateNowIfNeeded();

    EXPECT_EQ (0, allocationsIn (processor, longer));
    EXPECT_EQ (0, allocationsIn (processor, shorter));
    EXPECT_GT (allocationsIn (processor, longest), 0);
}
