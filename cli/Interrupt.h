// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_core/juce_core.h>

/** Removes half-written files when the renderer is interrupted.

    A file registered here is deleted from the signal handler on SIGINT, SIGTERM or SIGHUP,
    before the signal is raised again with its default action (so the exit status is the
    shell's 128 + signal number: 130, 143, 129). SIGXFSZ is ignored, so that a file size
    limit becomes a write error.
*/
namespace cli::interrupt
{
void installHandlers();

/** False when all slots are taken or the path is too long; the caller still deletes
        the file itself on normal exits. */
bool track (const juce::File& file);
void untrack (const juce::File& file);
}
