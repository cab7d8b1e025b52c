// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

/** Limits that keep every design finite and stable at any rate, far outside the editor's
    ranges; the parameters themselves keep whatever value they were given. */
namespace limits
{
constexpr double lowestCorner = 0.01;
constexpr double highestCornerRatio = 0.49;
constexpr float gainLimitDb = 200.0f;
constexpr double tiltLimit = 100.0;

/** Hosts may announce any rate; the shelves keep designing at the last one in this range. */
constexpr bool isUsableSampleRate (double rate) noexcept
{
    return rate > 0.0 && rate <= 384000.0;
}   // NaN fails

/** The lower limit wins where the two cross (a rate below 0.02 Hz); NaN passes. */
template <typename Type>
constexpr Type limit (Type lower, Type upper, Type value) noexcept
{
    return value < lower ? lower : (upper < value ? upper : value);
}

constexpr double safeCorner (double corner, double rate) noexcept
{
    return limit (lowestCorner, highestCornerRatio * rate, corner);
}
constexpr float safeGain (float gainDb) noexcept
{
    return limit (-gainLimitDb, gainLimitDb, gainDb);
}
constexpr double safeTilt (double tilt) noexcept
{
    return limit (-tiltLimit, tiltLimit, tilt);
}
}
