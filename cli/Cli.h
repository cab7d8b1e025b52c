// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_core/juce_core.h>
#include <ostream>

namespace cli
{
/** The whole program after JUCE is initialised: parses, renders, reports. Results go
        to out (lists, demo tables), messages and errors to err. Returns the exit status. */
int runCommandLine (const juce::StringArray& args, std::ostream& out, std::ostream& err);

/** Strict UTF-8 (no overlong forms, surrogates or code points past U+10FFFF). JUCE's own
        check lets overlong forms through, and its string functions then write past the end
        of the buffers they size for the shorter form. */
bool isWellFormedUtf8 (const char* bytes, size_t size) noexcept;
}
