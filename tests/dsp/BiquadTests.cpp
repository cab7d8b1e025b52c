// SPDX-License-Identifier: GPL-3.0-or-later
#include "processor/Biquad.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <random>

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

TEST (Biquad, DefaultSectionPassesSignalThrough)
{
    Biquad b;
    std::mt19937 rng (1);
    std::uniform_real_distribution<float> dist (-1.0f, 1.0f);

    for (int i = 0; i < 1000; ++i)
    {
        const float x = dist (rng);
        EXPECT_NEAR (b.process (x), x, 1e-7f);
    }
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

TEST (Biquad, ImpulseResponseSumsToTheDcGain)
{
    auto b = makeSection (Biquad::lowShelfQ, 200.0, 0.35, -6.0, 48000.0);
    double sum = 0.0, alternating = 0.0;

    for (int n = 0; n < 100000; ++n)
    {
        const double y = b.process (n == 0 ? 1.0f : 0.0f);
        sum += y;
        alternating += n % 2 == 0 ? y : -y;
    }

    EXPECT_NEAR (sum, std::pow (10.0, -6.0 / 20.0), 1e-5);
    EXPECT_NEAR (alternating, 1.0, 1e-5);
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

TEST (Biquad, ZeroGainShelvesAreTheIdentity)
{
    std::mt19937 rng (2);
    std::uniform_real_distribution<float> dist (-1.0f, 1.0f);

    for (const auto& c : shelfCases)
    {
        auto b = makeSection (c.type, c.fc, c.q, 0.0, c.fs);
        EXPECT_DOUBLE_EQ (b.V, 1.0);
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
    Biquad b;
    EXPECT_EQ (b.ready, 0);

    b.configure (Biquad::lowShelfQ, 100.0, 0.35, 6.0, 44100.0);
    EXPECT_EQ (b.ready, 1);
    const auto designed = makeSection (Biquad::lowShelfQ, 100.0, 0.35, 6.0, 44100.0);
    EXPECT_EQ (b.a0, designed.a0);
    EXPECT_EQ (b.b2, designed.b2);

    // New corner, same gain: settings stored, old coefficients kept.
    const double oldA0 = b.a0, oldA1 = b.a1, oldB1 = b.b1;
    b.configure (Biquad::lowShelfQ, 800.0, 0.35, 6.0, 44100.0);
    EXPECT_EQ (b.Fc, 800.0);
    EXPECT_EQ (b.a0, oldA0);
    EXPECT_EQ (b.a1, oldA1);
    EXPECT_EQ (b.b1, oldB1);

    // A new gain redesigns with everything stored so far.
    b.configure (Biquad::lowShelfQ, 800.0, 0.35, -3.0, 44100.0);
    const auto redesigned = makeSection (Biquad::lowShelfQ, 800.0, 0.35, -3.0, 44100.0);
    EXPECT_EQ (b.a0, redesigned.a0);
    EXPECT_EQ (b.a1, redesigned.a1);
    EXPECT_EQ (b.b1, redesigned.b1);
    EXPECT_EQ (b.b2, redesigned.b2);
}

TEST (Biquad, RedesignMidStreamKeepsTheState)
{
    auto gliding = makeSection (Biquad::highShelfMirrored, 4000.0, 0.5, 3.0, 48000.0);

    for (int n = 0; n < 64; ++n)
        gliding.process (std::sin (0.3f * (float) n));

    ASSERT_NE (gliding.z1, 0.0);
    const double z1 = gliding.z1, z2 = gliding.z2;
    gliding.gainDb = 6.0;
    gliding.design();
    EXPECT_EQ (gliding.z1, z1);
    EXPECT_EQ (gliding.z2, z2);

    // The next output continues from the old state with the new coefficients.
    const float x = std::sin (0.3f * 64.0f);
    const double expected = (double) x * gliding.a0 + z1;
    EXPECT_FLOAT_EQ (gliding.process (x), (float) expected);
}

TEST (Biquad, FilterTypesMeetTheirTextbookResponses)
{
    const double fs = 48000.0, fc = 3000.0, q = 0.8;
    const double v = std::pow (10.0, 8.0 / 20.0);

    const auto lp = makeSection (Biquad::lowpass, fc, q, 0.0, fs);
    EXPECT_NEAR (magnitudeAt (lp, 0.0), 1.0, 1e-12);
    EXPECT_NEAR (magnitudeAt (lp, fs / 2), 0.0, 1e-12);
    EXPECT_NEAR (magnitudeAt (lp, fc), q, 1e-6);

    const auto hp = makeSection (Biquad::highpass, fc, q, 0.0, fs);
    EXPECT_NEAR (magnitudeAt (hp, 0.0), 0.0, 1e-12);
    EXPECT_NEAR (magnitudeAt (hp, fs / 2), 1.0, 1e-12);
    EXPECT_NEAR (magnitudeAt (hp, fc), q, 1e-6);

    const auto bp = makeSection (Biquad::bandpass, fc, q, 0.0, fs);
    EXPECT_NEAR (magnitudeAt (bp, fc), 1.0, 1e-6);
    EXPECT_NEAR (magnitudeAt (bp, 0.0), 0.0, 1e-12);

    const auto notch = makeSection (Biquad::notch, fc, q, 0.0, fs);
    EXPECT_NEAR (magnitudeAt (notch, fc), 0.0, 1e-6);
    EXPECT_NEAR (magnitudeAt (notch, 0.0), 1.0, 1e-12);
    EXPECT_EQ (notch.fixedA0, std::lround (notch.a0 * 1048576.0));
    EXPECT_EQ (notch.fixedB1, std::lround (notch.b1 * 1048576.0));
    EXPECT_LT (notch.fixedB1, 0);

    for (double g : { 8.0, -8.0 })
    {
        const double expected = g > 0 ? v : 1.0 / v;
        const auto bell = makeSection (Biquad::peak, fc, q, g, fs);
        EXPECT_NEAR (magnitudeAt (bell, fc), expected, 1e-6);
        EXPECT_NEAR (magnitudeAt (bell, 0.0), 1.0, 1e-12);

        const auto low = makeSection (Biquad::lowShelf, fc, q, g, fs);
        EXPECT_NEAR (magnitudeAt (low, 0.0), expected, 1e-9);
        EXPECT_NEAR (magnitudeAt (low, fs / 2), 1.0, 1e-9);

        const auto high = makeSection (Biquad::highShelf, fc, q, g, fs);
        EXPECT_NEAR (magnitudeAt (high, 0.0), 1.0, 1e-9);
        EXPECT_NEAR (magnitudeAt (high, fs / 2), expected, 1e-9);
    }
}

TEST (Biquad, FixedTypesAndUnassignedCodes)
{
    // fixedA: double pole at -0.2679, zeros at DC and Nyquist, own start state.
    auto fixed = makeSection (Biquad::fixedA, 1000.0, 0.5, 6.0, 44100.0);
    EXPECT_NEAR (fixed.b1, 2.0 * 0.2679, 1e-15);
    EXPECT_NEAR (fixed.b2, 0.2679 * 0.2679, 1e-15);
    EXPECT_NEAR (magnitudeAt (fixed, 0.0), 0.0, 1e-12);
    EXPECT_NEAR (fixed.a0, std::pow (10.0, 6.0 / 20.0), 1e-12);
    EXPECT_EQ (fixed.z1, 1.0);
    EXPECT_EQ (fixed.z2, -1.0);

    // Codes without a design keep the coefficients but still update V and K.
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
        EXPECT_NEAR (b.V, std::pow (10.0, 12.0 / 20.0), 1e-12);
        EXPECT_NEAR (b.K, std::tan (pi * 2000.0 / 44100.0), 1e-12);
    }
}
