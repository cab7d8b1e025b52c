// SPDX-License-Identifier: GPL-3.0-or-later
// The partitioned tilt against the plain overlap-save engine, sample by sample.
#include "processor/TiltStage.h"
#include "support/OverlapSaveTiltEngine.h"
#include "support/Signals.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>

namespace
{
    constexpr double rate = 48000.0;
    constexpr float tolerance = 2.0e-6f;   // full-scale input

    // Block sizes drawn from a few magnitudes, so short, odd and long blocks meet in one stream.
    std::vector<int> randomBlocks (int total, int largest, unsigned seed)
    {
        std::mt19937 random (seed);
        std::vector<int> blocks;
        for (int sum = 0; sum < total;)
        {
            const int magnitude = std::uniform_int_distribution<int> (0, 3) (random);
            const int cap = std::max (1, std::min (largest, magnitude == 0 ? 3 : magnitude == 1 ? 64 : magnitude == 2 ? 700 : largest));
            const int n = std::min (total - sum, std::uniform_int_distribution<int> (1, cap) (random));
            blocks.push_back (n);
            sum += n;
        }
        return blocks;
    }

    // The oracle prepared for the largest block; the partitioned engine's kernels designed at
    // the same FFT size, its partitions chosen for the declared block size.
    struct Pair
    {
        Pair (int declaredBlock, int largestBlock)
        {
            oracle.prepare (largestBlock);
            oracle.design (rate);
            layout = tilt::PartitionLayout::forBlockSize (declaredBlock, TiltStage::tapsFor (largestBlock));
            bank.prepare (layout, oracle.getFftSize());
            bank.design (rate);
            convolver.prepare (layout);
        }

        OverlapSaveTiltEngine oracle;
        TiltKernelBank bank;
        tilt::PartitionLayout layout;
        tilt::PartitionedConvolver convolver;
    };
}

TEST (PartitionedConvolution, LayoutsStartEachLevelLateEnoughForItsSpreadWork)
{
    for (int block : { 1, 32, 64, 100, 333, 512, 1024, 4096, 65536 })
    {
        for (int taps : { 6500, 8192, 16384 })
        {
            const auto layout = tilt::PartitionLayout::forBlockSize (block, taps);
            EXPECT_GE (layout.capacity(), taps);
            EXPECT_LE (layout.headSize(), std::max (32, block));
            EXPECT_EQ (layout.levels.front().firstTap, 0);

            for (size_t l = 1; l < layout.levels.size(); ++l)
            {
                const auto& level = layout.levels[l];
                const auto& before = layout.levels[l - 1];
                EXPECT_EQ (level.firstTap, before.firstTap + before.partitionSize * before.numPartitions);
                EXPECT_GE (level.firstTap, 2 * level.partitionSize) << "block " << block << " level " << l;
            }
        }
    }
}

// Both outputs of every kernel pair over long streams of random block sizes, with the kernels
// needed changing from block to block: a kernel switched in must carry no stale tail.
TEST (PartitionedConvolution, MatchesOverlapSaveOverRandomBlocksAndKernelSwitches)
{
    struct Case { int declared, largest; bool linear; unsigned seed; };
    const Case cases[] = {
        { 1, 64, true, 1 }, { 32, 32, false, 2 }, { 64, 700, true, 3 }, { 333, 1000, false, 4 },
        { 512, 512, true, 5 }, { 1024, 4096, false, 6 }, { 4096, 4096, true, 7 }, { 4096, 9000, false, 8 },
    };

    for (const auto& c : cases)
    {
        Pair pair (c.declared, c.largest);
        const auto blocks = randomBlocks (40000, c.largest, c.seed);
        const auto input = quenda_test::noise (40000, c.seed);
        std::mt19937 random (c.seed);
        const unsigned base = c.linear ? 0u : 2u;
        std::vector<float> falling ((size_t) c.largest), rising ((size_t) c.largest);
        float* outputs[tilt::maxKernels] = { falling.data(), rising.data(), falling.data(), rising.data() };

        const auto* kernels = pair.bank.acquire();
        ASSERT_NE (kernels, nullptr);
        float worst = 0.0f;
        size_t position = 0;

        for (size_t b = 0; b < blocks.size(); ++b)
        {
            const auto n = blocks[b];
            pair.oracle.writeInput (input.data() + position, n);
            pair.oracle.convolve (n, c.linear);

            // Mostly one kernel at a time, now and then both or none.
            const auto pick = std::uniform_int_distribution<int> (0, 9) (random);
            const unsigned mask = pick < 4 ? 1u : pick < 8 ? 2u : pick == 8 ? 3u : 0u;
            pair.convolver.process (input.data() + position, n, *kernels->partitions, mask << base, outputs);

            for (int i = 0; i < n; ++i)
            {
                if (mask & 1u)
                    worst = std::max (worst, std::abs (falling[(size_t) i] - pair.oracle.positiveOutput()[i]));
                if (mask & 2u)
                    worst = std::max (worst, std::abs (rising[(size_t) i] - pair.oracle.negativeOutput()[i]));
            }

            pair.oracle.consume (n);
            position += (size_t) n;
        }

        pair.bank.release();
        EXPECT_LE (worst, tolerance) << "declared " << c.declared << " largest " << c.largest << (c.linear ? " linear" : " minimum");
    }
}

