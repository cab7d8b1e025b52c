// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

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

    /** Attribute names in the order they are written and read; also the parameter order. */
    constexpr std::array<const char*, 8> attributeNames { "tilt", "bypass", "lin_phase", "trim",
                                                          "low", "high", "low_freq", "high_freq" };
    constexpr int bypassIndex = 1;
    constexpr int linPhaseIndex = 2;

    inline bool isSwitch (size_t index) noexcept   { return index == bypassIndex || index == linPhaseIndex; }

    /** Values by parameter index; switches count as on at 0.5 and above. */
    using Values = std::array<float, 8>;

    /** What a block restores: one entry per parameter, empty where the attribute was absent. */
    using Restored = std::array<std::optional<float>, 8>;

    /** %.20g of the float widened to double, independent of the C locale. */
    juce::String formatDouble (double value);

    juce::MemoryBlock write (const Values& values);

    /** Empty when the block is not ours: too short, wrong magic, bad length or no Params element. */
    std::optional<Restored> read (const void* data, int sizeInBytes);
}
