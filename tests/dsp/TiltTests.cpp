// SPDX-License-Identifier: GPL-3.0-or-later
// The tilt's kernels against the ideal response, and the partitioned stage against the plain
// overlap-save engine, sample by sample.
#include "dsp/TiltKernelDesign.h"
#include "dsp/TiltStage.h"
#include "support/OverlapSaveTiltEngine.h"
#include "support/Signals.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <random>

namespace
{
using Cf = std::complex<float>;
const double pi = std::acos (-1.0);

// Kaiser window from the standard library's Bessel function.
double referenceKaiser (int i)
{
    const double x = (i - (tilt::kernelLength - 1) / 2.0) / ((tilt::kernelLength - 1) / 2.0);
    return std::cyl_bessel_i (0.0, 3.141 * std::sqrt (1.0 - x * x)) / std::cyl_bessel_i (0.0, 3.141);
}

// Ideal tilt in dB: slope dB per octave through 0 dB at 1300 Hz.
double idealDb (double slope, double hz)
{
    return slope * std::log2 (hz / 1300.0);
}

// Impulse responses of the designed kernels: linear falling, linear rising, minimum falling, minimum rising.
std::vector<std::vector<float>> kernels (double sampleRate, int fftSize)
{
    TiltKernelDesigner designer;
    audiofft::FFTW3FFT mainFft, minPhaseFft;
    TiltKernelSpectra spectra;
    designer.prepare (fftSize);
    designer.design (sampleRate, mainFft, minPhaseFft, spectra);
    std::vector<std::vector<float>> taps (4, std::vector<float> ((size_t) fftSize));
    const std::vector<Cf>* spectrum[] = { &spectra.linearFalling, &spectra.linearRising, &spectra.minimumFalling, &spectra.minimumRising };
    for (size_t i = 0; i < 4; ++i)
        mainFft.ifft (taps[i].data(), *spectrum[i]);
    return taps;
}
}

TEST (TiltKernelDesign, WindowAndTargetMatchTheirFormulas)
{
    for (int i : { 0, 1, 1624, 3249, 3250, 5000, tilt::kernelLength - 1 })
        EXPECT_NEAR (tilt::kaiserWindow (i, tilt::kernelLength), referenceKaiser (i), 1e-14) << i;

    // 41600 Hz over 8192 bins puts 1300 Hz on bin 256 and 2600 Hz on bin 512; DC holds bin 1.
    std::vector<Cf> bins (4097);
    for (double slope : { -1.0, 1.0 })
    {
        tilt::fillTiltMagnitude (bins, slope, 41600.0);
        EXPECT_NEAR (bins[256].real(), 1.0f, 1e-6f);
        EXPECT_NEAR (bins[512].real(), std::pow (10.0, slope / 20.0), 1e-6);
        EXPECT_EQ (bins[0], bins[1]);
    }
}

TEST (TiltKernelDesign, KernelsFollowTheIdealSlopeInBothPhases)
{
    const int c = tilt::latencySamples;
    for (double fs : { 44100.0, 48000.0 })
    {
        for (int n : { 8192, 16384 })
        {
            const auto taps = kernels (fs, n);
            for (int rising = 0; rising < 2; ++rising)
            {
                const double slope = rising ? 1.0 : -1.0;
                const auto& linear = taps[(size_t) rising];
                const auto& minimum = taps[(size_t) rising + 2];
                SCOPED_TRACE (::testing::Message() << "fs " << fs << " N " << n << " slope " << slope);

                // Responses between the bins too, from 40 Hz to 16 kHz.
                double worst = 0.0, worstMinimum = 0.0;
                for (double hz = 40.0; hz < 16000.0; hz *= 1.025)
                {
                    std::complex<double> h, hMinimum, z = 1.0;
                    const auto step = std::polar (1.0, -2.0 * pi * hz / fs);
                    for (size_t t = 0; t < (size_t) n; ++t, z *= step)
                    {
                        h += (double) linear[t] * z;
                        hMinimum += (double) minimum[t] * z;
                    }
                    worst = std::max (worst, std::fabs (20.0 * std::log10 (std::abs (h)) - idealDb (slope, hz)));
                    worstMinimum = std::max (worstMinimum, std::fabs (20.0 * std::log10 (std::abs (hMinimum) / std::abs (h))));
                }
                EXPECT_LT (worst, 0.05);
                EXPECT_LT (worstMinimum, 1e-3);

                // Linear phase: symmetric about the latency tap once the window (centred half a
                // tap later) is divided out, and nothing beyond the kernel length.
                for (int d = 1; d <= c; ++d)
                    ASSERT_NEAR (linear[(size_t) (c - d)] / referenceKaiser (c - d), linear[(size_t) (c + d)] / referenceKaiser (c + d), 2e-6) << d;
                for (int i = tilt::kernelLength; i < n; ++i)
                    ASSERT_NEAR (linear[(size_t) i], 0.0f, 1e-6f) << i;

                // Minimum phase: energy up front, where h[0] = exp (mean of ln |H|) over 0 .. fs / 2.
                double head = 0.0, tail = 0.0;
                for (size_t i = 0; i < minimum.size(); ++i)
                    (i < 1000 ? head : tail) += (double) minimum[i] * minimum[i];
                EXPECT_GT (head / (head + tail), 0.9);
                const double geometricMean = std::pow (10.0, slope * (std::log2 (fs / 2.0 / 1300.0) - 1.0 / std::log (2.0)) / 20.0);
                EXPECT_NEAR (minimum[0], geometricMean, 5e-4 * geometricMean);
            }
        }
    }
}