// The stage as the processor runs it: tilt glides through zero, phase switches, a new kernel
// set mid-stream (another rate) and blocks beyond the prepared size, against the oracle's
// outputs mixed with the dry signal by the documented cross-fade.
TEST (TiltStage, CrossFadeMatchesOracleThroughGlidesSwitchesAndNewKernels)
{
    constexpr int declared = 256, largest = 600;
    OverlapSaveTiltEngine oracle;
    oracle.prepare (largest);
    oracle.design (rate);

    TiltStage stage;
    stage.prepare (declared);
    TiltKernelBank bank;
    bank.prepare (stage.getLayout(), oracle.getFftSize());
    bank.design (rate);

    const auto input = quenda_test::noise (60000, 11);
    std::vector<float> history;   // for the oracle's delayed dry
    std::mt19937 random (11);
    double previousTilt = 0.0;
    float worst = 0.0f;
    size_t position = 0;
    int blockIndex = 0;

    while (position + largest < input.size())
    {
        const int n = std::uniform_int_distribution<int> (1, largest) (random);
        const double tiltSteps[] = { 0.5, 0.5, -0.25, -0.25, 0.0, 0.0, 1.0, -1.0 };
        const double target = tiltSteps[(blockIndex / 3) % 8];
        const bool linear = (blockIndex / 7) % 2 == 1;

        if (blockIndex == 40)
        {
            // A new rate: both engines take the new kernels at this block boundary.
            oracle.design (44100.0);
            bank.design (44100.0);
        }

        oracle.writeInput (input.data() + position, n);
        oracle.convolve (n, linear);

        std::vector<float> block (input.begin() + (long) position, input.begin() + (long) position + n);
        float* channels[] = { block.data() };
        const auto* kernels = bank.acquire();
        stage.process (channels, 1, n, target, linear, *kernels);
        bank.release();

        const auto step = (target - previousTilt) / n;
        for (int i = 0; i < n; ++i)
        {
            const auto t = target != previousTilt ? previousTilt + i * step : target;
            const auto now = (long) (position + (size_t) i);
            const auto dry = ! linear ? input[(size_t) now]
                                      : now >= TiltStage::linearPhaseDelay ? input[(size_t) (now - TiltStage::linearPhaseDelay)] : 0.0f;
            const auto dryPart = (float) (1.0 - std::abs (t)) * dry;
            const auto wet = t < 0.0 ? oracle.negativeOutput()[i] : oracle.positiveOutput()[i];
            const auto expected = t == 0.0 ? dryPart : (float) ((double) wet * std::abs (t) + (double) dryPart);
            worst = std::max (worst, std::abs (block[(size_t) i] - expected));
        }

        oracle.consume (n);
        previousTilt = target;
        position += (size_t) n;
        ++blockIndex;
    }

    EXPECT_LE (worst, tolerance);
}

// Instances at one rate and block size keep one copy; a design for another rate never reuses it.
TEST (TiltKernelBank, InstancesAtOneRateShareOneCopyOfTheKernels)
{
    const auto layout = TiltStage::layoutFor (512);
    std::array<TiltKernelBank, 3> banks;
    const double rates[] = { rate, rate, 44100.0 };

    for (size_t i = 0; i < banks.size(); ++i)
    {
        banks[i].prepare (layout, TiltStage::fftSizeFor (512));
        banks[i].design (rates[i]);
    }

    const tilt::PartitionedKernels* shared[3] = {};
    for (size_t i = 0; i < banks.size(); ++i)
    {
        shared[i] = banks[i].acquire()->partitions.get();
        banks[i].release();
    }

    EXPECT_EQ (shared[0], shared[1]);
    EXPECT_NE (shared[0], shared[2]);
}
