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

TEST (FFTW3FFT, SizesAndBinCounts)
{
    FFTW3FFT fft;
    EXPECT_EQ (fft.size(), 0);
    EXPECT_EQ (fft.complexSize(), 0u);

    fft.init (8);
    EXPECT_EQ (fft.size(), 8);
    EXPECT_EQ (fft.complexSize(), 5u);

    fft.init (9);
    EXPECT_EQ (fft.size(), 9);
    EXPECT_EQ (fft.complexSize(), 5u);

    fft.init (0);
    EXPECT_EQ (fft.size(), 0);
    EXPECT_EQ (fft.complexSize(), 0u);
    fft.init (0);   // empty stays empty; the destructor then has nothing to do
    EXPECT_EQ (fft.size(), 0);
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

TEST (FFTW3FFT, InverseTransformsAreScaledByOneOverN)
{
    // A single bin k of value 1 (and its mirror) is cos (2 pi k t / N) * 2 / N.
    for (size_t n : { (size_t) 16, (size_t) 9, (size_t) 2048 })
    {
        SCOPED_TRACE (n);
        FFTW3FFT fft;
        fft.init (n);
        const size_t k = 3;

        std::vector<Cf> bins (n / 2 + 1);
        bins[k] = Cf (1.0f, 0.0f);
        std::vector<float> re (n / 2 + 1), im (n / 2 + 1);
        re[k] = 1.0f;

        std::vector<float> viaPointer (n), viaVector (n), viaSplit (n);
        fft.ifft (viaPointer.data(), bins.data());
        fft.ifft (viaVector.data(), bins);
        fft.ifft (viaSplit.data(), re.data(), im.data());

        for (size_t t = 0; t < n; ++t)
        {
            const double expected = 2.0 * std::cos (2.0 * pi * (double) ((k * t) % n) / (double) n) / (double) n;
            EXPECT_NEAR (viaPointer[t], expected, 1e-6);
            EXPECT_NEAR (viaVector[t], expected, 1e-6);
            EXPECT_NEAR (viaSplit[t], expected, 1e-6);
        }
    }
}

TEST (FFTW3FFT, RoundTripsReproduceTheInput)
{
    for (size_t n : sizes)
    {
        SCOPED_TRACE (n);
        FFTW3FFT fft;
        fft.init (n);
        const auto x = randomSignal (n, 7u + (unsigned) n);

        std::vector<Cf> bins (n / 2 + 1);
        std::vector<float> back (n);
        fft.fft (x.data(), bins);
        fft.ifft (back.data(), bins);
        for (size_t t = 0; t < n; ++t)
            EXPECT_NEAR (back[t], x[t], 2e-6) << t;

        std::vector<float> re (n / 2 + 1), im (n / 2 + 1), splitBack (n);
        fft.fft (x.data(), re.data(), im.data());
        fft.ifft (splitBack.data(), re.data(), im.data());
        for (size_t t = 0; t < n; ++t)
            EXPECT_NEAR (splitBack[t], x[t], 2e-6) << t;
    }
}

TEST (FFTW3FFT, CallerMemoryIsNeverHandedToFftw)
{
    // Unaligned caller pointers, and an inverse whose input must survive (c2r
    // overwrites its own input buffer).
    const size_t n = 256;
    FFTW3FFT fft;
    fft.init (n);
    const auto x = randomSignal (n + 1, 3);
    std::vector<float> offsetInput (x);

    std::vector<Cf> aligned (n / 2 + 1);
    fft.fft (x.data() + 1, aligned.data());

    std::vector<float> re (n / 2 + 2), im (n / 2 + 2);
    fft.fft (offsetInput.data() + 1, re.data() + 1, im.data() + 1);
    EXPECT_EQ (offsetInput, x);

    for (size_t k = 0; k < n / 2 + 1; ++k)
    {
        EXPECT_NEAR (re[k + 1], aligned[k].real(), 1e-4);
        EXPECT_NEAR (im[k + 1], aligned[k].imag(), 1e-4);
    }

    const auto binsBefore = aligned;
    std::vector<float> out (n + 1);
    fft.ifft (out.data() + 1, aligned);
    EXPECT_EQ (aligned, binsBefore);

    for (size_t t = 0; t < n; ++t)
        EXPECT_NEAR (out[t + 1], x[t + 1], 2e-6);
}

TEST (FFTW3FFT, ReinitialisingKeepsOrRebuilds)
{
    FFTW3FFT fft;
    const auto x = randomSignal (1024, 11);
    std::vector<Cf> first (513), again (513);

    fft.init (1024);
    fft.fft (x.data(), first);
    fft.init (1024);
    fft.fft (x.data(), again);
    EXPECT_EQ (first, again);

    // Down to a smaller size and back: still a correct transform of each size.
    fft.init (64);
    std::vector<Cf> small (33);
    const std::vector<float> head (x.begin(), x.begin() + 64);
    fft.fft (head.data(), small);
    expectMatchesDft (small, directDft (head), 64);

    fft.init (0);
    fft.init (1024);
    fft.fft (x.data(), again);
    expectMatchesDft (again, directDft (x), 1024);
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
