// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "StateBlock.h"
#include "dsp/ShelfStage.h"
#include "dsp/TiltStage.h"
#include "dsp/TrimStage.h"

/** What one block runs with: every parameter read once, so all stages agree even while a
    host writes, with bypass and the design limits applied. */
struct BlockSettings
{
    TiltStage::Settings tilt;
    ShelfStage::Settings shelves;
    TrimStage::Settings trim;

    /** From the parameter values; the shelves' corners are limited at their design rate. */
    static BlockSettings from (const StateBlock::Values& values, double shelfSampleRate) noexcept;
};
