// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/AudioFFT.h"
#include "support/Signals.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <thread>
#include <vector>

using Cf = std::complex<float>;

namespace
{
std::vector<float> signal (size_t n)
{
    return support::noise (n, (unsigned) n);
}

// Bins further from an unscaled, sign -1 DFT in double than a few float ulps of the spectrum.
int binsOffTheDft (const std::vector<Cf>& bins, const std::vector<float>& x)
{
    const size_t n = x.size();
    const double pi = std::acos (-1.0), tolerance = 4e-6 * std::sqrt ((double) n) * std::log2 ((double) n + 1.0);
    int off = 0;
    for (size_t k = 0; k < bins.size(); ++k)
    {
        std::complex<double> sum;
        for (size_t t = 0; t < n; ++t)
            sum += (double) x[t] * std::polar (1.0, -2.0 * pi * (double) ((k * t) % n) / (double) n);
        off += std::abs (std::complex<double> (bins[k]) - sum) > tolerance;
    }
    return off;
}
}

TEST (FFTW3FFT, TransformsMatchADirectDft)
{
    // One object through every kind of init: a new size, the same size again, and 0, which empties it.
    audiofft::FFTW3FFT fft;
    for (size_t n : { 0u, 9u, 1024u, 1024u, 16u, 0u, 1000u })
    {
        SCOPED_TRACE (n);
        fft.init (n);
        EXPECT_EQ (fft.complexSize(), n == 0 ? 0 : n / 2 + 1);
        if (n == 0)
            continue;
        const auto x = signal (n);
        std::vector<Cf> bins (n / 2 + 1);
        std::vector<float> re (n / 2 + 1), im (n / 2 + 1), back (n + 1), splitBack (n);
        fft.fft (x.data(), bins);
        fft.fft (x.data(), re.data(), im.data());
        EXPECT_EQ (binsOffTheDft (bins, x), 0);
        for (size_t k = 0; k < bins.size(); ++k)
            ASSERT_LT (std::abs (Cf (re[k], im[k]) - bins[k]), 1e-4f) << "split bin " << k;

        // Inverse scaled by 1/N, the interleaved one into a buffer one float off alignment.
        const auto binsBefore = bins;
        fft.ifft (back.data() + 1, bins);
        fft.ifft (splitBack.data(), re.data(), im.data());
        EXPECT_EQ (bins, binsBefore);
        for (size_t t = 0; t < n; ++t)
            ASSERT_LT (std::max (std::fabs (back[t + 1] - x[t]), std::fabs (splitBack[t] - x[t])), 2e-6f) << t;
    }
}

TEST (FFTW3FFT, ConcurrentInitialisationFromSeveralThreads)
{
    // Each thread keeps planning and releasing; an unguarded planner corrupts its shared
    // tables and shows up as wrong transforms or a crash.
    int failures[4] = {};
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 4; ++t)
        threads.emplace_back ([&failures, t]
                              {
            for (size_t round = 0; round < 25; ++round)
            {
                const size_t n = 128 + 64 * ((t + round) % 4);
                audiofft::FFTW3FFT fft;
                fft.init (n / 2);
                fft.init (n);
                std::vector<Cf> bins (n / 2 + 1);
                fft.fft (signal (n).data(), bins);
                failures[t] += binsOffTheDft (bins, signal (n));
            } });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ (failures[0] + failures[1] + failures[2] + failures[3], 0);
}

namespace audiofft
{
extern const char* const shippedWisdom;
}

// A stale wisdom (new sizes, another FFTW) silently falls back to slower estimated plans.
TEST (StreamingFft, ShippedWisdomCoversEveryStreamingSize)
{
    audiofft::SplitRealFft loader;
    loader.init (64);

    if (fftwf_import_wisdom_from_string (audiofft::shippedWisdom) == 0)
        GTEST_SKIP() << "this FFTW (" << fftwf_version << ") does not take the shipped wisdom";

    for (int size : audiofft::streamingSizes)
    {
        audiofft::AlignedFloats time ((size_t) size), bins ((size_t) size + 2);
        auto* spectrum = reinterpret_cast<fftwf_complex*> (bins.data());
        const fftwf_iodim dimension { size, 1, 1 };
        audiofft::AlignedFloats in (2 * (size_t) size), out (2 * (size_t) size);
        auto* re = in.data();
        auto* outRe = out.data();
        fftwf_plan plans[] = {
            fftwf_plan_dft_r2c_1d (size, time.data(), spectrum, FFTW_PATIENT | FFTW_WISDOM_ONLY),
            fftwf_plan_guru_split_dft (1, &dimension, 0, nullptr, re, re + size, outRe, outRe + size, FFTW_PATIENT | FFTW_WISDOM_ONLY),
            fftwf_plan_guru_split_dft (1, &dimension, 0, nullptr, re + size, re, outRe + size, outRe, FFTW_PATIENT | FFTW_WISDOM_ONLY),
        };
        for (auto* plan : plans)
        {
            EXPECT_NE (plan, nullptr) << size;
            if (plan != nullptr)
                fftwf_destroy_plan (plan);
        }
    }
}
