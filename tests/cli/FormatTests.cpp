// SPDX-License-Identifier: GPL-3.0-or-later
// WAV, AIFF and FLAC in and out, bit depths and dither, and inputs that must be refused.

#include "TestSupport.h"
#include "CliError.h"

namespace quenda::cli::test
{
TEST (Formats, EachFormatConvertsToEachKeepingRateChannelsAndDepth)
{
    TempFolder temp;
    const struct { const char* name; int channels; int bits; } inputs[] {
        { "in16.wav", 2, 16 }, { "in24.aiff", 1, 24 }, { "in16.flac", 2, 16 }, { "in24.flac", 1, 24 }
    };

    for (auto& input : inputs)
    {
        writeAudio (temp[input.name], noise (input.channels, 4410), 44100.0, input.bits);

        for (auto* extension : { ".wav", ".aiff", ".flac" })
        {
            const auto output = temp[juce::String (input.name) + ".out" + extension];
            const auto result = render ({ temp[input.name].getFullPathName(), output.getFullPathName(), "--high", "2", "-q" });
            ASSERT_EQ (result.code, 0) << input.name << " -> " << extension << ": " << result.err;

            const auto loaded = readAudio (output);
            EXPECT_EQ (loaded.sampleRate, 44100.0);
            EXPECT_EQ (loaded.audio.getNumChannels(), input.channels);
            EXPECT_EQ (loaded.audio.getNumSamples(), 4410);
            EXPECT_EQ (loaded.bits, input.bits) << input.name << " -> " << extension;
            EXPECT_TRUE (loaded.format.containsIgnoreCase (juce::String (extension).substring (1, 4))) << loaded.format;
        }
    }
}

TEST (Formats, FloatInputStaysFloatInWavAndBecomes24BitElsewhere)
{
    TempFolder temp;
    writeAudio (temp["in.wav"], noise (2, 1000), 96000.0, 32);

    ASSERT_EQ (render ({ temp["in.wav"].getFullPathName(), temp["out.wav"].getFullPathName(), "-q" }).code, 0);
    ASSERT_EQ (render ({ temp["in.wav"].getFullPathName(), temp["out.flac"].getFullPathName(), "-q" }).code, 0);
    ASSERT_EQ (render ({ temp["in.wav"].getFullPathName(), temp["out16.wav"].getFullPathName(), "--bit-depth", "16", "-q" }).code, 0);

    EXPECT_TRUE (readAudio (temp["out.wav"]).isFloat);
    EXPECT_EQ (readAudio (temp["out.flac"]).bits, 24);
    EXPECT_EQ (readAudio (temp["out16.wav"]).bits, 16);
    EXPECT_EQ (readAudio (temp["out.flac"]).sampleRate, 96000.0);
}

TEST (Formats, SixteenBitOutputIsDitheredReproducibly)
{
    TempFolder temp;
    constexpr float lsb = 1.0f / 32768.0f;

    // A tone of a third of a step: plain rounding would write silence.
    juce::AudioBuffer<float> quiet (1, 48000);
    for (int i = 0; i < quiet.getNumSamples(); ++i)
        quiet.setSample (0, i, 0.3f * lsb * (float) std::sin (0.05 * i));

    writeAudio (temp["quiet.wav"], quiet);

    for (auto* name : { "a.wav", "b.wav" })
        ASSERT_EQ (render ({ temp["quiet.wav"].getFullPathName(), temp[name].getFullPathName(), "--bit-depth", "16", "-q" }).code, 0);

    juce::MemoryBlock first, second;
    temp["a.wav"].loadFileAsData (first);
    temp["b.wav"].loadFileAsData (second);
    EXPECT_EQ (first, second);

    const auto written = readAudio (temp["a.wav"]);
    double correlation = 0.0;
    int nonZero = 0;

    for (int i = 0; i < quiet.getNumSamples(); ++i)
    {
        const auto sample = written.audio.getSample (0, i);
        const auto steps = sample / lsb;
        ASSERT_EQ (steps, std::round (steps)) << "off the 16-bit grid at " << i;
        ASSERT_LE (std::abs (sample - quiet.getSample (0, i)), 1.5f * lsb) << i;
        correlation += (double) sample * quiet.getSample (0, i);
        nonZero += sample != 0.0f ? 1 : 0;
    }

    // The tone survives in the noise instead of vanishing.
    EXPECT_GT (nonZero, quiet.getNumSamples() / 4);
    EXPECT_GT (correlation, 0.0);
}

TEST (Formats, MoreThanTwoChannelsIsRefused)
{
    TempFolder temp;
    writeAudio (temp["surround.wav"], noise (3, 1000));

    const auto result = render ({ temp["surround.wav"].getFullPathName(), temp["out.wav"].getFullPathName() });
    EXPECT_EQ (result.code, (int) ExitCode::badFormat);
    EXPECT_NE (result.err.find ("has 3 channels"), std::string::npos) << result.err;
    EXPECT_FALSE (temp["out.wav"].exists());
}

TEST (Formats, BadInputsGiveClearErrorsAndNoOutput)
{
    TempFolder temp;
    writeAudio (temp["good.wav"], noise (2, 20000), 48000.0, 24);
    writeAudio (temp["good.aiff"], noise (2, 20000), 48000.0, 24);
    writeAudio (temp["good.flac"], noise (2, 20000), 48000.0, 24);

    const auto truncatedCopy = [&] (const juce::String& from, const juce::String& to)
    {
        juce::MemoryBlock data;
        temp[from].loadFileAsData (data);
        temp[to].replaceWithData (data.getData(), data.getSize() * 2 / 3);
    };

    truncatedCopy ("good.wav", "cut.wav");
    truncatedCopy ("good.aiff", "cut.aiff");
    truncatedCopy ("good.flac", "cut.flac");

    juce::MemoryBlock flac;
    temp["good.flac"].loadFileAsData (flac);
    static_cast<char*> (flac.getData())[flac.getSize() / 2] ^= 0x5a;
    temp["flipped.flac"].replaceWithData (flac.getData(), flac.getSize());

    temp["text.wav"].replaceWithText ("this is not audio at all, just text pretending to be a WAV file");
    temp["empty.flac"].create();
    temp["folder.wav"].createDirectory();

    const std::vector<std::tuple<juce::String, ExitCode, std::string>> cases {
        { "cut.wav",      ExitCode::badFormat,       "is truncated" },
        { "cut.aiff",     ExitCode::badFormat,       "is truncated" },
        { "cut.flac",     ExitCode::badFormat,       "is truncated" },
        { "flipped.flac", ExitCode::badFormat,       "is damaged" },
        { "text.wav",     ExitCode::badFormat,       "not a WAV, AIFF or FLAC file" },
        { "empty.flac",   ExitCode::badFormat,       "not a WAV, AIFF or FLAC file" },
        { "missing.wav",  ExitCode::inputUnreadable, "no such file" },
        { "folder.wav",   ExitCode::inputUnreadable, "is a folder" },
    };

    for (auto& [name, code, message] : cases)
    {
        const auto result = render ({ temp[name].getFullPathName(), temp["out.wav"].getFullPathName() });
        EXPECT_EQ (result.code, (int) code) << name;
        EXPECT_NE (result.err.find (message), std::string::npos) << name << " said: " << result.err;
        EXPECT_EQ (std::count (result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_FALSE (temp["out.wav"].exists()) << name;
    }

    // Only the inputs are left: no output, no temporary files.
    EXPECT_EQ (temp.names().size(), 10);
}
}
