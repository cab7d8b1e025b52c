// SPDX-License-Identifier: GPL-3.0-or-later
// Command lines, one argument per line of the input. Whatever parses must hold only values
// the renderer can use; everything else must be a bad-usage error, never a crash.

#include "Cli.h"
#include "CliError.h"
#include "Options.h"
#include "plugin/PluginProcessor.h"

#include <juce_events/juce_events.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace
{
const std::vector<cli::ParameterInfo>& parameters()
{
    static juce::ScopedJuceInitialiser_GUI juceInitialiser;
    static const auto described = cli::describeParameters();
    return described;
}

void check (bool condition)
{
    if (! condition)
        std::abort();
}
}

extern "C" int LLVMFuzzerTestOneInput (const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput (const uint8_t* data, size_t size)
{
    const auto& known = parameters();
    const auto* bytes = reinterpret_cast<const char*> (data);

    // main() refuses arguments that are not UTF-8 before they reach the parser.
    if (std::memchr (bytes, 0, size) != nullptr || ! cli::isWellFormedUtf8 (bytes, size))
        return 0;

    const auto text = juce::String::fromUTF8 (bytes, (int) size);
    juce::StringArray args;
    args.addTokens (text, "\n", {});

    for (const auto& arg : args)
        if (const auto number = cli::parseNumber (arg))
            check (std::isfinite (*number));

    try
    {
        const auto options = cli::parseOptions (args, known);

        check (options.blockSize >= 1 && options.blockSize <= 65536);
        check (options.bitDepth == 0 || options.bitDepth == 16 || options.bitDepth == 24 || options.bitDepth == 32);

        for (const auto& setting : options.parameterValues)
        {
            const auto value = setting.second;
            const auto parameter = std::find_if (known.begin(), known.end(), [&] (auto& p)
                                                 { return p.id == setting.first; });
            check (parameter != known.end());
            check (std::isfinite (value));

            if (parameter->isSwitch)
                check (value == 0.0f || value == 1.0f);
            else
                check (value >= parameter->minimum && value <= parameter->maximum);
        }
    }
    catch (const cli::CliError& error)
    {
        check (error.code == cli::ExitCode::badUsage);
    }

    return 0;
}
