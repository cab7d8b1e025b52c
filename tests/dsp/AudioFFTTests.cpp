// SPDX-License-Identifier: GPL-3.0-or-later
#include "audiofft/AudioFFT.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <memory>
#include <random>
#include <thread>
#include <vector>

using audiofft::FFTW3FFT;

namespace
{
    using Cf = std::complex<float>;
    using Cd = std::complex<double>;
    const double pi = std::acos (-1.0);

    std::vector<float> randomSignal (size_t n, unsigned seed)
    {
        std::mt19937 rng (seed);
        std::uniform_real_distribution<float> dist (-1.0f, 1.0f);
        std::vector<float> x (n);
        for (auto& v : x)
            v = dist (rng);
        return x;
    }

    // Forward DFT in double, sign -1, unscaled: the reference for every transform.
    std::vector<Cd> directDft (const std::vector<float>& x)
    {
        const size_t n = x.size();
        std::vector<Cd> bins (n / 2 + 1);
        for (size_t k = 0; k < bins.size(); ++k)
            for (size_t t = 0; t < n; ++t)
                bins[k] += (double) x[t] * std::polar (1.0, -2.0 * pi * (double) ((k * t) % n) / (double) n);
        return bins;
    }

    // Bound for a float FFT against the exact DFT: a few ulps of the spectrum's scale.
    double tolerance (size_t n)
    {
        return 1e-6 * std::sqrt ((double) n) * std::log2 ((double) n + 1.0) * 4.0;
    }

    void expectMatchesDft (const std::vector<Cf>& bins, const std::vector<Cd>& expected, size_t n)
    {
        ASSERT_EQ (bins.size(), expected.size());
        for (size_t k = 0; k < bins.size(); ++k)
        {
            EXPECT_NEAR (bins[k].real(), expected[k].real(), tolerance (n)) << "bin " << k;
            EXPECT_NEAR (bins[k].imag(), expected[k].imag(), tolerance (n)) << "bin " << k;
        }
    }

    const size_t sizes[] = { 8, 9, 16, 64, 1000, 1024, 8192 };
}

TEST (FFTW3FFT, ForwardTransformsMatchADirectDft)
{
    for (size_t n : sizes)
    {
        SCOPED_TRACE (n);
        FFTW3FFT fft;
        fft.init (n);
        const auto x = randomSignal (n, (unsigned) n);
        const auto expected = directDft (x);

        std::vector<Cf> interleaved (n / 2 + 1);
        fft.fft (x.data(), interleaved.data());
        expectMatchesDft (interleaved, expected, n);

        std::vector<Cf> intoVector (n / 2 + 1);
        fft.fft (x.data(), intoVector);
        EXPECT_EQ (intoVector, interleaved);

        std::vector<float> re (n / 2 + 1), im (n / 2 + 1);
        fft.fft (x.data(), re.data(), im.data());
        std::vector<Cf> split (n / 2 + 1);
        for (size_t k = 0; k < split.size(); ++k)
            split[k] = Cf (re[k], im[k]);
        expectMatchesDft (split, expected, n);

        // DC is the plain sum: the forward transform is unscaled.
        double sum = 0.0;
        for (float v : x)
            sum += v;
        EXPECT_NEAR (interleaved[0].real(), sum, tolerance (n));
        EXPECT_EQ (interleaved[0].imag(), 0.0f);
    }
}

TEST (FFTW3FFT, RoundTripsReproduceTheInput)
{
    // With the forward transform matching the DFT, this pins the inverse's 1/N scale.
    for (size_t n : sizes)
    {
        SCOPED_TRACE (n);
        FFTW3FFT fft;
        fft.init (n);
        const auto x = randomSignal (n, 7u + (unsigned) n);

        // One sample off the allocator's alignment: only the wrapper's own buffers reach FFTW.
        std::vector<Cf> bins (n / 2 + 1);
        std::vector<float> back (n + 1);
        fft.fft (x.data(), bins);
        const auto binsBefore = bins;
        fft.ifft (back.data() + 1, bins);
        EXPECT_EQ (bins, binsBefore);
        for (size_t t = 0; t < n; ++t)
            EXPECT_NEAR (back[t + 1], x[t], 2e-6) << t;

        std::vector<float> re (n / 2 + 1), im (n / 2 + 1), splitBack (n);
        fft.fft (x.data(), re.data(), im.data());
        fft.ifft (splitBack.data(), re.data(), im.data());
        for (size_t t = 0; t < n; ++t)
            EXPECT_NEAR (splitBack[t], x[t], 2e-6) << t;
    }
}

TEST (FFTW3FFT, InitKeepsRebuildsOrEmpties)
{
    FFTW3FFT fft;
    EXPECT_EQ (fft.size(), 0);
    fft.init (0);   // nothing to release
    EXPECT_EQ (fft.size(), 0);

    fft.init (9);
    EXPECT_EQ (fft.complexSize(), 5u);
    fft.init (8);
    EXPECT_EQ (fft.complexSize(), 5u);

    const auto x = randomSignal (1024, 11);
    std::vector<Cf> first (513), again (513);
    fft.init (1024);
    EXPECT_EQ (fft.size(), 1024);
    fft.fft (x.data(), first);
    fft.init (1024);
    fft.fft (x.data(), again);
    EXPECT_EQ (first, again);

    // Released and rebuilt at another size, then emptied and rebuilt.
    fft.init (64);
    std::vector<Cf> small (33);
    fft.fft (x.data(), small);
    expectMatchesDft (small, directDft (std::vector<float> (x.begin(), x.begin() + 64)), 64);

    fft.init (0);
    EXPECT_EQ (fft.size(), 0);
    EXPECT_EQ (fft.complexSize(), 0u);
    fft.init (1024);
    fft.fft (x.data(), again);
    EXPECT_EQ (first, again);
}

TEST (FFTW3FFT, ConcurrentInitialisationFromSeveralThreads)
{
    // Each thread keeps planning and releasing; an unguarded planner corrupts
    // its shared tables and shows up as wrong transforms or a crash.
    const size_t threadSizes[] = { 512, 640, 1024, 2048 };
    std::vector<std::vector<Cd>> expected;
    std::vector<std::vector<float>> inputs;
    for (size_t n : threadSizes)
    {
        inputs.push_back (randomSignal (n, (unsigned) n + 5u));
        expected.push_back (directDft (inputs.back()));
    }

    std::vector<int> failures (std::size (threadSizes), 0);
    std::vector<std::thread> threads;

    for (size_t t = 0; t < std::size (threadSizes); ++t)
    {
        threads.emplace_back ([&, t]
        {
            for (int round = 0; round < 25; ++round)
            {
                auto fft = std::make_unique<FFTW3FFT>();
                const size_t n = threadSizes[(t + (size_t) round) % std::size (threadSizes)];
                const size_t which = (t + (size_t) round) % std::size (threadSizes);
                fft->init (n / 2);
                fft->init (n);

                std::vector<Cf> bins (n / 2 + 1);
                fft->fft (inputs[which].data(), bins);
                for (size_t k = 0; k < bins.size(); ++k)
                    if (std::abs (Cd (bins[k]) - expected[which][k]) > tolerance (n))
                        ++failures[t];
            }
        });
    }

    for (auto& thread : threads)
        thread.join();

    for (size_t t = 0; t < failures.size(); ++t)
        EXPECT_EQ (failures[t], 0) << "thread " << t;
}
