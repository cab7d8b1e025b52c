// SPDX-License-Identifier: GPL-3.0-or-later
// Option parsing: every parameter reachable, bad values refused with exit status 2.

#include "TestSupport.h"
#include "CliError.h"
#include "Options.h"
#include "processor/PluginProcessor.h"

namespace quenda::cli::test
{
namespace
{
    std::vector<ParameterInfo> parameters()
    {
        QuendaAudioProcessor processor;
        return describeParameters (processor);
    }

    float valueOf (const Options& options, const juce::String& id)
    {
        for (auto& [name, value] : options.parameterValues)
            if (name == id)
                return value;

        ADD_FAILURE() << "no value for " << id;
        return -1234.0f;
    }
}

TEST (Options, EveryParameterIsAnOptionAndAParam)
{
    const auto known = parameters();
    ASSERT_EQ (known.size(), (size_t) QuendaAudioProcessor::numParameters);

    for (auto& parameter : known)
    {
        const auto value = parameter.isSwitch ? 1.0f : (parameter.minimum + parameter.maximum) / 2.0f + 0.25f;
        const auto text = juce::String (value);

        const auto direct = parameter.isSwitch ? parseOptions ({ parameter.optionName(), "-o", "x", "-i", "y" }, known)
                                               : parseOptions ({ parameter.optionName(), text, "in", "out" }, known);
        EXPECT_EQ (valueOf (direct, parameter.id), value) << parameter.id;

        const auto general = parseOptions ({ "--param", parameter.id + "=" + text, "in", "out" }, known);
        EXPECT_EQ (valueOf (general, parameter.id), value) << parameter.id;
    }
}

TEST (Options, AcceptsTheUsualSpellings)
{
    const auto known = parameters();
    const auto options = parseOptions ({ "--tilt", "-0.5", "--low-freq=120", "--no-lin-phase", "--bypass=off",
                                         "--param", "high_freq=8000", "-y", "--bit-depth", "16", "--block-size", "64",
                                         "--no-latency-compensation", "--", "-input.wav", "out.flac" }, known);

    EXPECT_EQ (valueOf (options, "tilt"), -0.5f);
    EXPECT_EQ (valueOf (options, "low_freq"), 120.0f);
    EXPECT_EQ (valueOf (options, "lin_phase"), 0.0f);
    EXPECT_EQ (valueOf (options, "bypass"), 0.0f);
    EXPECT_EQ (valueOf (options, "high_freq"), 8000.0f);
    EXPECT_TRUE (options.overwrite);
    EXPECT_EQ (options.bitDepth, 16);
    EXPECT_EQ (options.blockSize, 64);
    EXPECT_FALSE (options.latencyCompensation);
    EXPECT_EQ (options.input, "-input.wav");
    EXPECT_EQ (options.output, "out.flac");
}

TEST (Options, BadValuesExitWithStatusTwoAndSayWhy)
{
    TempFolder temp;
    writeAudio (temp["in.wav"], noise (2, 1000));
    const auto in = temp["in.wav"].getFullPathName();
    const auto out = temp["out.wav"].getFullPathName();

    const std::vector<std::pair<juce::StringArray, std::string>> cases {
        { { in, out, "--frobnicate" },              "unknown option '--frobnicate'" },
        { { in, out, "--tilt" },                    "--tilt needs a value" },
        { { in, out, "--tilt", "steep" },           "'steep' is not a number" },
        { { in, out, "--tilt", "0.5dB" },           "'0.5dB' is not a number" },
        { { in, out, "--tilt", "nan" },             "'nan' is not a number" },
        { { in, out, "--tilt", "1.5" },             "outside -1 .. 1" },
        { { in, out, "--low-freq", "10" },          "outside 20 .. 300 Hz" },
        { { in, out, "--lin-phase=maybe" },         "not on/off" },
        { { in, out, "--param", "warmth=1" },       "unknown parameter 'warmth'" },
        { { in, out, "--param", "tilt" },           "is not ID=VALUE" },
        { { in, out, "--bit-depth", "20" },         "not 16, 24 or 32" },
        { { in, out, "--block-size", "0" },         "not a whole number from 1 to 65536" },
        { { in, out, "--block-size", "2.5" },       "not a whole number" },
        { { in, out, "--quiet=yes" },               "--quiet takes no value" },
        { { in, out, "extra.wav" },                 "too many file names" },
        { { in },                                   "missing OUTPUT" },
        { { "-o", out },                            "missing INPUT" },
        { {},                                       "nothing to do" },
        { { "--json" },                             "--json goes with --list-params" },
        { { in, out, "--bit-depth", "32", "-o" },   "-o needs a value" },
    };

    for (auto& [args, message] : cases)
    {
        const auto result = render (args);
        EXPECT_EQ (result.code, (int) ExitCode::badUsage) << args.joinIntoString (" ");
        EXPECT_NE (result.err.find (message), std::string::npos) << args.joinIntoString (" ") << " said: " << result.err;
        EXPECT_EQ (std::count (result.err.begin(), result.err.end(), '\n'), 2) << "one line and a hint: " << result.err;
    }

    EXPECT_FALSE (temp["out.wav"].exists());
}

TEST (Options, FloatOutputNeedsWav)
{
    TempFolder temp;
    writeAudio (temp["in.wav"], noise (2, 1000));

    const auto flac = render ({ temp["in.wav"].getFullPathName(), temp["out.flac"].getFullPathName(), "--bit-depth", "32" });
    EXPECT_EQ (flac.code, (int) ExitCode::badUsage);
    EXPECT_NE (flac.err.find ("needs a WAV output"), std::string::npos);

    const auto mp3 = render ({ temp["in.wav"].getFullPathName(), temp["out.mp3"].getFullPathName() });
    EXPECT_EQ (mp3.code, (int) ExitCode::badFormat);
    EXPECT_NE (mp3.err.find ("unsupported output format '.mp3'"), std::string::npos);

    EXPECT_EQ (temp.names(), juce::StringArray ({ "in.wav" }));
}

TEST (Options, ListParamsAsTableAndJson)
{
    const auto table = render ({ "--list-params" });
    ASSERT_EQ (table.code, 0);
    EXPECT_NE (table.out.find ("low_freq   --low-freq"), std::string::npos) << table.out;
    EXPECT_NE (table.out.find ("3000 .. 15000 Hz"), std::string::npos);

    const auto json = render ({ "--list-params", "--json" });
    ASSERT_EQ (json.code, 0);
    const auto parsed = juce::JSON::parse (juce::String (json.out));
    ASSERT_TRUE (parsed.isArray());
    ASSERT_EQ (parsed.size(), (int) QuendaAudioProcessor::numParameters);

    EXPECT_EQ (parsed[6]["id"].toString(), "low_freq");
    EXPECT_EQ ((double) parsed[6]["default"], 150.0);
    EXPECT_EQ ((double) parsed[6]["min"], 20.0);
    EXPECT_EQ (parsed[2]["type"].toString(), "switch");
}

TEST (Options, HelpDocumentsTheExitStatuses)
{
    const auto help = render ({ "--help" });
    ASSERT_EQ (help.code, 0);

    for (auto code : { ExitCode::badUsage, ExitCode::inputUnreadable, ExitCode::badFormat,
                       ExitCode::outputUnwritable, ExitCode::outputExists, ExitCode::interrupted })
        EXPECT_NE (help.out.find ("\n  " + std::to_string ((int) code) + " "), std::string::npos) << (int) code;
}
}
