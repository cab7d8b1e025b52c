// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_core/juce_core.h>
#include <stdexcept>

namespace cli
{
/** Exit statuses, one per kind of failure so that scripts can tell them apart. */
enum class ExitCode : int
{
    ok = 0,
    internalError = 1,
    badUsage = 2,           // unknown option, bad or missing value
    inputUnreadable = 3,    // input or preset missing, a folder, not readable, or changed while read
    badFormat = 4,          // not WAV/AIFF/FLAC, corrupt, truncated, or unsupported layout
    outputUnwritable = 5,   // folder missing or read-only, disk full, file size limit, output is the input
    outputExists = 6,       // refused to replace an existing file without --overwrite
    interrupted = 130       // SIGINT; the process ends by the signal itself, so SIGTERM gives 143
};

/** A failure with a one-line message for the user and the exit status it maps to. */
class CliError : public std::runtime_error
{
public:
    CliError (ExitCode codeToUse, const juce::String& message)
        : std::runtime_error (message.toStdString()), code (codeToUse) {}

    const ExitCode code;
};

inline juce::String quoted (const juce::File& file)
{
    return "'" + file.getFullPathName() + "'";
}
}
