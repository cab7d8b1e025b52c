// SPDX-License-Identifier: GPL-3.0-or-later
// quenda-render: runs audio files through the same processor the plug-in uses.

#include "Cli.h"
#include "CliError.h"
#include "Interrupt.h"

#include <juce_events/juce_events.h>

#include <cstring>
#include <iostream>

int main (int argc, char* argv[])
{
    // The processor posts its kernel design to the message thread; this makes main it.
    juce::ScopedJuceInitialiser_GUI juceInitialiser;
    cli::interrupt::installHandlers();

    // JUCE's string functions assume well-formed UTF-8 and run past the end of anything else.
    for (int i = 1; i < argc; ++i)
    {
        if (! cli::isWellFormedUtf8 (argv[i], std::strlen (argv[i])))
        {
            std::cerr << "quenda-render: argument " << i << " is not valid UTF-8; rename the file or use a UTF-8 locale\n";
            return (int) cli::ExitCode::badUsage;
        }
    }

    return cli::runCommandLine (juce::StringArray (argv + 1, argc - 1), std::cout, std::cerr);
}
