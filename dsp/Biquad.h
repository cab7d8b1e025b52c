// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

/**
    One second-order recursive section in 64-bit transposed direct form II, and the two
    shelving designs (bilinear transform) the equaliser uses.

    The coefficients are apart from the state: a new set may replace the old between any two
    samples, so a gain glide redesigns without a click.
*/
class Biquad
{
public:
    /** Feed-forward b, feedback a, normalised to a leading denominator term of 1. */
    struct Coefficients
    {
        double b0 = 1.0, b1 = 0.0, b2 = 0.0;
        double a1 = 0.0, a2 = 0.0;
    };

    /** A shelf with gainDb below cornerHz and a slope set by q. */
    static Coefficients lowShelf (double cornerHz, double q, double gainDb, double sampleRate) noexcept;

    /** A shelf with gainDb above cornerHz: the low shelf designed at the corner mirrored about
        a quarter of the rate, then reflected (z to -z), so that the gain lands at Nyquist. */
    static Coefficients highShelf (double cornerHz, double q, double gainDb, double sampleRate) noexcept;

    void setCoefficients (const Coefficients& newCoefficients) noexcept { coefficients = newCoefficients; }
    const Coefficients& getCoefficients() const noexcept { return coefficients; }

    /** Silence as the past. */
    void reset() noexcept { z1 = z2 = 0.0; }

    /** One sample through the section. The 1e-18 offset keeps the feedback path out of
        denormals; it reaches the output too, and saved sessions render with it. */
    float process (float x) noexcept
    {
        const double in = x;
        const double y = in * coefficients.b0 + z1 + 1e-18;
        z1 = in * coefficients.b1 + z2 - coefficients.a1 * y;
        z2 = in * coefficients.b2 - coefficients.a2 * y;
        return static_cast<float> (y);
    }

    /** Two channels, each through a cascade of two sections (first, then second), in place.
        The same arithmetic as process(), sample for sample and bit for bit, with the two
        channels side by side in one vector register. */
    static void processStereoCascade (Biquad& firstLeft, Biquad& firstRight,
                                      Biquad& secondLeft, Biquad& secondRight,
                                      float* left, float* right, int n) noexcept;

private:
    struct StereoLanes;

    Coefficients coefficients;
    double z1 = 0.0, z2 = 0.0;
};
