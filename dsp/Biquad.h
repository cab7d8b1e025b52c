// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>

/**
    One second-order recursive section, designed by the bilinear transform and run
    in 64-bit transposed direct form II.

    The processor uses two of the types: lowShelfQ for the low shelf and
    highShelfMirrored for the high shelf. The remaining types are kept so that a
    section can be reconfigured into any of them.

    design() never touches the state (z1, z2), so a gain glide may redesign the
    section between any two samples without a click. Only fixedA, which carries
    its own initial state, writes it.
*/
class Biquad
{
public:
    // Design types
    static constexpr int lowShelfQ         = 0;
    static constexpr int highShelf         = 1;
    static constexpr int peak              = 2;
    static constexpr int lowpass           = 3;
    static constexpr int highpass          = 4;
    static constexpr int bandpass          = 5;
    static constexpr int notch             = 6;
    static constexpr int fixedA            = 7;
    static constexpr int fixedB            = 8;
    static constexpr int lowShelf          = 9;
    static constexpr int highShelfMirrored = 12;

    Biquad() = default;

    /** Recomputes the coefficients from type, Fc, sampleRate, Q and gainDb. */
    void design();

    /** Stores the settings and redesigns only when the gain differs from the stored
        one (NaN always differs). A change of corner, Q, type or rate alone keeps the
        old coefficients until the next design(). */
    void configure (int newType, double newFc, double newQ, double newGainDb, double newSampleRate);

    /** One sample through the section. The 1e-18 offset keeps the feedback path out
        of denormals; it reaches the output as well. */
    float process (float x) noexcept
    {
        const double in = x;
        const double y = in * inputScale * a0 + z1 + 1e-18;
        z1 = in * a1 + z2 - b1 * y;
        z2 = in * a2 - b2 * y;
        return static_cast<float> (y);
    }

    /** Two channels, each through a cascade of two sections (first, then second), in place.
        The same arithmetic as process(), sample for sample and bit for bit, with the two
        channels side by side in one vector register. */
    static void processStereoCascade (Biquad& firstLeft, Biquad& firstRight,
                                      Biquad& secondLeft, Biquad& secondRight,
                                      float* left, float* right, int n) noexcept;

    // Fixed-point section: no processing path uses it, but every design resets its history.
    int32_t fixedMode = 1;
    int64_t fixedHistory[6] = {};
    int64_t fixedAccumulator = 0;
    int32_t fixedFullScale = static_cast<int32_t> ((double) (1 << 24) * 0.5);
    int32_t fixedFractionBits = 20;
    int64_t fixedScratch[3] = {};   // [1] and [2] are cleared with the history

    int type = lowpass;

    // Feed-forward coefficients; inputScale multiplies the input of the a0 term only.
    double a0 = 1.0, a1 = 0.0, a2 = 0.0;
    double inputScale = 1.0;

    // Feedback coefficients, normalised to a leading denominator term of 1.
    double b1 = 0.0, b2 = 0.0;

    // Fixed-point coefficients (written by notch only); fixedSpare is unused.
    int32_t fixedA0 = 0, fixedA1 = 0, fixedA2 = 0, fixedSpare = 0, fixedB1 = 0, fixedB2 = 0;

    double Fc = 22050.0;
    double sampleRate = 44100.0;
    double Q = 0.5;
    double gainDb = 0.0;

    double z1 = 0.0, z2 = 0.0;

    int32_t ready = 0;

    /** Reciprocal of the leading denominator term of the last dividing design. */
    double norm = 0.0;

    // fixedA's double pole, and the linear gain of fixedA / fixedB.
    double fixedPole1 = 0.0, fixedPole2 = 0.0;
    double linearGain = 0.0;

    double V = 0.0;        // 10^(|gainDb| / 20)
    double K = 0.0;        // tan (w / 2)
    double Kmirror = 0.0;  // tan ((pi - w) / 2): K of the corner mirrored about fs / 4
};
