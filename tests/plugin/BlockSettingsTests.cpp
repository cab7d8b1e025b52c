// SPDX-License-Identifier: GPL-3.0-or-later
// The one snapshot a block runs with: bypass is neutral settings, and every value a design
// takes is limited, however far outside the editor's ranges the parameters lie.
#include "plugin/BlockSettings.h"

#include <gtest/gtest.h>

#include <cmath>

TEST (BlockSettings, BypassAndTheDesignLimitsApplyToEveryStage)
{
    using P = ParameterTable;
    const auto rate = 48000.0;

    StateBlock::Values far {};
    far[P::tiltIndex] = -250.0f;
    far[P::linPhaseIndex] = 1.0f;
    far[P::trimIndex] = 900.0f;
    far[P::lowIndex] = -900.0f;
    far[P::highIndex] = 300.0f;
    far[P::lowFreqIndex] = -5.0f;
    far[P::highFreqIndex] = 1.0e9f;

    const auto limited = BlockSettings::from (far, rate);
    EXPECT_EQ (-100.0, limited.tilt.tilt);
    EXPECT_TRUE (limited.tilt.linearPhase);
    EXPECT_FALSE (limited.shelves.bypassed);
    EXPECT_EQ (-200.0f, limited.shelves.lowGainDb);
    EXPECT_EQ (200.0f, limited.shelves.highGainDb);
    EXPECT_EQ (0.01, limited.shelves.lowCornerHz);
    EXPECT_EQ (0.49 * rate, limited.shelves.highCornerHz);
    EXPECT_EQ (200.0f, limited.trim.gainDb);

    // Bypassed: every gain neutral, the phase mode (and so the latency) and the corners kept.
    far[P::bypassIndex] = 0.5f;
    const auto bypassed = BlockSettings::from (far, rate);
    EXPECT_EQ (0.0, bypassed.tilt.tilt);
    EXPECT_TRUE (bypassed.tilt.linearPhase);
    EXPECT_TRUE (bypassed.shelves.bypassed);
    EXPECT_EQ (0.0f, bypassed.shelves.lowGainDb);
    EXPECT_EQ (0.0f, bypassed.shelves.highGainDb);
    EXPECT_EQ (0.01, bypassed.shelves.lowCornerHz);
    EXPECT_EQ (0.49 * rate, bypassed.shelves.highCornerHz);
    EXPECT_EQ (0.0f, bypassed.trim.gainDb);

    // Just below the switch point is off.
    far[P::bypassIndex] = std::nextafter (0.5f, 0.0f);
    far[P::linPhaseIndex] = std::nextafter (0.5f, 0.0f);
    const auto on = BlockSettings::from (far, rate);
    EXPECT_FALSE (on.shelves.bypassed);
    EXPECT_FALSE (on.tilt.linearPhase);
    EXPECT_EQ (200.0f, on.trim.gainDb);
}
