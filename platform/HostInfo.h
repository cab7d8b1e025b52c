// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

namespace platform
{

/** The full path of the running host executable (UTF-8), or an empty string if the system
    cannot tell. */
std::string hostExecutablePath();

}
