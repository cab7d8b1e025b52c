// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_core/juce_core.h>

namespace cli
{
/** A file written under a temporary name in the target's folder and renamed into place
        by commit(); if commit() is never reached, or the process is interrupted, the
        temporary file is removed and the target is left as it was. A target that is a
        symbolic link is written through it: the file it leads to is replaced, the link stays.

        The temporary name carries the process ID (".name.wav.PID.XXXXXX"), so that one left
        by a killed render is recognised and removed by the next render of the same file. */
class PendingFile
{
public:
    /** Throws CliError: outputExists without overwrite, outputUnwritable when the
            folder is missing or read-only. */
    PendingFile (const juce::File& target, bool overwrite);
    ~PendingFile();

    const juce::File& temporary() const { return temp; }
    const juce::File& destination() const { return target; }

    /** Flushes to disk and renames; throws CliError (outputExists if the target
            appeared meanwhile and overwrite is off, else outputUnwritable). */
    void commit();

    /** What the user should hear about: stale temporary files removed, a read-only
            file replaced. */
    const juce::StringArray& notices() const { return notes; }

private:
    const juce::File target, resolved;   // as given; with its symbolic links followed
    const bool overwrite;
    juce::File temp;
    bool committed = false, replacesReadOnly = false;
    juce::StringArray notes;

    JUCE_DECLARE_NON_COPYABLE (PendingFile)
};

/** The file a path leads to once its symbolic links are followed (even to a file that
        does not exist yet). Throws CliError (outputUnwritable) on a loop of links. */
juce::File followLinks (const juce::File& file);

/** Throws CliError (outputExists) if the file exists and overwrite is off. */
void refuseToReplace (const juce::File& file, bool overwrite);

/** True when both name the same file on disk (symbolic and hard links included). */
bool isSameFile (const juce::File& a, const juce::File& b);

/** Writes bytes through a PendingFile; returns its notices. Throws CliError. */
juce::StringArray writeFileSafely (const juce::File& target, const juce::MemoryBlock& data, bool overwrite);
}
