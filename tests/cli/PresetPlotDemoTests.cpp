// SPDX-License-Identifier: GPL-3.0-or-later
// Presets as the plug-in's own state, the measured response plot, and the demo.

#include "TestSupport.h"
#include "CliError.h"
#include "Demo.h"
#include "Plot.h"
#include "Render.h"

namespace quenda::cli::test
{
TEST (Presets, SavedPresetReproducesTheRenderExactly)
{
    TempFolder temp;
    writeAudio (temp["in.wav"], noise (2, 12000));
    const auto in = temp["in.wav"].getFullPathName();

    const juce::StringArray settings { "--tilt", "-0.35", "--lin-phase", "--low", "2.5", "--low-freq", "90",
                                       "--high", "-1.25", "--high-freq", "6000", "--trim", "-0.5", "-q" };

    auto direct = settings;
    direct.addArray ({ in, temp["direct.wav"].getFullPathName(), "--save-preset", temp["p.state"].getFullPathName() });
    ASSERT_EQ (render (direct).code, 0);

    const auto viaPreset = render ({ in, temp["preset.wav"].getFullPathName(), "--preset", temp["p.state"].getFullPathName(), "-q" });
    ASSERT_EQ (viaPreset.code, 0) << viaPreset.err;

    juce::MemoryBlock a, b;
    temp["direct.wav"].loadFileAsData (a);
    temp["preset.wav"].loadFileAsData (b);
    EXPECT_EQ (a, b);

    // The file is the processor's own state block, so a host can load it and vice versa.
    juce::MemoryBlock saved;
    temp["p.state"].loadFileAsData (saved);
    QuendaAudioProcessor processor;
    processor.setStateInformation (saved.getData(), (int) saved.getSize());
    EXPECT_FLOAT_EQ (processor.getParameterValues()[QuendaAudioProcessor::lowFreqIndex], 90.0f);
    EXPECT_FLOAT_EQ (processor.getParameterValues()[QuendaAudioProcessor::tiltIndex], -0.35f);
    juce::MemoryBlock again;
    processor.getStateInformation (again);
    EXPECT_EQ (again, saved);
}

TEST (Presets, OptionsOverrideThePresetAndBadPresetsAreRefused)
{
    TempFolder temp;
    ASSERT_EQ (render ({ "--tilt", "0.5", "--trim", "-2", "--save-preset", temp["p.state"].getFullPathName(), "-q" }).code, 0);
    ASSERT_EQ (render ({ "--preset", temp["p.state"].getFullPathName(), "--trim", "1",
                         "--save-preset", temp["q.state"].getFullPathName(), "-q" }).code, 0);

    juce::MemoryBlock data;
    temp["q.state"].loadFileAsData (data);
    QuendaAudioProcessor processor;
    processor.setStateInformation (data.getData(), (int) data.getSize());
    EXPECT_EQ (processor.getParameterValues()[QuendaAudioProcessor::tiltIndex], 0.5f);
    EXPECT_EQ (processor.getParameterValues()[QuendaAudioProcessor::trimIndex], 1.0f);

    temp["junk.state"].replaceWithText ("<Params tilt=\"1\"/>");
    const auto junk = render ({ "--preset", temp["junk.state"].getFullPathName(), "--plot", temp["x.png"].getFullPathName() });
    EXPECT_EQ (junk.code, (int) ExitCode::badFormat);
    EXPECT_NE (junk.err.find ("not a Quenda state block"), std::string::npos);

    const auto missing = render ({ "--preset", temp["none.state"].getFullPathName(), "--plot", temp["x.png"].getFullPathName() });
    EXPECT_EQ (missing.code, (int) ExitCode::inputUnreadable);
    EXPECT_FALSE (temp["x.png"].exists());
}

namespace
{
    ResponseCurve measure (std::initializer_list<std::pair<int, float>> values)
    {
        QuendaAudioProcessor processor;
        for (auto [index, value] : values)
        {
            if (auto* plain = dynamic_cast<PlainFloatParameter*> (processor.getParameters()[index]))
                plain->setPlainValueNotifyingHost (value);
            else
                processor.getParameters()[index]->setValueNotifyingHost (value);
        }
        return measureResponse (processor, 48000.0, 241);
    }

