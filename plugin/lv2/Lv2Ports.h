// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "plugin/ParameterTable.h"

#include <cstdint>

/** The LV2 build's port layout and URIs, shared by the plug-in and the program that writes
    its Turtle, so the two cannot disagree.

    Parameters are input control ports in plain units (dB, Hz), so hosts read, store and show
    the values themselves; their symbols are the parameter IDs.
*/
namespace Lv2Ports
{
enum : std::uint32_t
{
    inputLeft = 0,
    inputRight,
    outputLeft,
    outputRight,
    firstParameter,
    latency = firstParameter + ParameterTable::numParameters,
    enabled,
    numPorts
};

constexpr std::uint32_t parameterPort (std::size_t index) noexcept
{
    return firstParameter + (std::uint32_t) index;
}

/** The parameter index of a port, or numParameters for a port that is no parameter. */
constexpr std::size_t parameterIndex (std::uint32_t port) noexcept
{
    return port >= firstParameter && port < latency ? (std::size_t) (port - firstParameter)
                                                    : (std::size_t) ParameterTable::numParameters;
}

// The state key, the UI and the preset keep the names earlier builds gave them, so
// sessions and presets saved with those still load.
inline constexpr const char* stateKeySuffix = ":StateString";
inline constexpr const char* programKeySuffix = ":Program";
inline constexpr const char* uiSuffix = ":UI";
}
