// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/Biquad.h"

#include <cmath>

namespace
{
    // Deliberately short decimal forms of 2 pi and pi. The coefficients depend on these
    // exact values: don't swap them for full-precision constants.
    constexpr double twoPiShort = 6.28318530717958;
    constexpr double piShort    = 3.14159265358979;

    // Rounds half away from zero into the fixed-point format.
    int32_t toFixedPoint (double value, double scale)
    {
        const double scaled = value * scale;
        return static_cast<int32_t> (scaled > 0.0 ? scaled + 0.5 : scaled - 0.5);
    }
}

void Biquad::design()
{
    for (auto& word : fixedHistory)
        word = 0;

    fixedScratch[1] = 0;
    fixedScratch[2] = 0;

    V = std::pow (10.0, std::fabs (gainDb) / 20.0);

    const double w = Fc * twoPiShort / sampleRate;
    K = std::tan (w * 0.5);
    Kmirror = std::tan ((piShort - w) * 0.5);

    const bool boost = gainDb >= 0.0;
    const double K2 = K * K;
    const double sqrtV = std::sqrt (V);
    const double sqrt2 = std::sqrt (2.0);
    const double sqrt2V = std::sqrt (2.0 * V);

    switch (type)
    {
        case lowShelfQ:
            if (boost)
            {
                norm = 1.0 / (1.0 + K / Q + K2);
                a0 = (1.0 + sqrtV * K / Q + V * K2) * norm;
                a1 = 2.0 * (V * K2 - 1.0) * norm;
                a2 = (1.0 - sqrtV * K / Q + V * K2) * norm;
                b1 = 2.0 * (K2 - 1.0) * norm;
                b2 = (1.0 - K / Q + K2) * norm;
            }
            else
            {
                norm = 1.0 / (1.0 + sqrtV * K / Q + V * K2);
                a0 = (1.0 + K / Q + K2) * norm;
                a1 = 2.0 * (K2 - 1.0) * norm;
                a2 = (1.0 - K / Q + K2) * norm;
                b1 = 2.0 * (V * K2 - 1.0) * norm;
                b2 = (1.0 - sqrtV * K / Q + V * K2) * norm;
            }
            break;

        case highShelf:
            if (boost)
            {
                norm = 1.0 / (1.0 + sqrt2 * K + K2);
                a0 = (V + sqrt2V * K + K2) * norm;
                a1 = 2.0 * (K2 - V) * norm;
                a2 = (V - sqrt2V * K + K2) * norm;
                b1 = 2.0 * (K2 - 1.0) * norm;
                b2 = (1.0 - sqrt2 * K + K2) * norm;
            }
            else
            {
                norm = 1.0 / (V + sqrt2V * K + K2);
                a0 = (1.0 + sqrt2 * K + K2) * norm;
                a1 = 2.0 * (K2 - 1.0) * norm;
                a2 = (1.0 - sqrt2 * K + K2) * norm;
                b1 = 2.0 * (K2 - V) * norm;
                b2 = (V - sqrt2V * K + K2) * norm;
            }
            break;

        case peak:
            if (boost)
            {
                norm = 1.0 / (1.0 + K / Q + K2);
                a0 = (1.0 + V * K / Q + K2) * norm;
                a1 = 2.0 * (K2 - 1.0) * norm;
                a2 = (1.0 - V * K / Q + K2) * norm;
                b1 = a1;
                b2 = (1.0 - K / Q + K2) * norm;
            }
            else
            {
                norm = 1.0 / (1.0 + V * K / Q + K2);
                a0 = (1.0 + K / Q + K2) * norm;
                a1 = 2.0 * (K2 - 1.0) * norm;
                a2 = (1.0 - K / Q + K2) * norm;
                b1 = a1;
                b2 = (1.0 - V * K / Q + K2) * norm;
            }
            break;

        case lowpass:
            norm = 1.0 / (1.0 + K / Q + K2);
            a0 = K2 * norm;
            a1 = 2.0 * a0;
            a2 = a0;
            b1 = 2.0 * (K2 - 1.0) * norm;
            b2 = (1.0 - K / Q + K2) * norm;
            break;

        case highpass:
            norm = 1.0 / (1.0 + K / Q + K2);
            a0 = norm;
            a1 = -2.0 * a0;
            a2 = a0;
            b1 = 2.0 * (K2 - 1.0) * norm;
            b2 = (1.0 - K / Q + K2) * norm;
            break;

        case bandpass:
            norm = 1.0 / (1.0 + K / Q + K2);
            a0 = K / Q * norm;
            a1 = 0.0;
            a2 = -a0;
            b1 = 2.0 * (K2 - 1.0) * norm;
            b2 = (1.0 - K / Q + K2) * norm;
            break;

        case notch:
        {
            norm = 1.0 / (1.0 + K / Q + K2);
            a0 = (1.0 + K2) * norm;
            a1 = 2.0 * (K2 - 1.0) * norm;
            a2 = a0;
            b1 = a1;
            b2 = (1.0 - K / Q + K2) * norm;

            const double scale = std::ldexp (1.0, fixedFractionBits & 63);
            fixedA0 = toFixedPoint (a0, scale);
            fixedA1 = toFixedPoint (a1, scale);
            fixedA2 = toFixedPoint (a2, scale);
            fixedB1 = toFixedPoint (b1, scale);
            fixedB2 = toFixedPoint (b2, scale);
            break;
        }

        case fixedA:
            // Double pole at -0.2679, zeros at DC and Nyquist; ignores Fc and Q and
            // starts from its own state.
            linearGain = std::pow (10.0, static_cast<double> (static_cast<float> (gainDb)) / 20.0);
            a0 = linearGain;
            a1 = 0.0 * linearGain;
            a2 = -linearGain;
            b1 = 0.5358;
            b2 = 0.07177041000000002;
            fixedPole1 = -0.2679;
            fixedPole2 = -0.2679;
            z1 = 1.0;
            z2 = -1.0;
            break;

        case fixedB:
            linearGain = std::pow (10.0, -2.0);
            a0 = 0.865 * linearGain;
            a1 = 0.5993 * linearGain;
            a2 = 0.0539 * linearGain;
            b1 = -0.4834;
            b2 = -0.5145;
            break;

        case lowShelf:
            if (boost)
            {
                norm = 1.0 / (1.0 + sqrt2 * K + K2);
                a0 = (1.0 + sqrt2V * K + V * K2) * norm;
                a1 = 2.0 * (V * K2 - 1.0) * norm;
                a2 = (1.0 - sqrt2V * K + V * K2) * norm;
                b1 = 2.0 * (K2 - 1.0) * norm;
                b2 = (1.0 - sqrt2 * K + K2) * norm;
            }
            else
            {
                norm = 1.0 / (1.0 + sqrt2V * K + V * K2);
                a0 = (1.0 + sqrt2 * K + K2) * norm;
                a1 = 2.0 * (K2 - 1.0) * norm;
                a2 = (1.0 - sqrt2 * K + K2) * norm;
                b1 = 2.0 * (V * K2 - 1.0) * norm;
                b2 = (1.0 - sqrt2V * K + V * K2) * norm;
            }
            break;

        case highShelfMirrored:
        {
            // The Q low shelf designed at pi - w, then reflected by z -> -z so that
            // the shelf gain lands at Nyquist: the odd coefficients change sign.
            const double Km = Kmirror;
            const double Km2 = Kmirror * Kmirror;

            if (boost)
            {
                norm = 1.0 / (1.0 + Km / Q + Km2);
                a0 = (1.0 + sqrtV * Km / Q + V * Km2) * norm;
                a1 = -2.0 * (V * Km2 - 1.0) * norm;
                a2 = (1.0 - sqrtV * Km / Q + V * Km2) * norm;
                b1 = -2.0 * (Km2 - 1.0) * norm;
                b2 = (1.0 - Km / Q + Km2) * norm;
            }
            else
            {
                norm = 1.0 / (1.0 + sqrtV * Km / Q + V * Km2);
                a0 = (1.0 + Km / Q + Km2) * norm;
                a1 = -2.0 * (Km2 - 1.0) * norm;
                a2 = (1.0 - Km / Q + Km2) * norm;
                b1 = -2.0 * (V * Km2 - 1.0) * norm;
                b2 = (1.0 - sqrtV * Km / Q + V * Km2) * norm;
            }
            break;
        }

        default:
            // Unassigned codes (10, 11, ...) keep the previous coefficients.
            break;
    }
}

