// SPDX-License-Identifier: GPL-3.0-or-later
#include "processor/Biquad.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <random>
#include <vector>

namespace
{
    using Cd = std::complex<double>;
    const double pi = std::acos (-1.0);

    // Transfer function of the section's coefficients at angular frequency w (rad/sample).
    Cd response (const Biquad& b, double w)
    {
        const Cd zInv = std::polar (1.0, -w);
        const Cd num = b.inputScale * b.a0 + b.a1 * zInv + b.a2 * zInv * zInv;
        const Cd den = 1.0 + b.b1 * zInv + b.b2 * zInv * zInv;
        return num / den;
    }

    double magnitudeAt (const Biquad& b, double hz)
    {
        return std::abs (response (b, 2.0 * pi * hz / b.sampleRate));
    }

    Biquad makeSection (int type, double fc, double q, double gainDb, double fs)
    {
        Biquad b;
        b.type = type;
        b.Fc = fc;
        b.Q = q;
        b.gainDb = gainDb;
        b.sampleRate = fs;
        b.design();
        return b;
    }

    // Bilinear shelf with prototype (V K^2 + sqrt(V) K/Q s + s^2) / (K^2 + K/Q s + s^2):
    // at the corner (s = jK) its magnitude is sqrt (((V - 1) Q)^2 + V).
    double shelfGainAtCorner (double v, double q)
    {
        return std::sqrt ((v - 1.0) * q * (v - 1.0) * q + v);
    }

    struct ShelfCase
    {
        int type;
        double q;
        double fc;
        double fs;
    };

    const ShelfCase shelfCases[] = {
        { Biquad::lowShelfQ, 0.35, 120.0, 44100.0 },
        { Biquad::lowShelfQ, 0.35, 1500.0, 96000.0 },
        { Biquad::highShelfMirrored, 0.5, 6000.0, 48000.0 },
        { Biquad::highShelfMirrored, 0.5, 2500.0, 44100.0 },
    };

    const double shelfGains[] = { 12.0, 3.5, -0.5, -9.0, -24.0 };
}

TEST (Biquad, ShelfGainsAtDcNyquistAndCornerMatchAnalyticValues)
{
    for (const auto& c : shelfCases)
    {
        for (double g : shelfGains)
        {
            SCOPED_TRACE (::testing::Message() << "type " << c.type << " fc " << c.fc << " gain " << g);
            const auto b = makeSection (c.type, c.fc, c.q, g, c.fs);
            const double shelf = std::pow (10.0, g / 20.0);
            const double atDc = c.type == Biquad::lowShelfQ ? shelf : 1.0;
            const double atNyquist = c.type == Biquad::lowShelfQ ? 1.0 : shelf;

            EXPECT_NEAR (std::abs (response (b, 0.0)), atDc, 1e-9 * atDc);
            EXPECT_NEAR (std::abs (response (b, pi)), atNyquist, 1e-9 * atNyquist);

            const double v = std::pow (10.0, std::fabs (g) / 20.0);
            const double corner = g >= 0.0 ? shelfGainAtCorner (v, c.q) : 1.0 / shelfGainAtCorner (v, c.q);
            EXPECT_NEAR (magnitudeAt (b, c.fc), corner, 1e-6 * corner);
        }
    }
}

TEST (Biquad, RunningSignalsReachTheShelfGains)
{
    // Steady-state amplitude of a constant and of an alternating input, measured
    // through process() itself rather than from the coefficients.
    for (const auto& c : shelfCases)
    {
        const double g = 9.0;
        const double shelf = std::pow (10.0, g / 20.0);
        const double atDc = c.type == Biquad::lowShelfQ ? shelf : 1.0;
        const double atNyquist = c.type == Biquad::lowShelfQ ? 1.0 : shelf;

        auto dc = makeSection (c.type, c.fc, c.q, g, c.fs);
        auto nyquist = dc;
        float lastDc = 0.0f, lastNyquist = 0.0f;

        for (int n = 0; n < 200000; ++n)
        {
            lastDc = dc.process (0.25f);
            lastNyquist = nyquist.process (n % 2 == 0 ? 0.25f : -0.25f);
        }

        EXPECT_NEAR (lastDc / 0.25, atDc, 1e-4 * atDc);
        EXPECT_NEAR (std::fabs (lastNyquist) / 0.25, atNyquist, 1e-4 * atNyquist);
    }
}

TEST (Biquad, BoostAndCutOfEqualSizeAreExactInverses)
{
    for (const auto& c : shelfCases)
    {
        const auto boost = makeSection (c.type, c.fc, c.q, 7.5, c.fs);
        const auto cut = makeSection (c.type, c.fc, c.q, -7.5, c.fs);

        for (double hz : { 0.0, 30.0, 400.0, 1000.0, 5000.0, 15000.0, c.fs * 0.5 })
        {
            const double w = 2.0 * pi * hz / c.fs;
            const Cd product = response (boost, w) * response (cut, w);
            EXPECT_NEAR (product.real(), 1.0, 1e-9) << hz << " Hz";
            EXPECT_NEAR (product.imag(), 0.0, 1e-9) << hz << " Hz";
        }
    }
}

