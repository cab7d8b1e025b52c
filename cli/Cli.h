// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_core/juce_core.h>
#include <ostream>

namespace quenda::cli
{
    /** The whole program after JUCE is initialised: parses, renders, reports. Results go
        to out (lists, demo tables), messages and errors to err. Returns the exit status. */
    int runCommandLine (const juce::StringArray& args, std::ostream& out, std::ostream& err);
}