void Biquad::configure (int newType, double newFc, double newQ, double newGainDb, double newSampleRate)
{
    sampleRate = newSampleRate;
    type = newType;
    Q = newQ;
    Fc = newFc;

    // Deliberately no redesign for an unchanged gain: the block processing calls
    // design() itself when the corner or the rate moves.
    if (newGainDb == gainDb)
    {
        ready = 1;
        return;
    }

    gainDb = newGainDb;
    design();
    ready = 1;
}

namespace
{
    // GCC and clang vector extensions (every compiler this builds with, MinGW included).
    using Double2 = double __attribute__ ((vector_size (16)));
    using Float2 = float __attribute__ ((vector_size (8)));

    struct SectionPair
    {
        SectionPair (const Biquad& l, const Biquad& r)
            : scale { l.inputScale, r.inputScale }, a0 { l.a0, r.a0 }, a1 { l.a1, r.a1 }, a2 { l.a2, r.a2 },
              b1 { l.b1, r.b1 }, b2 { l.b2, r.b2 }, z1 { l.z1, r.z1 }, z2 { l.z2, r.z2 }
        {
        }

        // Biquad::process on both lanes, rounded to float as its result is.
        Double2 process (Double2 in) noexcept
        {
            const Double2 offset = { 1e-18, 1e-18 };
            const auto y = in * scale * a0 + z1 + offset;
            z1 = in * a1 + z2 - b1 * y;
            z2 = in * a2 - b2 * y;
            return __builtin_convertvector (__builtin_convertvector (y, Float2), Double2);
        }

        void store (Biquad& l, Biquad& r) const noexcept
        {
            l.z1 = z1[0];
            l.z2 = z2[0];
            r.z1 = z1[1];
            r.z2 = z2[1];
        }

        Double2 scale, a0, a1, a2, b1, b2, z1, z2;
    };
}

void Biquad::processStereoCascade (Biquad& firstLeft, Biquad& firstRight, Biquad& secondLeft, Biquad& secondRight,
                                   float* left, float* right, int n) noexcept
{
    SectionPair first (firstLeft, firstRight), second (secondLeft, secondRight);

    for (int i = 0; i < n; ++i)
    {
        const auto out = second.process (first.process (Double2 { left[i], right[i] }));
        left[i] = (float) out[0];
        right[i] = (float) out[1];
    }

    first.store (firstLeft, firstRight);
    second.store (secondLeft, secondRight);
}
