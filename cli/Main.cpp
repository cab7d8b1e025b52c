// SPDX-License-Identifier: GPL-3.0-or-later
// quenda-render: runs audio files through the same processor the plug-in uses.

#include "Cli.h"
#include "Interrupt.h"

#include <juce_events/juce_events.h>

#include <iostream>

int main (int argc, char* argv[])
{
    // The processor posts its kernel design to the message thread; this makes main it.
    juce::ScopedJuceInitialiser_GUI juceInitialiser;
    quenda::cli::interrupt::installHandlers();

    return quenda::cli::runCommandLine (juce::StringArray (argv + 1, argc - 1), std::cout, std::cerr);
}
