// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_core/juce_core.h>

namespace cli
{
/** Standard input saved to a temporary file, removed again with this object. The
        readers need to seek, and a piped WAV's header cannot give its length: its sizes are
        set from what actually arrived. Throws CliError. */
class StdinSpool
{
public:
    StdinSpool();
    ~StdinSpool();

    const juce::File& file() const { return temp; }

    /** The message with the temporary file's name replaced by "standard input". */
    juce::String rename (const juce::String& message) const;

private:
    juce::File temp;

    JUCE_DECLARE_NON_COPYABLE (StdinSpool)
};

/** Throws CliError (badUsage) when standard output is a terminal: audio there is noise. */
void refuseTerminalOutput();

/** Where a render for standard output writes first: a name in the temporary folder. */
juce::File stdoutSpoolTarget();

/** Copies a finished file to standard output. Throws CliError (outputUnwritable). */
void copyToStdout (const juce::File& file);
}
