// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/Biquad.h"

#include <cmath>

namespace
{
// Short decimal forms of 2 pi and pi: the coefficients depend on these exact digits, and
// saved sessions must render as they always have.
constexpr double twoPiShort = 6.28318530717958;
constexpr double piShort = 3.14159265358979;

// The low shelf at K = tan (w / 2), V = 10^(|gain| / 20); a cut is the boost's inverse.
Biquad::Coefficients lowShelfAt (double K, double q, double gainDb) noexcept
{
    const double V = std::pow (10.0, std::fabs (gainDb) / 20.0);
    const double K2 = K * K;
    const double sqrtV = std::sqrt (V);

    Biquad::Coefficients c;

    if (gainDb >= 0.0)
    {
        const double norm = 1.0 / (1.0 + K / q + K2);
        c.b0 = (1.0 + sqrtV * K / q + V * K2) * norm;
        c.b1 = 2.0 * (V * K2 - 1.0) * norm;
        c.b2 = (1.0 - sqrtV * K / q + V * K2) * norm;
        c.a1 = 2.0 * (K2 - 1.0) * norm;
        c.a2 = (1.0 - K / q + K2) * norm;
    }
    else
    {
        const double norm = 1.0 / (1.0 + sqrtV * K / q + V * K2);
        c.b0 = (1.0 + K / q + K2) * norm;
        c.b1 = 2.0 * (K2 - 1.0) * norm;
        c.b2 = (1.0 - K / q + K2) * norm;
        c.a1 = 2.0 * (V * K2 - 1.0) * norm;
        c.a2 = (1.0 - sqrtV * K / q + V * K2) * norm;
    }

    return c;
}
}

Biquad::Coefficients Biquad::lowShelf (double cornerHz, double q, double gainDb, double sampleRate) noexcept
{
    const double w = cornerHz * twoPiShort / sampleRate;
    return lowShelfAt (std::tan (w * 0.5), q, gainDb);
}

Biquad::Coefficients Biquad::highShelf (double cornerHz, double q, double gainDb, double sampleRate) noexcept
{
    const double w = cornerHz * twoPiShort / sampleRate;
    auto c = lowShelfAt (std::tan ((piShort - w) * 0.5), q, gainDb);

    // z -> -z: the odd coefficients change sign.
    c.b1 = -c.b1;
    c.a1 = -c.a1;
    return c;
}

namespace
{
// GCC and clang vector extensions (every compiler this builds with, MinGW included).
using Double2 = double __attribute__ ((vector_size (16)));
using Float2 = float __attribute__ ((vector_size (8)));
}

// Biquad::process on both lanes, rounded to float as its result is.
struct Biquad::StereoLanes
{
    StereoLanes (const Biquad& l, const Biquad& r)
        : b0 { l.coefficients.b0, r.coefficients.b0 }, b1 { l.coefficients.b1, r.coefficients.b1 },
          b2 { l.coefficients.b2, r.coefficients.b2 }, a1 { l.coefficients.a1, r.coefficients.a1 },
          a2 { l.coefficients.a2, r.coefficients.a2 }, z1 { l.z1, r.z1 }, z2 { l.z2, r.z2 }
    {
    }

    Double2 process (Double2 in) noexcept
    {
        const Double2 offset = { 1e-18, 1e-18 };
        const auto y = in * b0 + z1 + offset;
        z1 = in * b1 + z2 - a1 * y;
        z2 = in * b2 - a2 * y;
        return __builtin_convertvector(__builtin_convertvector(y, Float2), Double2);
    }

    void store (Biquad& l, Biquad& r) const noexcept
    {
        l.z1 = z1[0];
        l.z2 = z2[0];
        r.z1 = z1[1];
        r.z2 = z2[1];
    }

    Double2 b0, b1, b2, a1, a2, z1, z2;
};

void Biquad::processStereoCascade (Biquad& firstLeft, Biquad& firstRight, Biquad& secondLeft, Biquad& secondRight,
                                   float* left, float* right, int n) noexcept
{
    StereoLanes first (firstLeft, firstRight), second (secondLeft, secondRight);

    for (int i = 0; i < n; ++i)
    {
        const auto out = second.process (first.process (Double2 { left[i], right[i] }));
        left[i] = (float) out[0];
        right[i] = (float) out[1];
    }

    first.store (firstLeft, firstRight);
    second.store (secondLeft, secondRight);
}
