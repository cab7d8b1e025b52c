// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

/** Everything the code knows about the eight parameters, in host order.

    The processor builds its parameters from this table, the saved state names its attributes
    after it, the editor takes its knob ranges and defaults from it, and the renderer its
    options, units and limits. A new parameter or a new range is one edit here; only code that
    addresses a parameter by name needs an entry in Index too.
*/
struct ParameterTable
{
    /** Position in the host's parameter list, the editor's controls and the saved state. */
    enum Index
    {
        tiltIndex = 0,
        bypassIndex,
        linPhaseIndex,
        trimIndex,
        lowIndex,
        highIndex,
        lowFreqIndex,
        highFreqIndex,
        numParameters
    };

    struct Entry
    {
        std::string_view id;     // as hosts and saved states name it
        std::string_view name;   // as hosts show it
        std::string_view unit;   // empty for none
        float defaultValue;      // plain value; a switch is off below 0.5
        float minimum;           // the editor's knob range; plain values may lie outside it
        float maximum;
        float skew;   // the editor's skew factor, also used by the mapped normalisation
        bool isSwitch;
        int decimals;   // digits after the point in value texts

        constexpr bool isOn (float value) const noexcept { return value >= 0.5f; }
    };

    static constexpr std::array<Entry, numParameters> entries { {
        { "tilt", "tilt", "dB/oct", 0.0f, -1.0f, 1.0f, 1.0f, false, 2 },
        { "bypass", "Bypass", "", 0.0f, 0.0f, 1.0f, 1.0f, true, 0 },
        { "lin_phase", "linear phase", "", 0.0f, 0.0f, 1.0f, 1.0f, true, 0 },
        { "trim", "trim", "dB", 0.0f, -6.0f, 6.0f, 1.0f, false, 2 },
        { "low", "low", "dB", 0.0f, -6.0f, 6.0f, 1.0f, false, 2 },
        { "high", "high", "dB", 0.0f, -3.0f, 3.0f, 1.0f, false, 2 },
        { "low_freq", "low_freq", "Hz", 150.0f, 20.0f, 300.0f, 0.5f, false, 1 },
        { "high_freq", "high_freq", "Hz", 4500.0f, 3000.0f, 15000.0f, 0.5f, false, 1 },
    } };

    static constexpr const Entry& entry (std::size_t index) noexcept { return entries[index]; }

    /** The index of an ID, or numParameters when there is none. */
    static constexpr std::size_t indexOf (std::string_view id) noexcept
    {
        for (std::size_t i = 0; i < entries.size(); ++i)
            if (entries[i].id == id)
                return i;

        return numParameters;
    }
};

// Code that names a parameter by index must agree with the table's order.
static_assert (ParameterTable::indexOf ("tilt") == ParameterTable::tiltIndex);
static_assert (ParameterTable::indexOf ("bypass") == ParameterTable::bypassIndex);
static_assert (ParameterTable::indexOf ("lin_phase") == ParameterTable::linPhaseIndex);
static_assert (ParameterTable::indexOf ("trim") == ParameterTable::trimIndex);
static_assert (ParameterTable::indexOf ("low") == ParameterTable::lowIndex);
static_assert (ParameterTable::indexOf ("high") == ParameterTable::highIndex);
static_assert (ParameterTable::indexOf ("low_freq") == ParameterTable::lowFreqIndex);
static_assert (ParameterTable::indexOf ("high_freq") == ParameterTable::highFreqIndex);
