// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/Biquad.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <complex>
#include <vector>

namespace
{
    std::complex<double> response (const Biquad& b, double hz)
    {
        const auto z = std::polar (1.0, -2.0 * std::acos (-1.0) * hz / b.sampleRate);
        return (b.inputScale * b.a0 + b.a1 * z + b.a2 * z * z) / (1.0 + b.b1 * z + b.b2 * z * z);
    }

    Biquad make (int type, double fc, double q, double gainDb, double fs)
    {
        Biquad b;
        b.configure (type, fc, q, gainDb, fs);
        b.design();
        return b;
    }

    // Magnitude of a boosting Q shelf at its corner: sqrt (((V - 1) Q)^2 + V).
    double cornerGain (double v, double q) { return std::hypot ((v - 1.0) * q, std::sqrt (v)); }
}

TEST (Biquad, ShelvesMeetTheirAnalyticGainsAndBoostUndoesCut)
{
    const struct { int type; double q, fc, fs; } shelves[] = {
        { Biquad::lowShelfQ, 0.35, 120.0, 44100.0 },       { Biquad::lowShelfQ, 0.35, 1500.0, 96000.0 },
        { Biquad::highShelfMirrored, 0.5, 6000.0, 48000.0 }, { Biquad::highShelfMirrored, 0.5, 2500.0, 44100.0 },
    };
    for (const auto& c : shelves)
    {
        for (double g : { 12.0, 3.5, 0.0, -0.5, -9.0, -24.0 })
        {
            SCOPED_TRACE (::testing::Message() << "type " << c.type << " fc " << c.fc << " gain " << g);
            auto b = make (c.type, c.fc, c.q, g, c.fs);
            const double v = std::pow (10.0, std::fabs (g) / 20.0), shelf = g >= 0.0 ? v : 1.0 / v;
            const double dc = c.type == Biquad::lowShelfQ ? shelf : 1.0;
            const double nyquist = c.type == Biquad::lowShelfQ ? 1.0 : shelf;
            const double corner = g >= 0.0 ? cornerGain (v, c.q) : 1.0 / cornerGain (v, c.q);
            EXPECT_NEAR (std::abs (response (b, 0.0)), dc, 1e-9 * dc);
            EXPECT_NEAR (std::abs (response (b, c.fs / 2)), nyquist, 1e-9 * nyquist);
            EXPECT_NEAR (std::abs (response (b, c.fc)), corner, 1e-6 * corner);

            // Opposite gains cancel in magnitude and phase; at 0 dB this makes the section the identity.
            const auto inverse = make (c.type, c.fc, c.q, -g, c.fs);
            for (double hz : { 0.0, 30.0, 400.0, 5000.0, 15000.0, c.fs / 2 })
                EXPECT_NEAR (std::abs (response (b, hz) * response (inverse, hz) - 1.0), 0.0, 1e-9) << hz << " Hz";
        }
    }
}

// The stereo path must be the one-channel recurrence to the bit, each channel in its own lane
// (the recurrence itself meets an independent one in the VST2 audio-path tests).
TEST (Biquad, StereoCascadeMatchesTheSingleSectionsExactly)
{
    auto shelves = [] (double lowGain, double highGain)
    {
        std::array<Biquad, 4> s;   // low left, low right, high left, high right
        for (int c = 0; c < 2; ++c)
        {
            s[(size_t) c].configure (Biquad::lowShelfQ, 140.0 + 60.0 * c, 0.5, lowGain + c, 48000.0);
            s[(size_t) c + 2].configure (Biquad::highShelfMirrored, 5000.0 - 900.0 * c, 0.5, highGain - c, 48000.0);
        }
        return s;
    };
    auto stereo = shelves (5.0, -7.0), mono = shelves (5.0, -7.0);

    std::vector<float> left (777), right (777);
    for (size_t i = 0; i < left.size(); ++i)
    {
        left[i] = std::sin (0.05f * (float) i) * 0.8f;
        right[i] = (i % 31 == 0) ? 1.0f : 0.1f * std::cos (0.9f * (float) i);
    }
    auto expectedLeft = left, expectedRight = right;

    for (int pass = 0; pass < 2; ++pass)   // the state carries over between calls
    {
        Biquad::processStereoCascade (stereo[0], stereo[1], stereo[2], stereo[3], left.data(), right.data(), (int) left.size());
        for (size_t i = 0; i < left.size(); ++i)
        {
            expectedLeft[i] = mono[2].process (mono[0].process (expectedLeft[i]));
            expectedRight[i] = mono[3].process (mono[1].process (expectedRight[i]));
        }
        ASSERT_EQ (left, expectedLeft);
        ASSERT_EQ (right, expectedRight);
    }
}
