// SPDX-License-Identifier: GPL-3.0-or-later
#include "BlockSettings.h"
#include "dsp/DesignLimits.h"

BlockSettings BlockSettings::from (const StateBlock::Values& values, double shelfSampleRate) noexcept
{
    const auto isOn = [&values] (ParameterTable::Index index)
    { return ParameterTable::entry (index).isOn (values[index]); };
    const auto bypassed = isOn (ParameterTable::bypassIndex);

    BlockSettings settings;

    // Bypass is neutral settings, not a skipped path: the glides carry the change, and the
    // linear-phase delay stays so that the host's latency holds.
    settings.tilt.tilt = bypassed ? 0.0 : limits::safeTilt ((double) values[ParameterTable::tiltIndex]);
    settings.tilt.linearPhase = isOn (ParameterTable::linPhaseIndex);

    settings.shelves.bypassed = bypassed;
    settings.shelves.lowGainDb = bypassed ? 0.0f : limits::safeGain (values[ParameterTable::lowIndex]);
    settings.shelves.highGainDb = bypassed ? 0.0f : limits::safeGain (values[ParameterTable::highIndex]);
    settings.shelves.lowCornerHz = limits::safeCorner ((double) values[ParameterTable::lowFreqIndex], shelfSampleRate);
    settings.shelves.highCornerHz = limits::safeCorner ((double) values[ParameterTable::highFreqIndex], shelfSampleRate);

    settings.trim.gainDb = bypassed ? 0.0f : limits::safeGain (values[ParameterTable::trimIndex]);
    return settings;
}