    double at (const ResponseCurve& curve, double frequency)
    {
        const auto nearest = std::min_element (curve.frequencies.begin(), curve.frequencies.end(),
                                               [&] (double a, double b) { return std::abs (std::log (a / frequency)) < std::abs (std::log (b / frequency)); });
        return curve.magnitudesDb[(size_t) (nearest - curve.frequencies.begin())];
    }
}

TEST (Plot, MeasuredResponseFollowsTheSettingsInBothPhaseModes)
{
    const auto minimum = measure ({ { QuendaAudioProcessor::tiltIndex, 1.0f } });
    const auto linear = measure ({ { QuendaAudioProcessor::tiltIndex, 1.0f }, { QuendaAudioProcessor::linPhaseIndex, 1.0f } });

    ASSERT_EQ (minimum.frequencies.front(), 20.0);
    ASSERT_NEAR (minimum.frequencies.back(), 20000.0, 1.0e-6);

    for (size_t i = 0; i < minimum.frequencies.size(); ++i)
        EXPECT_NEAR (minimum.magnitudesDb[i], linear.magnitudesDb[i], 0.3) << minimum.frequencies[i] << " Hz";

    // Falling by about 1 dB per octave about the pivot.
    EXPECT_NEAR (at (linear, 325.0) - at (linear, 5200.0), 4.0, 0.4);
    EXPECT_NEAR (at (linear, 1300.0), 0.0, 0.3);

    const auto trimmed = measure ({ { QuendaAudioProcessor::trimIndex, -3.0f } });
    for (auto frequency : { 20.0, 1000.0, 19000.0 })
        EXPECT_NEAR (at (trimmed, frequency), -3.0, 0.05) << frequency;

    const auto shelf = measure ({ { QuendaAudioProcessor::lowIndex, 6.0f }, { QuendaAudioProcessor::lowFreqIndex, 100.0f } });
    EXPECT_NEAR (at (shelf, 20.0), 6.0, 1.0);
    EXPECT_NEAR (at (shelf, 5000.0), 0.0, 0.2);
}

TEST (Plot, WritesAPngOfTheResponse)
{
    TempFolder temp;
    const auto result = render ({ "--tilt", "-1", "--plot", temp["r.png"].getFullPathName(), "-q" });
    ASSERT_EQ (result.code, 0) << result.err;

    const auto image = juce::ImageFileFormat::loadFrom (temp["r.png"]);
    ASSERT_TRUE (image.isValid());
    EXPECT_EQ (image.getWidth(), 960);
    EXPECT_EQ (image.getHeight(), 480);
}

TEST (Demo, BandLevelsReadAToneInItsOctave)
{
    juce::AudioBuffer<float> tone (2, 48000);
    for (int i = 0; i < tone.getNumSamples(); ++i)
        for (int c = 0; c < 2; ++c)
            tone.setSample (c, i, 0.5f * (float) std::sin (juce::MathConstants<double>::twoPi * 1000.0 * i / 48000.0));

    for (auto& band : octaveBandLevels (tone, 48000.0))
    {
        if (band.centre == 1000.0)
            EXPECT_NEAR (band.levelDb, -6.02, 0.1);
        else
            EXPECT_LT (band.levelDb, -60.0) << band.centre;
    }
}

TEST (Demo, WritesItsFilesShowsTheTiltAndRefusesToOverwrite)
{
    TempFolder temp;
    const auto folder = temp["demo"].getFullPathName();

    const auto result = render ({ "--demo", folder, "-q" });
    ASSERT_EQ (result.code, 0) << result.err;
    EXPECT_EQ (temp["demo"].findChildFiles (juce::File::findFiles, false).size(), 3);

    const auto original = readAudio (temp["demo"].getChildFile ("demo-original.wav"));
    const auto processed = readAudio (temp["demo"].getChildFile ("demo-processed.wav"));
    ASSERT_EQ (original.audio.getNumSamples(), processed.audio.getNumSamples());

    const auto before = octaveBandLevels (original.audio, original.sampleRate);
    const auto after = octaveBandLevels (processed.audio, processed.sampleRate);
    ASSERT_EQ (before.size(), after.size());

    // Clearly audible: several dB more air against the bass.
    const auto lowChange = after[1].levelDb - before[1].levelDb;
    const auto highChange = after.back().levelDb - before.back().levelDb;
    EXPECT_GT (highChange - lowChange, 6.0);
    EXPECT_NE (result.out.find ("16 kHz"), std::string::npos);

    EXPECT_EQ (render ({ "--demo", folder }).code, (int) ExitCode::outputExists);
    EXPECT_EQ (render ({ "--demo", folder, "-y", "-q" }).code, 0);
}
}