TEST (Biquad, ZeroGainShelvesAndTheDefaultSectionAreTheIdentity)
{
    std::mt19937 rng (2);
    std::uniform_real_distribution<float> dist (-1.0f, 1.0f);
    std::vector<Biquad> sections { Biquad() };
    for (const auto& c : shelfCases)
        sections.push_back (makeSection (c.type, c.fc, c.q, 0.0, c.fs));

    for (auto& b : sections)
    {
        EXPECT_NEAR (b.a0, 1.0, 1e-15);
        EXPECT_NEAR (b.a1, b.b1, 1e-15);
        EXPECT_NEAR (b.a2, b.b2, 1e-15);

        for (int i = 0; i < 2000; ++i)
        {
            const float x = dist (rng);
            EXPECT_NEAR (b.process (x), x, 1e-6f);
        }
    }
}

TEST (Biquad, ConfigureRedesignsOnlyWhenTheGainChanges)
{
    const double q = 0.35, fs = 44100.0;
    Biquad b;
    EXPECT_EQ (b.ready, 0);
    b.configure (Biquad::lowShelfQ, 100.0, q, 6.0, fs);
    EXPECT_EQ (b.ready, 1);

    // Same gain, new corner: stored, but the shelf still turns at 100 Hz.
    const double v6 = std::pow (10.0, 6.0 / 20.0);
    b.configure (Biquad::lowShelfQ, 800.0, q, 6.0, fs);
    EXPECT_EQ (b.Fc, 800.0);
    EXPECT_NEAR (magnitudeAt (b, 100.0), shelfGainAtCorner (v6, q), 1e-6);

    // A new gain redesigns with everything stored so far.
    const double v3 = std::pow (10.0, 3.0 / 20.0);
    b.configure (Biquad::lowShelfQ, 800.0, q, -3.0, fs);
    EXPECT_NEAR (magnitudeAt (b, 800.0), 1.0 / shelfGainAtCorner (v3, q), 1e-6);
    EXPECT_NEAR (magnitudeAt (b, 0.0), 1.0 / v3, 1e-9);
}

TEST (Biquad, RedesignMidStreamKeepsTheState)
{
    auto gliding = makeSection (Biquad::highShelfMirrored, 4000.0, 0.5, 3.0, 48000.0);
    for (int n = 0; n < 64; ++n)
        gliding.process (std::sin (0.3f * (float) n));

    const double z1 = gliding.z1, z2 = gliding.z2;
    ASSERT_NE (z1, 0.0);
    gliding.gainDb = 6.0;
    gliding.design();
    EXPECT_EQ (gliding.z1, z1);
    EXPECT_EQ (gliding.z2, z2);
}

TEST (Biquad, OtherTypesMeetTheirTextbookResponses)
{
    // Magnitude at DC, at the corner and at Nyquist: lowpass and highpass give Q at
    // the corner, bandpass 1, notch 0, peak and the Butterworth shelves the gain.
    const double fs = 48000.0, fc = 3000.0, q = 0.8, g = -8.0, cut = std::pow (10.0, g / 20.0);
    const struct { int type; double dc, corner, nyquist; } cases[] = {
        { Biquad::lowpass, 1.0, q, 0.0 },       { Biquad::highpass, 0.0, q, 1.0 },
        { Biquad::bandpass, 0.0, 1.0, 0.0 },    { Biquad::notch, 1.0, 0.0, 1.0 },
        { Biquad::peak, 1.0, cut, 1.0 },        { Biquad::lowShelf, cut, -1.0, 1.0 },
        { Biquad::highShelf, 1.0, -1.0, cut },
    };

    for (const auto& c : cases)
    {
        const auto b = makeSection (c.type, fc, q, g, fs);
        EXPECT_NEAR (magnitudeAt (b, 0.0), c.dc, 1e-9) << "type " << c.type;
        EXPECT_NEAR (magnitudeAt (b, fs / 2), c.nyquist, 1e-9) << "type " << c.type;
        if (c.corner >= 0.0)
        {
            EXPECT_NEAR (magnitudeAt (b, fc), c.corner, 1e-6) << "type " << c.type;
        }
    }

    const auto notch = makeSection (Biquad::notch, fc, q, 0.0, fs);
    EXPECT_EQ (notch.fixedA0, std::lround (notch.a0 * 1048576.0));
    EXPECT_EQ (notch.fixedB1, std::lround (notch.b1 * 1048576.0));
}

TEST (Biquad, UnassignedCodesKeepTheCoefficients)
{
    for (int code : { 10, 11, 13, -1 })
    {
        auto b = makeSection (Biquad::lowShelfQ, 500.0, 0.35, 4.0, 44100.0);
        const double a0 = b.a0, a1 = b.a1, b1 = b.b1, b2 = b.b2;
        b.type = code;
        b.gainDb = -12.0;
        b.Fc = 2000.0;
        b.design();
        EXPECT_EQ (b.a0, a0);
        EXPECT_EQ (b.a1, a1);
        EXPECT_EQ (b.b1, b1);
        EXPECT_EQ (b.b2, b2);
        EXPECT_NEAR (b.K, std::tan (pi * 2000.0 / 44100.0), 1e-12);
    }
}
