// SPDX-License-Identifier: GPL-3.0-or-later
#include "processor/TiltKernelDesign.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>

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
    double idealDb (double slope, double hz) { return slope * std::log2 (hz / 1300.0); }

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

TEST (TiltKernelDesign, KaiserWindowAndTargetMagnitude)
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
