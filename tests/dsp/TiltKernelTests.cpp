// SPDX-License-Identifier: GPL-3.0-or-later
#include "processor/TiltKernelDesign.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <map>
#include <utility>
#include <vector>

namespace
{
    using Cf = std::complex<float>;
    using Cd = std::complex<double>;
    const double pi = std::acos (-1.0);

    // Reference window from the standard library's Bessel function.
    double referenceKaiser (int i)
    {
        const double h = (tilt::kernelLength - 1) / 2.0;
        const double x = (i - h) / h;
        return std::cyl_bessel_i (0.0, 3.141 * std::sqrt (1.0 - x * x)) / std::cyl_bessel_i (0.0, 3.141);
    }

    // Ideal tilt in dB: slope dB per octave through 0 dB at 1300 Hz.
    double idealTiltDb (double slope, double hz)
    {
        return slope * std::log2 (hz / 1300.0);
    }

    const TiltKernelSpectra& designed (double sampleRate, int fftSize)
    {
        static std::map<std::pair<double, int>, TiltKernelSpectra> cache;
        const auto key = std::make_pair (sampleRate, fftSize);
        auto found = cache.find (key);
        if (found != cache.end())
            return found->second;

        TiltKernelDesigner designer;
        audiofft::FFTW3FFT mainFft, minPhaseFft;
        designer.prepare (fftSize);
        mainFft.init ((size_t) fftSize);
        auto& spectra = cache[key];
        designer.design (sampleRate, mainFft, minPhaseFft, spectra);
        return spectra;
    }

    std::vector<float> impulseOf (const std::vector<Cf>& spectrum, int fftSize)
    {
        audiofft::FFTW3FFT fft;
        fft.init ((size_t) fftSize);
        std::vector<float> taps ((size_t) fftSize);
        fft.ifft (taps.data(), spectrum);
        return taps;
    }

    // Frequency response of the taps at any frequency, in double.
    double responseDb (const std::vector<float>& taps, size_t count, double hz, double sampleRate)
    {
        Cd sum;
        const double w = 2.0 * pi * hz / sampleRate;
        for (size_t n = 0; n < count; ++n)
            sum += (double) taps[n] * std::polar (1.0, -w * (double) n);
        return 20.0 * std::log10 (std::abs (sum));
    }

    std::vector<double> logSpacedFrequencies (double from, double to, int count)
    {
        std::vector<double> f ((size_t) count);
        for (int i = 0; i < count; ++i)
            f[(size_t) i] = from * std::pow (to / from, i / (double) (count - 1));
        return f;
    }
}

TEST (TiltKernelDesign, BesselAndKaiserWindowAgreeWithTheStandardLibrary)
{
    for (double x : { 0.0, 0.5, 1.0, 2.0, 3.141, 5.0 })
        EXPECT_NEAR (tilt::besselI0 (x), std::cyl_bessel_i (0.0, x), 1e-14 * std::cyl_bessel_i (0.0, x)) << x;

    const int L = tilt::kernelLength;
    for (int i : { 0, 1, 100, 1624, 3248, 3249, 3250, 5000, L - 1 })
        EXPECT_NEAR (tilt::kaiserWindow (i, L), referenceKaiser (i), 1e-14) << i;

    // Even length: the two middle taps share a weight just below 1; the ends get 1 / I0 (3.141).
    EXPECT_EQ (tilt::kaiserWindow (3249, L), tilt::kaiserWindow (3250, L));
    EXPECT_LT (tilt::kaiserWindow (3249, L), 1.0);
    EXPECT_GT (tilt::kaiserWindow (3249, L), 0.999999);
    EXPECT_NEAR (tilt::kaiserWindow (0, L), 1.0 / std::cyl_bessel_i (0.0, 3.141), 1e-14);
    EXPECT_EQ (tilt::latencySamples, 3249);
    EXPECT_EQ (tilt::minimumPhaseFftSize, 16384);
}

TEST (TiltKernelDesign, TargetMagnitudeFollowsTheTiltLine)
{
    // 41600 Hz over 8192 bins puts 1300 Hz on bin 256 and 2600 Hz on bin 512.
    const int n = 8192;
    std::vector<Cf> bins ((size_t) n / 2 + 1);

    for (double slope : { -1.0, 1.0 })
    {
        tilt::fillTiltMagnitude (bins, slope, 41600.0);
        EXPECT_NEAR (bins[256].real(), 1.0f, 1e-6f);
        EXPECT_NEAR (bins[512].real(), std::pow (10.0, slope / 20.0), 1e-6);
        EXPECT_NEAR (bins[4096].real(), std::pow (10.0, idealTiltDb (slope, 20800.0) / 20.0), 1e-6);
        EXPECT_EQ (bins[0], bins[1]);
        for (const auto& b : bins)
            EXPECT_EQ (b.imag(), 0.0f);
    }

    tilt::fillTiltMagnitude (bins, 1.0, 41600.0, 650.0);
    EXPECT_NEAR (bins[128].real(), 1.0f, 1e-6f);
    EXPECT_NEAR (bins[256].real(), std::pow (10.0, 1.0 / 20.0), 1e-6);

    // No sample rate: the buffer keeps whatever it held.
    std::fill (bins.begin(), bins.end(), Cf (3.0f, -2.0f));
    tilt::fillTiltMagnitude (bins, 1.0, 0.0);
    tilt::fillTiltMagnitude (bins, -1.0, -48000.0);
    for (const auto& b : bins)
        EXPECT_EQ (b, Cf (3.0f, -2.0f));
}

