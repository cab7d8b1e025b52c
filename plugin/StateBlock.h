// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "ParameterTable.h"

#include <juce_core/juce_core.h>
#include <array>
#include <optional>

/** The saved-state block hosts store in projects and presets.

    Layout (little-endian): magic 0x21324356, the XML text's length (block size - 9),
    one line `<Params tilt=".." bypass=".." .../>` without declaration, a zero byte.
    Floats are written widened to double with %.20g so a reload gives back the exact float.
*/
namespace StateBlock
{
constexpr juce::uint32 magic = 0x21324356;

// One attribute per parameter, named by its ID, in parameter order.
constexpr auto numValues = (size_t) ParameterTable::numParameters;

/** Values by parameter index; switches count as on at 0.5 and above. */
using Values = std::array<float, numValues>;

/** What a block restores: one entry per parameter, empty where the attribute was absent. */
using Restored = std::array<std::optional<float>, numValues>;

/** %.20g of the float widened to double, independent of the C locale. */
juce::String formatDouble (double value);

juce::MemoryBlock write (const Values& values);

/** Empty when the block is not ours: too short, wrong magic, bad length or no Params element. */
std::optional<Restored> read (const void* data, int sizeInBytes);
}
