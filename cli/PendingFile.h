// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_core/juce_core.h>

namespace cli
{
    /** A file written under a temporary name in the target's folder and renamed into place
        by commit(); if commit() is never reached, or the process is interrupted, the
        temporary file is removed and the target is left as it was. */
    class PendingFile
    {
    public:
        /** Throws CliError: outputExists without overwrite, outputUnwritable when the
            folder is missing or read-only. */
        PendingFile (const juce::File& target, bool overwrite);
        ~PendingFile();

        const juce::File& temporary() const     { return temp; }
        const juce::File& destination() const   { return target; }

        /** Flushes to disk and renames; throws CliError (outputExists if the target
            appeared meanwhile and overwrite is off, else outputUnwritable). */
        void commit();

    private:
        const juce::File target;
        const bool overwrite;
        juce::File temp;
        bool committed = false;

        JUCE_DECLARE_NON_COPYABLE (PendingFile)
    };

    /** True when both name the same file on disk (symbolic and hard links included). */
    bool isSameFile (const juce::File& a, const juce::File& b);

    /** Writes bytes through a PendingFile. Throws CliError. */
    void writeFileSafely (const juce::File& target, const juce::MemoryBlock& data, bool overwrite);
}