TEST (TiltKernelDesign, LinearPhaseTapsMatchADoublePrecisionDesign)
{
    // Kernel = zero-phase inverse DFT of the target, rotated by 3249 and windowed,
    // all recomputed here in double.
    const int n = 8192;
    const double fs = 48000.0;
    const auto& spectra = designed (fs, n);

    for (double slope : { -1.0, 1.0 })
    {
        const auto& spectrum = slope < 0 ? spectra.linearFalling : spectra.linearRising;
        const auto taps = impulseOf (spectrum, n);

        std::vector<double> target ((size_t) n / 2 + 1);
        for (int k = 1; k <= n / 2; ++k)
            target[(size_t) k] = std::pow (10.0, idealTiltDb (slope, k * fs / n) / 20.0);
        target[0] = target[1];

        auto zeroPhase = [&] (int m)
        {
            double sum = target[0] + target[(size_t) n / 2] * std::cos (pi * m);
            for (int k = 1; k < n / 2; ++k)
                sum += 2.0 * target[(size_t) k] * std::cos (2.0 * pi * (double) (((long) k * m) % n) / n);
            return sum / n;
        };

        for (int i : { 0, 1, 2, 1000, 3000, 3248, 3249, 3250, 3251, 4500, 6498, 6499 })
        {
            const int m = ((i - tilt::latencySamples) % n + n) % n;
            const double expected = zeroPhase (m) * referenceKaiser (i);
            EXPECT_NEAR (taps[(size_t) i], expected, 2e-6) << "slope " << slope << " tap " << i;
        }

        for (int i = tilt::kernelLength; i < n; ++i)
            ASSERT_NEAR (taps[(size_t) i], 0.0f, 1e-6f) << "tap " << i;
    }
}

TEST (TiltKernelDesign, LinearPhaseKernelIsCentredOnTheLatencyTap)
{
    // The response is even about 3249; the window is centred half a tap later, so
    // the windowed taps are symmetric once the window is divided out.
    const int n = 8192;
    const auto taps = impulseOf (designed (44100.0, n).linearRising, n);
    const int c = tilt::latencySamples;

    const auto peak = std::max_element (taps.begin(), taps.end(),
                                        [] (float a, float b) { return std::fabs (a) < std::fabs (b); });
    EXPECT_EQ (peak - taps.begin(), c);

    for (int d = 1; d <= c; ++d)
    {
        const double left = taps[(size_t) (c - d)] / referenceKaiser (c - d);
        const double right = taps[(size_t) (c + d)] / referenceKaiser (c + d);
        ASSERT_NEAR (left, right, 2e-6) << "offset " << d;
    }
}

TEST (TiltKernelDesign, DesignedKernelsFollowTheIdealSlope)
{
    // Response of the 6500 taps between the FFT bins too, against the ideal line.
    const auto frequencies = logSpacedFrequencies (40.0, 16000.0, 241);

    for (double fs : { 44100.0, 48000.0 })
    {
        for (int n : { 8192, 16384 })
        {
            const auto& spectra = designed (fs, n);
            for (double slope : { -1.0, 1.0 })
            {
                const auto taps = impulseOf (slope < 0 ? spectra.linearFalling : spectra.linearRising, n);
                double worst = 0.0, worstHz = 0.0;
                for (double hz : frequencies)
                {
                    const double deviation = std::fabs (responseDb (taps, tilt::kernelLength, hz, fs) - idealTiltDb (slope, hz));
                    if (deviation > worst)
                    {
                        worst = deviation;
                        worstHz = hz;
                    }
                }

                std::printf ("[ kernel   ] fs %.0f N %d slope %+.0f: max deviation %.4f dB at %.1f Hz (40 Hz - 16 kHz)\n",
                             fs, n, slope, worst, worstHz);
                EXPECT_LT (worst, 0.05) << "fs " << fs << " N " << n << " slope " << slope;
            }
        }
    }
}