TEST (PartitionedConvolution, LayoutsStartEachLevelLateEnoughForItsSpreadWork)
{
    for (int block : { 1, 32, 64, 100, 333, 512, 1024, 4096, 65536 })
    {
        for (int taps : { 6500, 8192, 16384 })
        {
            const auto layout = convolution::PartitionLayout::forBlockSize (block, taps);
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

// The stage as the processor runs it, over long streams of short, odd and long blocks (some
// beyond the prepared size): tilt glides through zero, so kernels switch in and out and must
// carry no stale tail, phase switches, and a new kernel set mid-stream (another rate). The
// expected output is the oracle's mixed with the dry signal by the documented cross-fade,
// for each channel of a stereo pair with its own input (or for a lone channel). Where the
// right input turns into a copy of the left, the right output becomes the left's exactly once
// the kernels hold only alike input.
TEST (TiltStage, MatchesTheOracleOverLongStreams)
{
    const struct
    {
        int declared, largest;
        unsigned seed;
        int channels;
        size_t alikeFrom;
    } cases[] = {
        { 1, 64, 1, 2, 0 },
        { 32, 32, 2, 2, 0 },
        { 64, 700, 3, 2, 25000 },
        { 256, 600, 11, 1, 0 },
        { 333, 1000, 4, 2, 0 },
        { 512, 512, 5, 2, 0 },
        { 4096, 4096, 7, 2, 0 },
        { 4096, 9000, 8, 1, 0 },
    };

    for (const auto& c : cases)
    {
        OverlapSaveTiltEngine oracles[2];
        std::vector<float> inputs[2];
        for (unsigned ch = 0; ch < 2; ++ch)
        {
            oracles[ch].prepare (c.largest);
            oracles[ch].design (48000.0);
            inputs[ch] = support::noise ((size_t) (60000 + 48 * c.largest), c.seed + 100 * ch);
        }
        if (c.alikeFrom > 0)
            std::copy (inputs[0].begin() + (long) c.alikeFrom, inputs[0].end(), inputs[1].begin() + (long) c.alikeFrom);
        TiltStage stage;
        stage.prepare (c.declared);
        // Without kernels a block is left as it came.
        std::vector<float> untouched (8, 0.25f);
        float* lone[] = { untouched.data() };
        EXPECT_FALSE (stage.process (lone, 1, 8, { 0.5, false }));
        EXPECT_EQ (std::vector<float> (8, 0.25f), untouched);

        stage.designKernels (48000.0);

        std::mt19937 random (c.seed);
        double previousTilt = 0.0;
        float worst = 0.0f;
        size_t position = 0, alikeChecked = 0, alikeMismatches = 0;

        for (int blockIndex = 0; position < 60000 || blockIndex < 48; ++blockIndex)
        {
            // Block lengths from a few magnitudes, so short, odd and long blocks meet.
            const int magnitude = std::uniform_int_distribution<int> (0, 3) (random);
            const int cap = std::min (c.largest, magnitude == 0 ? 3 : magnitude == 1 ? 64
                                                                  : magnitude == 2   ? 700
                                                                                     : c.largest);
            const int n = std::uniform_int_distribution<int> (1, cap) (random);
            const double tiltSteps[] = { 0.5, 0.5, -0.25, -0.25, 0.0, 0.0, 1.0, -1.0 };
            const double target = tiltSteps[(blockIndex / 3) % 8];
            const bool linear = (blockIndex / 7) % 2 == 1;

            if (blockIndex == 24)
            {
                for (auto& oracle : oracles)
                    oracle.design (44100.0);
                stage.designKernels (44100.0);
            }

            std::vector<float> blocks[2];
            float* channels[2] = {};
            for (size_t ch = 0; ch < (size_t) c.channels; ++ch)
            {
                oracles[ch].writeInput (inputs[ch].data() + position, n);
                oracles[ch].convolve (n, linear);
                blocks[ch].assign (inputs[ch].begin() + (long) position, inputs[ch].begin() + (long) position + n);
                channels[ch] = blocks[ch].data();
            }
            ASSERT_TRUE (stage.process (channels, c.channels, n, { target, linear }));

            const auto step = (target - previousTilt) / n;
            for (size_t ch = 0; ch < (size_t) c.channels; ++ch)
            {
                const auto& input = inputs[ch];
                for (int i = 0; i < n; ++i)
                {
                    const auto t = target != previousTilt ? previousTilt + i * step : target;
                    const auto now = (long) (position + (size_t) i);
                    const auto dry = ! linear                             ? input[(size_t) now]
                                     : now >= TiltStage::linearPhaseDelay ? input[(size_t) (now - TiltStage::linearPhaseDelay)]
                                                                          : 0.0f;
                    const auto dryPart = (float) (1.0 - std::abs (t)) * dry;
                    const auto wet = t < 0.0 ? oracles[ch].negativeOutput()[i] : oracles[ch].positiveOutput()[i];
                    const auto expected = t == 0.0 ? dryPart : (float) ((double) wet * std::abs (t) + (double) dryPart);
                    worst = std::max (worst, std::abs (blocks[ch][(size_t) i] - expected));
                }
                oracles[ch].consume (n);
            }
            for (int i = 0; c.alikeFrom > 0 && i < n; ++i)
            {
                if (position + (size_t) i >= c.alikeFrom + 8192)
                {
                    ++alikeChecked;
                    alikeMismatches += blocks[0][(size_t) i] != blocks[1][(size_t) i] ? 1u : 0u;
                }
            }
            previousTilt = target;
            position += (size_t) n;
        }

        EXPECT_LE (worst, 2.0e-6f) << "declared " << c.declared << ", largest " << c.largest;   // full-scale input
        EXPECT_EQ (alikeMismatches, 0u);
        EXPECT_GE (alikeChecked, c.alikeFrom > 0 ? 20000u : 0u);
    }
}

// Instances at one rate and block size keep one copy; a design for another rate never reuses it.
TEST (TiltKernelBank, InstancesAtOneRateShareOneCopyOfTheKernels)
{
    const convolution::PartitionedKernels* copies[3] = {};
    TiltKernelBank banks[3];
    for (size_t i = 0; i < 3; ++i)
    {
        banks[i].prepare (TiltStage::layoutFor (512), tilt::designFftSize);
        banks[i].design (i < 2 ? 48000.0 : 44100.0);
        copies[i] = banks[i].acquire()->partitions.get();
        banks[i].release();
    }
    EXPECT_EQ (copies[0], copies[1]);
    EXPECT_NE (copies[0], copies[2]);
}

// A set designed ahead for the host's next rate leaves the one in use: a bank serves its two
// newest rates, a second design at one rate replacing that rate's set, whether designed on
// another thread or in a block.
TEST (TiltKernelBank, TheTwoNewestRatesStayUsable)
{
    TiltKernelBank bank;
    bank.prepare (TiltStage::layoutFor (512), tilt::designFftSize);

    const auto served = [&bank] (double rate)
    {
        const auto* set = bank.acquire (rate);
        const auto result = set != nullptr ? set->sampleRate : -1.0;
        bank.release();
        EXPECT_TRUE (rate <= 0.0 || (result >= 0.0) == bank.hasKernelsFor (rate)) << rate;
        return result;
    };

    EXPECT_EQ (-1.0, served (0.0));

    for (const auto rate : { 48000.0, 44100.0, 44100.0 })
        bank.design (rate);

    EXPECT_EQ (48000.0, served (48000.0));
    EXPECT_EQ (44100.0, served (44100.0));
    EXPECT_EQ (44100.0, served (0.0));   // the newest

    bank.design (96000.0);
    EXPECT_EQ (-1.0, served (48000.0));
    EXPECT_EQ (44100.0, served (44100.0));
    EXPECT_EQ (96000.0, served (0.0));

    for (const auto rate : { 32000.0, 22050.0, 32000.0 })
        EXPECT_TRUE (bank.designInBlock (rate));

    EXPECT_EQ (-1.0, served (96000.0));
    EXPECT_EQ (22050.0, served (22050.0));
    EXPECT_EQ (32000.0, served (0.0));
    bank.design (44100.0);
    EXPECT_EQ (32000.0, served (32000.0));

    bank.prepare (TiltStage::layoutFor (512), tilt::designFftSize);
    EXPECT_EQ (-1.0, served (96000.0));
}
