// SPDX-License-Identifier: GPL-3.0-or-later
// Options and refusals: every parameter reachable, each bad request or input refused with its
// exit status before anything is written, nothing existing overwritten or half-written; then
// presets as the plug-in's own state, the measured response plot, the demo, and the version.

#include "TestSupport.h"
#include "Cli.h"
#include "Demo.h"
#include "Options.h"
#include "Plot.h"
#include "Render.h"

#include <cstring>
#include <sys/stat.h>

namespace cli::test
{
TEST (Options, EveryParameterIsReachable)
{
    const auto known = describeParameters();
    ASSERT_EQ (known.size(), (size_t) ParameterTable::numParameters);

    for (auto& p : known)
    {
        const auto value = p.isSwitch ? 1.0f : (p.minimum + p.maximum) / 2.0f + 0.25f;
        const std::vector<std::pair<juce::String, float>> expected { { p.id, value } };
        const auto own = p.isSwitch ? juce::StringArray { p.optionName(), "in", "out" } : juce::StringArray { p.optionName(), juce::String (value), "in", "out" };
        EXPECT_EQ (parseOptions (own, known).parameterValues, expected) << p.id;
        EXPECT_EQ (parseOptions ({ "--param", p.id + "=" + juce::String (value), "in", "out" }, known).parameterValues, expected) << p.id;
    }
}

TEST (Options, RefusalsExitWithTheirStatusAndTouchNothing)
{
    TempFolder temp;
    writeAudio (temp["in.wav"], noise (2, 1000));
    writeAudio (temp["good.flac"], noise (2, 20000), 48000.0, 24);
    writeAudio (temp["surround.wav"], noise (3, 1000));
    auto input = bytes (temp["in.wav"]), flac = bytes (temp["good.flac"]);
    temp["cut.flac"].replaceWithData (flac.getData(), flac.getSize() * 2 / 3);
    static_cast<char*> (flac.getData())[flac.getSize() / 2] ^= 0x5a;
    temp["flipped.flac"].replaceWithData (flac.getData(), flac.getSize());
    const char comments[] = "FORM\0\0\0\x0e"
                            "AIFFCOMT\0\0\0\x02\xff\xff";
    temp["comments.aiff"].replaceWithData (comments, sizeof (comments) - 1);
    const char garbage[] = "RIFF\0\0\0\0WAVEfmt \x10\0\0\0\x01\0\x02\0\x80\xbb\0\0\0\xee\x02\0\x04\0\x10\0"
                           "\x01l\xfe\x02\xff\xff\xff\x70";
    temp["garbage.wav"].replaceWithData (garbage, sizeof (garbage) - 1);
    temp["text.wav"].replaceWithText ("this is not audio at all, just text pretending to be a WAV file");
    temp["folder.wav"].createDirectory();
    temp["out.wav"].replaceWithText ("keep me");
    ASSERT_TRUE (temp["in.wav"].createSymbolicLink (temp["alias.wav"], false));

    const auto in = temp ("in.wav"), fresh = temp ("new.wav");
    const std::vector<std::tuple<juce::StringArray, ExitCode, std::string>> cases {
        { { in, fresh, "--frobnicate" }, ExitCode::badUsage, "unknown option '--frobnicate'" },
        { { in, fresh, "--tilt" }, ExitCode::badUsage, "--tilt needs a value" },
        { { in, fresh, "--tilt", "1.5" }, ExitCode::badUsage, "outside -1 .. 1" },
        { { in, fresh, "--param", "warmth=1" }, ExitCode::badUsage, "unknown parameter 'warmth'" },
        { { in, fresh, "--bit-depth", "20" }, ExitCode::badUsage, "not 16, 24 or 32" },
        { { in, fresh, "--dither", "shaped" }, ExitCode::badUsage, "not tpdf or none" },
        { { in }, ExitCode::badUsage, "missing OUTPUT" },
        { { in, temp ("new.flac"), "--bit-depth", "32" }, ExitCode::badUsage, "needs a WAV output" },
        { { in, temp ("new.mp3") }, ExitCode::badFormat, "unsupported output format '.mp3'" },
        { { in, temp ("out.wav") }, ExitCode::outputExists, "use -y/--overwrite" },
        { { in, fresh, "--plot", temp ("text.wav") }, ExitCode::outputExists, "use -y/--overwrite" },
        { { in, in, "-y" }, ExitCode::outputUnwritable, "it is the input file" },
        { { in, temp ("alias.wav"), "-y" }, ExitCode::outputUnwritable, "it is the input file" },
        { { in, temp ("text.wav/out.wav") }, ExitCode::outputUnwritable, "does not exist" },
        { { in, fresh, "--preset", temp ("text.wav") }, ExitCode::badFormat, "not a Quenda state block" },
        { { in, fresh, "--preset", temp ("no.state") }, ExitCode::inputUnreadable, "no.state" },
        { { temp ("cut.flac"), fresh }, ExitCode::badFormat, "is truncated" },
        { { temp ("flipped.flac"), fresh }, ExitCode::badFormat, "is damaged" },
        { { temp ("text.wav"), fresh }, ExitCode::badFormat, "not a WAV, AIFF or FLAC file" },
        { { temp ("garbage.wav"), fresh }, ExitCode::badFormat, "damaged header: the chunk at byte 36 claims 1895825407 bytes" },
        { { temp ("comments.aiff"), fresh }, ExitCode::badFormat, "'COMT' chunk lists 65535 entries" },
        { { temp ("surround.wav"), fresh }, ExitCode::badFormat, "has 3 channels" },
        { { temp ("missing.wav"), fresh }, ExitCode::inputUnreadable, "no such file" },
        { { temp ("missing.wav"), temp ("out.wav") }, ExitCode::inputUnreadable, "no such file" },
        { { temp ("text.wav"), temp ("out.wav") }, ExitCode::badFormat, "not a WAV, AIFF or FLAC file" },
        { { temp ("folder.wav"), fresh }, ExitCode::inputUnreadable, "is a folder" },
    };

    const auto files = temp.count();
    for (auto& [args, code, message] : cases)
    {
        const auto result = render (args);
        EXPECT_EQ (result.code, (int) code) << args.joinIntoString (" ");
        EXPECT_NE (result.err.find (message), std::string::npos) << args.joinIntoString (" ") << " said: " << result.err;
        EXPECT_EQ (temp.count(), files) << args.joinIntoString (" ");
    }

    EXPECT_EQ (temp["out.wav"].loadFileAsString(), "keep me");
    EXPECT_EQ (bytes (temp["in.wav"]), input);
    EXPECT_EQ (render ({ in, temp ("out.wav"), "-y", "-q" }).code, 0);
    EXPECT_EQ (readAudio (temp["out.wav"]).audio.getNumSamples(), 1000);

    // XML metadata on which JUCE's parser loops forever is skipped, not parsed.
    auto tagged = bytes (temp["in.wav"]);
    const char ixml[] = "iXML\x1c\0\0\0<BWFXML><?pi?>text </BWFXML>";
    tagged.append (ixml, sizeof (ixml) - 1);
    const auto riffSize = (juce::uint32) tagged.getSize() - 8;
    std::memcpy (static_cast<char*> (tagged.getData()) + 4, &riffSize, 4);
    temp["tagged.wav"].replaceWithData (tagged.getData(), tagged.getSize());
    EXPECT_EQ (render ({ temp ("tagged.wav"), temp ("tagged-out.wav"), "-q" }).code, 0);
}

TEST (Output, LinksAreWrittenThroughAndReadOnlyFilesReplacedOnlyWhenAsked)
{
    TempFolder temp;
    writeAudio (temp["in.wav"], noise (2, 1000));
    temp["real"].createDirectory();
    temp["real/old.wav"].replaceWithText ("old");
    ASSERT_TRUE (temp["real/old.wav"].createSymbolicLink (temp["old.wav"], false));
    ASSERT_TRUE (temp["real/new.wav"].createSymbolicLink (temp["new.wav"], false));   // leads nowhere yet

    // The links stay links; the files they lead to get the audio, without a temporary left over.
    for (auto [name, args] : { std::pair { "old.wav", juce::StringArray { "-y" } }, std::pair { "new.wav", juce::StringArray {} } })
    {
        args.addArray ({ temp ("in.wav"), temp (name), "-q" });
        ASSERT_EQ (render (args).code, 0) << name;
        EXPECT_TRUE (temp[name].isSymbolicLink()) << name;
        EXPECT_EQ (readAudio (temp["real"].getChildFile (name)).audio.getNumSamples(), 1000) << name;
    }
    EXPECT_EQ (temp["real"].getNumberOfChildFiles (juce::File::findFilesAndDirectories), 2);

    // A read-only file is named as such when refused, and replaced only with -y, which says so.
    temp["locked.wav"].replaceWithText ("keep me");
    ASSERT_EQ (::chmod (temp ("locked.wav").toRawUTF8(), 0444), 0);
    auto result = render ({ temp ("in.wav"), temp ("locked.wav") });
    EXPECT_EQ (result.code, (int) ExitCode::outputExists);
    EXPECT_NE (result.err.find ("locked.wav' exists and is read-only; use -y/--overwrite"), std::string::npos) << result.err;
    EXPECT_EQ (temp["locked.wav"].loadFileAsString(), "keep me");

    result = render ({ temp ("in.wav"), temp ("locked.wav"), "-y" });
    EXPECT_EQ (result.code, 0);
    EXPECT_NE (result.err.find ("replaced '" + temp ("locked.wav").toStdString() + "', which was read-only"), std::string::npos) << result.err;
    EXPECT_EQ (readAudio (temp["locked.wav"]).audio.getNumSamples(), 1000);
    struct stat info
    {
    };
    ASSERT_EQ (::stat (temp ("locked.wav").toRawUTF8(), &info), 0);
    EXPECT_EQ (info.st_mode & 0777, 0444u) << "the replacement keeps the file's mode";
}

// JUCE's own check passes overlong forms, which then overflow its string buffers.
TEST (Options, ArgumentsMustBeWellFormedUtf8)
{
    for (const char* good : { "", "--tilt", "caf\xc3\xa9.wav", "\xe2\x82\xac", "\xf0\x9f\x8e\xb5" })
        EXPECT_TRUE (isWellFormedUtf8 (good, std::strlen (good))) << good;

    for (const char* bad : { "--trim\xf0\x85\x96\x91", "\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80",
                             "\xf4\x90\x80\x80", "\xc3", "\x80", "\xff" })
        EXPECT_FALSE (isWellFormedUtf8 (bad, std::strlen (bad))) << bad;
}

TEST (Presets, RoundTripToTheIdenticalRender)
{
    TempFolder temp;
    writeAudio (temp["in.wav"], noise (2, 12000));
    ASSERT_EQ (render ({ temp ("in.wav"), temp ("direct.wav"), "--tilt", "-0.35", "--lin-phase", "--low", "2.5",
                         "--low-freq", "90", "--trim", "-0.5", "--save-preset", temp ("p.state"), "-q" })
                   .code,
               0);
    ASSERT_EQ (render ({ temp ("in.wav"), temp ("preset.wav"), "--preset", temp ("p.state"), "-q" }).code, 0);
    EXPECT_EQ (bytes (temp["direct.wav"]), bytes (temp["preset.wav"]));

    // Options given with a preset override it; the file is a state block a host can load.
    ASSERT_EQ (render ({ "--preset", temp ("p.state"), "--trim", "1", "--save-preset", temp ("q.state"), "-q" }).code, 0);
    const auto saved = bytes (temp["q.state"]);
    QuendaAudioProcessor processor;
    processor.setStateInformation (saved.getData(), (int) saved.getSize());
    EXPECT_FLOAT_EQ (processor.getParameterValues()[ParameterTable::lowFreqIndex], 90.0f);
    EXPECT_FLOAT_EQ (processor.getParameterValues()[ParameterTable::trimIndex], 1.0f);
}

TEST (Plot, FollowsTheSettings)
{
    TempFolder temp;
    ASSERT_EQ (render ({ "--tilt", "-1", "--plot", temp ("r.png"), "-q" }).code, 0);
    EXPECT_TRUE (juce::ImageFileFormat::loadFrom (temp["r.png"]).isValid());

    // 11 points from 20 Hz to 20 kHz, 0.3 decades apart: [4] is 317 Hz, [6] 1262 Hz, [8] 5024 Hz.
    const auto levels = [] (juce::StringArray args)
    {
        QuendaAudioProcessor processor;
        args.addArray ({ "in", "out" });
        applySettings (processor, parseOptions (args, describeParameters()));
        return measureResponse (processor, 48000.0, 11).magnitudesDb;
    };

    // Falling about 1 dB per octave about the pivot in either phase mode; trim and shelf shift it.
    for (auto* phase : { "--lin-phase=off", "--lin-phase=on" })
    {
        const auto tilted = levels ({ "--tilt", "1", phase });
        EXPECT_NEAR (tilted[4] - tilted[8], 4.0, 0.4) << phase;
        EXPECT_NEAR (tilted[6], 0.0, 0.3) << phase;
    }
    for (auto level : levels ({ "--trim", "-3" }))
        EXPECT_NEAR (level, -3.0, 0.05);
    EXPECT_NEAR (levels ({ "--low", "6", "--low-freq", "100" })[0], 6.0, 1.0);
}

TEST (Demo, WritesTheDemoFolder)
{
    TempFolder temp;
    const auto folder = temp ("demo");
    ASSERT_EQ (render ({ "--demo", folder, "-q" }).code, 0);
    EXPECT_EQ (temp["demo"].getNumberOfChildFiles (juce::File::findFiles), 3);

    // Clearly audible: several dB more air against the bass.
    const auto before = octaveBandLevels (readAudio (temp["demo"].getChildFile ("demo-original.wav")).audio, 48000.0);
    const auto after = octaveBandLevels (readAudio (temp["demo"].getChildFile ("demo-processed.wav")).audio, 48000.0);
    EXPECT_GT ((after.back().levelDb - before.back().levelDb) - (after[1].levelDb - before[1].levelDb), 6.0);

    EXPECT_EQ (render ({ "--demo", folder }).code, (int) ExitCode::outputExists);
    EXPECT_EQ (render ({ "--demo", folder, "-y", "-q" }).code, 0);
}

TEST (Version, RendererPluginAndChangelogAgree)
{
    std::ostringstream out, err;
    EXPECT_EQ (runCommandLine ({ "--version", "in.wav", "out.wav" }, out, err), 0);
    const juce::String text (out.str());
    EXPECT_TRUE (text.startsWith ("quenda-render " JucePlugin_VersionString)) << text;
    EXPECT_EQ (text.indexOfChar ('\n'), text.length() - 1) << text;
    EXPECT_TRUE (err.str().empty());

    // The newest entry comes first and names the version being built.
    const auto changelog = juce::File (QUENDA_CHANGELOG_PATH).loadFileAsString();
    const auto newest = changelog.fromFirstOccurrenceOf ("\n## ", false, false).upToFirstOccurrenceOf ("\n", false, false);
    EXPECT_TRUE (newest.startsWith ("[" JucePlugin_VersionString "]")) << newest;
}
}
