// SPDX-License-Identifier: GPL-3.0-or-later
// Presets as the plug-in's own state, the measured response plot, and the demo.

#include "TestSupport.h"
#include "Demo.h"
#include "Plot.h"
#include "Render.h"

namespace quenda::cli::test
{
TEST (Presets, SavedPresetLoadsBackToTheIdenticalRenderAndIntoTheProcessor)
{
    TempFolder temp;
    writeAudio (temp["in.wav"], noise (2, 12000));
    ASSERT_EQ (render ({ temp ("in.wav"), temp ("direct.wav"), "--tilt", "-0.35", "--lin-phase", "--low", "2.5",
                         "--low-freq", "90", "--trim", "-0.5", "--save-preset", temp ("p.state"), "-q" }).code, 0);
    ASSERT_EQ (render ({ temp ("in.wav"), temp ("preset.wav"), "--preset", temp ("p.state"), "-q" }).code, 0);
    EXPECT_EQ (bytes (temp["direct.wav"]), bytes (temp["preset.wav"]));

    // Options given with a preset override it; the file is a state block a host can load.
    ASSERT_EQ (render ({ "--preset", temp ("p.state"), "--trim", "1", "--save-preset", temp ("q.state"), "-q" }).code, 0);
    const auto saved = bytes (temp["q.state"]);
    QuendaAudioProcessor processor;
    processor.setStateInformation (saved.getData(), (int) saved.getSize());
    EXPECT_FLOAT_EQ (processor.getParameterValues()[QuendaAudioProcessor::lowFreqIndex], 90.0f);
    EXPECT_FLOAT_EQ (processor.getParameterValues()[QuendaAudioProcessor::trimIndex], 1.0f);
}

TEST (Plot, WrittenAndFollowsTheSettingsInBothPhaseModes)
{
    TempFolder temp;
    ASSERT_EQ (render ({ "--tilt", "-1", "--plot", temp ("r.png"), "-q" }).code, 0);
    EXPECT_TRUE (juce::ImageFileFormat::loadFrom (temp["r.png"]).isValid());

    // 11 points from 20 Hz to 20 kHz, 0.3 decades apart: [4] is 317 Hz, [6] 1262 Hz, [8] 5024 Hz.
    const auto levels = [] (juce::StringArray args)
    {
        QuendaAudioProcessor processor;
        args.addArray ({ "in", "out" });
        applySettings (processor, parseOptions (args, describeParameters (processor)));
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

TEST (Demo, WritesItsFilesShowsTheTiltAndRefusesToOverwrite)
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
}