TEST (TiltKernelDesign, MinimumPhaseKernelsKeepTheMagnitude)
{
    for (double fs : { 44100.0, 48000.0 })
    {
        for (int n : { 8192, 16384, 32768 })
        {
            const auto& spectra = designed (fs, n);
            for (double slope : { -1.0, 1.0 })
            {
                const auto& linear = slope < 0 ? spectra.linearFalling : spectra.linearRising;
                const auto& minimum = slope < 0 ? spectra.minimumFalling : spectra.minimumRising;

                double worst = 0.0;
                for (size_t k = 1; k < linear.size(); ++k)
                {
                    const double hz = (double) k * fs / n;
                    if (hz < 40.0 || hz > 16000.0)
                        continue;
                    worst = std::max (worst, std::fabs (20.0 * std::log10 (std::abs (minimum[k]) / std::abs (linear[k]))));
                }

                std::printf ("[ minphase ] fs %.0f N %d slope %+.0f: max |min| - |lin| %.5f dB\n", fs, n, slope, worst);
                EXPECT_LT (worst, 1e-3) << "fs " << fs << " N " << n << " slope " << slope;

                // Energy at the start, where the linear-phase kernel has almost none.
                const auto taps = impulseOf (minimum, n);
                double head = 0.0, total = 0.0;
                for (size_t i = 0; i < taps.size(); ++i)
                {
                    const double e = (double) taps[i] * taps[i];
                    total += e;
                    if (i < 1000)
                        head += e;
                }
                EXPECT_GT (head / total, 0.9) << "fs " << fs << " N " << n << " slope " << slope;

                // And the phase really differs: not just the linear kernel again.
                const auto linearTaps = impulseOf (linear, n);
                EXPECT_GT (std::fabs (taps[0]), 10.0 * std::fabs (linearTaps[0]));
            }
        }
    }
}

TEST (TiltKernelDesign, RedesignIsRepeatableAndZeroRateSkipsMinimumPhase)
{
    const int n = 8192;
    TiltKernelDesigner designer;
    audiofft::FFTW3FFT mainFft, minPhaseFft;
    designer.prepare (n);

    TiltKernelSpectra first, other, again;
    designer.design (48000.0, mainFft, minPhaseFft, first);
    EXPECT_EQ (minPhaseFft.size(), tilt::minimumPhaseFftSize);
    designer.design (96000.0, mainFft, minPhaseFft, other);
    designer.design (48000.0, mainFft, minPhaseFft, again);
    EXPECT_EQ (first.linearFalling, again.linearFalling);
    EXPECT_EQ (first.minimumRising, again.minimumRising);
    EXPECT_NE (first.linearFalling, other.linearFalling);

    TiltKernelSpectra none;
    designer.design (0.0, mainFft, minPhaseFft, none);
    ASSERT_EQ (none.minimumFalling.size(), (size_t) n / 2 + 1);
    for (size_t k = 0; k < none.minimumFalling.size(); ++k)
    {
        ASSERT_EQ (none.minimumFalling[k], Cf());
        ASSERT_EQ (none.minimumRising[k], Cf());
    }
}

TEST (TiltKernelDesign, MinimumPhaseFirstTapIsTheGeometricMeanGain)
{
    // For a minimum-phase filter h[0] = exp (mean of ln |H|). Over 0 .. fs/2 the mean
    // of slope * log2 (f / 1300) dB is slope * (log2 (fs / 2 / 1300) - 1 / ln 2).
    for (double fs : { 44100.0, 48000.0, 96000.0 })
    {
        const auto& spectra = designed (fs, 8192);
        for (double slope : { -1.0, 1.0 })
        {
            const double meanDb = slope * (std::log2 (fs / 2.0 / 1300.0) - 1.0 / std::log (2.0));
            const double expected = std::pow (10.0, meanDb / 20.0);
            const auto taps = impulseOf (slope < 0 ? spectra.minimumFalling : spectra.minimumRising, 8192);
            EXPECT_NEAR (taps[0], expected, 5e-4 * expected) << "fs " << fs << " slope " << slope;
        }
    }
}

TEST (TiltKernelDesign, GoldenValuesAt48kHz)
{
    // Recorded from this design once it passed the independent checks above, to
    // catch accidental edits (the minimum-phase path has no closed form per tap).
    const int n = 8192;
    const auto& spectra = designed (48000.0, n);
    const auto linear = impulseOf (spectra.linearFalling, n);
    const auto rising = impulseOf (spectra.minimumRising, n);
    const auto falling = impulseOf (spectra.minimumFalling, n);

    const std::pair<int, float> linearTaps[] = {
        { 3248, 0.0778192282f }, { 3249, 0.738747776f }, { 3250, 0.0778192505f },
        { 3251, 0.0361542478f }, { 3260, 0.00931987911f },
    };
    for (const auto& [i, value] : linearTaps)
        EXPECT_NEAR (linear[(size_t) i], value, 2e-6f) << "linear falling tap " << i;

    const float risingTaps[] = { 1.37468886f, -0.269091487f, -0.0766282603f, -0.0626050234f };
    const float fallingTaps[] = { 0.727438927f, 0.142397851f, 0.0684267879f, 0.054464113f };
    for (size_t i = 0; i < 4; ++i)
    {
        EXPECT_NEAR (rising[i], risingTaps[i], 2e-5f) << "minimum rising tap " << i;
        EXPECT_NEAR (falling[i], fallingTaps[i], 2e-5f) << "minimum falling tap " << i;
    }
}
