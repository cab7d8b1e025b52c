// SPDX-License-Identifier: GPL-3.0-or-later
// What users bring from sox and ffmpeg: batches into a folder, pipes through standard input
// and output, bundled short options and "9k" frequencies, a word when a corner cannot be
// honoured, and the analysis and loudness match of a render.

#include "TestSupport.h"
#include "Loudness.h"
#include "Options.h"
#include "Plot.h"
#include "Render.h"

#include <cstdlib>

namespace cli::test
{
namespace
{
    struct Output
    {
        int code;
        std::string out, err;
    };

    Output renderWithOutput (const juce::StringArray& args)
    {
        std::ostringstream out, err;
        const auto code = runCommandLine (args, out, err);
        return { code, out.str(), err.str() };
    }

    double integratedLoudness (const juce::File& file)
    {
        const auto loaded = readAudio (file);
        LoudnessMeter meter (loaded.audio.getNumChannels(), loaded.sampleRate);
        meter.add (loaded.audio, 0, loaded.audio.getNumSamples());
        return meter.integrated();
    }
}

TEST (Batch, EveryInputIntoTheFolderAsItsOwnRenderWhileFailuresAreReported)
{
    TempFolder temp;
    writeAudio (temp["a.wav"], noise (2, 30000), 48000.0, 16);
    writeAudio (temp["b.flac"], noise (1, 20000), 44100.0, 24);
    writeAudio (temp["c.wav"], noise (2, 10000, 5000), 48000.0, 32);
    const juce::StringArray settings { "--tilt", "0.5", "--high", "2", "-q" };

    juce::StringArray args { temp ("a.wav"), temp ("b.flac"), temp ("missing.wav"), temp ("c.wav"),
                             "-o", temp ("out"), "--suffix", "-warm", "--format", "flac", "-j", "2" };
    args.addArray (settings);
    const auto batch = render (args);

    // The missing file fails and says so; the others are still written, nothing else is left.
    EXPECT_EQ (batch.code, (int) ExitCode::inputUnreadable);
    EXPECT_NE (batch.err.find ("missing.wav"), std::string::npos) << batch.err;
    EXPECT_NE (batch.err.find ("FAILED"), std::string::npos) << batch.err;
    EXPECT_EQ (temp["out"].getNumberOfChildFiles (juce::File::findFilesAndDirectories, "*"), 3);

    // Each file is exactly what a render of it alone gives.
    for (auto* name : { "a", "b", "c" })
    {
        const auto input = temp[name].withFileExtension (juce::String (name) == "b" ? "flac" : "wav");
        juce::StringArray single { input.getFullPathName(), temp (juce::String (name) + "-single.flac") };
        single.addArray (settings);
        ASSERT_EQ (render (single).code, 0) << name;
        EXPECT_EQ (bytes (temp["out"].getChildFile (juce::String (name) + "-warm.flac")), bytes (temp[juce::String (name) + "-single.flac"])) << name;
    }

    // Again without -y: every file exists, each is refused and left as it was.
    const auto before = bytes (temp["out"].getChildFile ("a-warm.flac"));
    args.removeString (temp ("missing.wav"));
    EXPECT_EQ (render (args).code, (int) ExitCode::outputExists);
    EXPECT_EQ (bytes (temp["out"].getChildFile ("a-warm.flac")), before);

    // An existing folder as the output of one input; default names keep the input's extension.
    temp["one"].createDirectory();
    EXPECT_EQ (render ({ temp ("a.wav"), temp ("one"), "-q" }).code, 0);
    EXPECT_EQ (readAudio (temp["one"].getChildFile ("a.wav")).audio.getNumSamples(), 30000);

    // Results that would overwrite an input or each other are refused before any work.
    temp["sub"].createDirectory();
    writeAudio (temp["sub"].getChildFile ("a.wav"), noise (2, 1000));
    const auto files = temp.count();
    EXPECT_EQ (render ({ temp ("a.wav"), temp ("sub/a.wav"), "--output-dir", temp ("twice") }).code, (int) ExitCode::badUsage);
    EXPECT_EQ (render ({ temp ("a.wav"), temp ("c.wav"), "-o", temp ("."), "-y" }).code, (int) ExitCode::outputUnwritable);
    EXPECT_EQ (render ({ temp ("a.wav"), temp ("c.wav"), "-o", temp ("mix.wav") }).code, (int) ExitCode::badUsage);
    EXPECT_EQ (temp.count(), files);
}

// Through the real program and sox, as users pipe it.
TEST (Pipes, StandardInputAndOutputCarryTheSameAudioAsFiles)
{
    if (std::system ("command -v sox > /dev/null") != 0)
        GTEST_SKIP() << "sox is not installed (scripts/setup.sh installs it)";

    TempFolder temp;
    writeAudio (temp["in.wav"], noise (2, 40000), 44100.0, 16);
    const juce::String program (QUENDA_RENDER_PATH), in = temp ("in.wav").quoted();
    const auto shell = [] (const juce::String& command)
    {
        return std::system (("bash -c " + ("set -o pipefail; " + command).quoted ('\'')).toRawUTF8());
    };

    ASSERT_EQ (render ({ temp ("in.wav"), temp ("direct.flac"), "--tilt", "0.3", "-q" }).code, 0);
    ASSERT_EQ (render ({ temp ("in.wav"), temp ("direct.wav"), "--tilt", "0.3", "-q" }).code, 0);

    // Through raw audio sox cannot know the length, so its WAV header claims 2 GB and its FLAC
    // stream 0 samples: the length is what arrived.
    const auto stream = "sox -q " + in + " -t raw - | sox -q -t raw -r 44100 -c 2 -b 16 -e signed-integer - -t ";

    for (auto* type : { "wav", "flac" })
    {
        const auto out = temp (juce::String ("from-") + type + ".flac");
        ASSERT_EQ (shell (stream + type + " - | " + program + " --tilt 0.3 -q - " + out.quoted()), 0) << type;
        EXPECT_EQ (bytes (juce::File (out)), bytes (temp["direct.flac"])) << type;
    }

    // To standard output: a WAV stream sox reads, with the same samples; nothing is left behind.
    ASSERT_EQ (shell (program + " --tilt 0.3 " + in + " - 2> " + temp ("err.txt").quoted() + " | sox -q -t wav - " + temp ("back.wav").quoted()), 0);
    const auto back = readAudio (temp["back.wav"]).audio, direct = readAudio (temp["direct.wav"]).audio;
    ASSERT_EQ (back.getNumSamples(), direct.getNumSamples());
    for (int c = 0; c < 2; ++c)
        for (int i = 0; i < back.getNumSamples(); ++i)
            ASSERT_EQ (back.getSample (c, i), direct.getSample (c, i)) << c << ", " << i;
    EXPECT_TRUE (temp["err.txt"].loadFileAsString().contains ("wrote standard output"));

    // Errors name standard input, not the temporary copy.
    ASSERT_EQ (shell ("echo not-audio | " + program + " - " + temp ("x.wav").quoted() + " 2> " + temp ("err.txt").quoted()),
               (int) ExitCode::badFormat << 8);
    EXPECT_TRUE (temp["err.txt"].loadFileAsString().contains ("standard input: not a WAV")) << temp["err.txt"].loadFileAsString();
}

// On a terminal (script(1) gives one): one line for a whole batch, and no bar at all while the
// audio itself goes to standard output.
TEST (Progress, OneLineForABatchAndNoneBesideAudioOnStandardOutput)
{
    TempFolder temp;
    const auto length = 96000;
    writeAudio (temp["a.wav"], noise (2, length));
    writeAudio (temp["b.wav"], noise (2, length));
    const juce::String slow = juce::String (QUENDA_RENDER_PATH) + " --lin-phase --tilt 0.5 --block-size 16 ";
    const auto onTerminal = [&] (const juce::String& command)
    {
        const auto transcript = temp ("transcript.txt");
        EXPECT_EQ (std::system (("script -qec " + command.quoted ('\'') + " " + transcript.quoted() + " > /dev/null").toRawUTF8()), 0);
        return juce::File (transcript).loadFileAsString();
    };

    const auto batch = onTerminal (slow + temp ("a.wav").quoted() + " " + temp ("b.wav").quoted() + " -j 2 -o " + temp ("out").quoted());
    EXPECT_TRUE (batch.contains ("of 2 files")) << batch;
    EXPECT_FALSE (batch.contains ("x real time")) << batch;

    const auto piped = onTerminal (slow + temp ("a.wav").quoted() + " - > " + temp ("piped.wav").quoted());
    EXPECT_FALSE (piped.contains ("[#")) << piped;
    EXPECT_EQ (readAudio (temp["piped.wav"]).audio.getNumSamples(), length);
}

TEST (Options, ShortOptionsBundleAndFrequenciesTakeKilohertz)
{
    const auto known = describeParameters();

    const auto bundled = parseOptions ({ "-qy", "-j3", "in", "-o", "folder", "more" }, known);
    EXPECT_TRUE (bundled.quiet && bundled.overwrite);
    EXPECT_EQ (bundled.jobs, 3);
    EXPECT_EQ (bundled.batchInputs, juce::StringArray ({ "in", "more" }));

    const auto frequencies = parseOptions ({ "--low-freq", "0.12k", "--high-freq=9 kHz", "in", "out" }, known);
    const std::vector<std::pair<juce::String, float>> expected { { "low_freq", 120.0f }, { "high_freq", 9000.0f } };
    EXPECT_EQ (frequencies.parameterValues, expected);

    for (auto& [args, message] : std::vector<std::pair<juce::StringArray, juce::String>> {
             { { "-qz", "in", "out" }, "unknown option '-z'" },
             { { "--trim", "1k", "in", "out" }, "not a number" },
             { { "--high-freq", "90k", "in", "out" }, "outside" },
             { { "in", "out", "--suffix", "-x" }, "--suffix" } })
    {
        const auto result = render (args);
        EXPECT_EQ (result.code, (int) ExitCode::badUsage) << args.joinIntoString (" ");
        EXPECT_NE (result.err.find (message.toStdString()), std::string::npos) << result.err;
    }
}

TEST (Messages, TiltBetweenTheEndsIsABlendAndLimitedCornersAreNamed)
{
    const auto describe = [] (float tilt)
    {
        QuendaAudioProcessor processor;
        Options options;
        options.parameterValues = { { "tilt", tilt } };
        applySettings (processor, options);
        return describeSettings (processor);
    };

    EXPECT_TRUE (describe (0.3f).contains ("30 % falling 1 dB/oct blended with 70 % dry")) << describe (0.3f);
    EXPECT_FALSE (describe (0.3f).contains ("0.30 dB/oct"));
    EXPECT_TRUE (describe (-1.0f).contains ("rising 1 dB/oct)")) << describe (-1.0f);

    // A 9 kHz shelf cannot exist in 16 kHz audio; an unused corner is no reason to warn.
    TempFolder temp;
    writeAudio (temp["low-rate.wav"], noise (1, 8000), 16000.0);
    const auto limited = render ({ temp ("low-rate.wav"), temp ("a.wav"), "--high", "2", "--high-freq", "9k" });
    EXPECT_NE (limited.err.find ("--high-freq 9000 Hz is above"), std::string::npos) << limited.err;
    EXPECT_NE (limited.err.find ("7840 Hz"), std::string::npos) << limited.err;
    EXPECT_EQ (render ({ temp ("low-rate.wav"), temp ("b.wav"), "--low", "2" }).err.find ("warning"), std::string::npos);
}

TEST (Analysis, BandChangesOfTheUsersFileAndAMatchedLoudness)
{
    TempFolder temp;
    writeAudio (temp["in.wav"], noise (2, 96000));

    const auto analysed = renderWithOutput ({ temp ("in.wav"), temp ("a.wav"), "--analyze", "--high", "3", "--high-freq", "3000", "-q" });
    ASSERT_EQ (analysed.code, 0) << analysed.err;
    const auto lines = juce::StringArray::fromLines (analysed.out);
    const auto changeAt = [&] (const juce::String& band)
    {
        for (auto& line : lines)
            if (line.trimStart().startsWith (band + " "))
            {
                auto columns = juce::StringArray::fromTokens (line, true);
                columns.removeEmptyStrings();
                return columns[6].trimCharactersAtStart ("+").getDoubleValue();
            }
        ADD_FAILURE() << "no row for " << band << " in:\n"
                      << analysed.out;
        return 0.0;
    };
    EXPECT_NEAR (changeAt ("16 kHz"), 3.0, 0.3);
    EXPECT_NEAR (changeAt ("63 Hz"), 0.0, 0.1);

    // Brighter and louder by itself; matched, the output measures as loud as the input.
    const juce::StringArray settings { "--tilt", "-1", "--high", "3", "--low", "4", "-q" };
    auto plain = settings, matched = settings;
    plain.addArray ({ temp ("in.wav"), temp ("plain.wav") });
    matched.addArray ({ temp ("in.wav"), temp ("matched.wav"), "--match-loudness" });
    ASSERT_EQ (render (plain).code, 0);
    ASSERT_EQ (render (matched).code, 0);

    const auto input = integratedLoudness (temp["in.wav"]);
    EXPECT_GT (integratedLoudness (temp["plain.wav"]) - input, 1.0);
    EXPECT_NEAR (integratedLoudness (temp["matched.wav"]), input, 0.05);
}
}
