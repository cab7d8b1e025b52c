// SPDX-License-Identifier: GPL-3.0-or-later
// End to end through files: length, alignment, the first processed samples, mono, the
// summary's peak and clip count, the formats in and out, and reproducible 16-bit dither.

#include "TestSupport.h"
#include "AudioReader.h"
#include "AudioWriter.h"

#include <unistd.h>

namespace cli::test
{
TEST (Render, OutputLinesUpWithTheInput)
{
    TempFolder temp;
    constexpr int length = 20000, delay = QuendaAudioProcessor::linearPhaseLatency;
    writeAudio (temp["start.wav"], noise (2, length, 0));
    writeAudio (temp["end.wav"], noise (2, length, length - 10));
    writeAudio (temp["mono.wav"], noise (1, length, 0));

    // Near the end an impulse only survives if the delayed tail is flushed out.
    const struct
    {
        const char* input;
        juce::StringArray args;
        int peak;
    } cases[] {
        { "start.wav", { "--tilt", "1", "--lin-phase", "--block-size", "333" }, 0 },
        { "start.wav", { "--tilt", "1", "--lin-phase", "--no-latency-compensation" }, delay },
        { "end.wav", { "--tilt", "1", "--lin-phase" }, length - 10 },
        { "start.wav", { "--tilt", "1" }, 0 },
        { "start.wav", { "--trim", "-6" }, 0 },
        { "mono.wav", { "--tilt", "1" }, 0 },
    };

    std::vector<juce::AudioBuffer<float>> outputs;
    for (auto& [input, args, peak] : cases)
    {
        const auto output = temp["out" + juce::String (outputs.size()) + ".wav"];
        juce::StringArray all { temp (input), output.getFullPathName(), "-q" };
        all.addArray (args);
        ASSERT_EQ (render (all).code, 0) << args.joinIntoString (" ");
        outputs.push_back (readAudio (output).audio);
        ASSERT_EQ (outputs.back().getNumSamples(), length) << args.joinIntoString (" ");
        for (int c = 0; c < outputs.back().getNumChannels(); ++c)
            EXPECT_EQ (outputs.back().getMagnitude (c, peak, 1), outputs.back().getMagnitude (c, 0, length)) << args.joinIntoString (" ");
    }

    // The compensated render is the raw one moved earlier, whatever the block size.
    for (int i = 0; i < length - delay; ++i)
        ASSERT_NEAR (outputs[0].getSample (0, i), outputs[1].getSample (0, i + delay), 1.0e-5f) << i;

    // Kernels and filters are set before the first block: the very first samples are processed.
    EXPECT_GT (std::abs (outputs[3].getSample (0, 0) - 0.5f), 0.01f);
    EXPECT_GT (std::abs (outputs[3].getSample (0, 1)), 1.0e-4f);
    EXPECT_NEAR (outputs[4].getSample (0, 0), 0.5f * 0.501187f, 1.0e-6f);

    // Mono stays mono and is processed exactly as either side of the same stereo input.
    ASSERT_EQ (outputs[5].getNumChannels(), 1);
    for (int i = 0; i < length; ++i)
        for (int c = 0; c < 2; ++c)
            ASSERT_EQ (outputs[5].getSample (0, i), outputs[3].getSample (c, i)) << c << ", " << i;
}

TEST (Render, SummaryCountsSamplesOverFullScaleForFloatAndRealClipsForIntegers)
{
    TempFolder temp;
    auto loud = noise (2, 4800);
    loud.applyGain (6.0f);
    writeAudio (temp["loud.wav"], loud);

    const auto result = render ({ temp ("loud.wav"), temp ("out.wav"), "--high", "2" });
    ASSERT_EQ (result.code, 0) << result.err;

    // The output is float like the input, so it holds exactly what the summary measured.
    const auto written = readAudio (temp["out.wav"]).audio;
    const auto peak = written.getMagnitude (0, written.getNumSamples());
    auto count = [&] (auto isBeyond)
    {
        long n = 0;
        for (int c = 0; c < written.getNumChannels(); ++c)
            n += std::count_if (written.getReadPointer (c), written.getReadPointer (c) + written.getNumSamples(), isBeyond);
        return n;
    };

    const auto over = count ([] (float x)
                             { return std::abs (x) > 1.0f; });
    ASSERT_GT (over, 0);
    const auto expected = juce::String (20.0 * std::log10 ((double) peak), 2) + " dBFS, " + juce::String (over) + " samples over 0 dBFS";
    EXPECT_NE (result.err.find (expected.toStdString()), std::string::npos) << result.err << "expected: " << expected;
    EXPECT_EQ (result.err.find ("clip"), std::string::npos) << result.err;

    // Integer files count the samples they had to limit: at 16 bits those that round past the
    // top step, which the float count misses.
    const auto clipped16 = count ([] (float x)
                                  { const auto level = std::floor ((double) x * 32768.0 + 0.5); return level < -32768.0 || level > 32767.0; });
    ASSERT_GE (clipped16, over);
    for (auto [depth, clipped] : { std::pair { "16", clipped16 }, std::pair { "24", over } })
    {
        const auto integer = render ({ temp ("loud.wav"), temp ("out" + juce::String (depth) + ".wav"), "--high", "2", "--bit-depth", depth, "--dither", "none" });
        ASSERT_EQ (integer.code, 0) << integer.err;
        EXPECT_NE (integer.err.find (", " + std::to_string (clipped) + " clipped samples (lower --trim"), std::string::npos) << depth << ": " << integer.err;
    }

    // Full scale itself is no step of a 16-bit file.
    juce::AudioBuffer<float> full (1, 100);
    juce::FloatVectorOperations::fill (full.getWritePointer (0), 1.0f, 100);
    writeAudio (temp["full.wav"], full);
    EXPECT_NE (render ({ temp ("full.wav"), temp ("full-float.wav"), "--bypass" }).err.find (", 0 samples over 0 dBFS"), std::string::npos);
    EXPECT_NE (render ({ temp ("full.wav"), temp ("full-16.wav"), "--bypass", "--bit-depth", "16" }).err.find (", 100 clipped samples"), std::string::npos);
}

TEST (Render, EveryRateFrom8To384kHz)
{
    TempFolder temp;
    for (auto rate : { 8000.0, 384000.0 })
    {
        const auto name = juce::String (rate);
        writeAudio (temp[name + ".wav"], noise (2, 4000), rate);
        const auto result = render ({ temp (name + ".wav"), temp (name + "-out.wav"), "--tilt", "0.5" });
        ASSERT_EQ (result.code, 0) << rate << ": " << result.err;
        const auto loaded = readAudio (temp[name + "-out.wav"]);
        EXPECT_EQ (loaded.sampleRate, rate);
        EXPECT_EQ (loaded.audio.getNumSamples(), 4000);
        EXPECT_GT (loaded.audio.getRMSLevel (0, 0, 4000), 0.1f) << rate;
    }
}

TEST (Render, NonFiniteInputSamplesAloneBecomeSilenceWithAWarning)
{
    TempFolder temp;
    auto clean = noise (2, 48000);
    auto bad = clean;
    const std::tuple<int, int, float> replaced[] { { 1, 30000, std::numeric_limits<float>::infinity() },
                                                   { 0, 20016, std::numeric_limits<float>::quiet_NaN() },
                                                   { 0, 40000, -std::numeric_limits<float>::infinity() } };
    for (auto [channel, position, value] : replaced)
    {
        bad.setSample (channel, position, value);
        clean.setSample (channel, position, 0.0f);
    }
    writeAudio (temp["bad.wav"], bad);
    writeAudio (temp["clean.wav"], clean);

    // Bypassed, the output is the input with the bad samples zeroed; processed, it is the
    // render of the zeroed input, with no block silenced.
    for (auto settings : { juce::StringArray { "--bypass" }, juce::StringArray { "--tilt", "0.5", "--lin-phase" } })
    {
        auto args = settings;
        args.addArray ({ temp ("bad.wav"), temp ("bad-out.wav"), "-y" });
        const auto result = render (args);
        ASSERT_EQ (result.code, 0) << result.err;
        EXPECT_NE (result.err.find ("warning: 3 non-finite samples replaced by silence, first at 0:00.417 (left)"), std::string::npos) << result.err;

        args.set (args.size() - 3, temp ("clean.wav"));
        args.set (args.size() - 2, temp ("clean-out.wav"));
        ASSERT_EQ (render (args).code, 0);
        const auto fromBad = readAudio (temp["bad-out.wav"]).audio, fromClean = readAudio (temp["clean-out.wav"]).audio;
        for (int c = 0; c < 2; ++c)
            for (int i = 0; i < clean.getNumSamples(); ++i)
                ASSERT_EQ (fromBad.getSample (c, i), fromClean.getSample (c, i)) << settings.joinIntoString (" ") << " " << c << ", " << i;
    }
}

TEST (Formats, RoundTripKeepsTheFormat)
{
    TempFolder temp;
    const struct
    {
        const char* input;
        int channels, bits;
        const char* output;
        const char* depth;
        int outBits;
    } cases[] {
        { "a.wav", 2, 16, "a.flac", "", 16 },
        { "b.aiff", 1, 24, "b.wav", "", 24 },
        { "c.flac", 2, 24, "c.aiff", "", 24 },
        { "d.wav", 2, 32, "d.flac", "", 24 },
        { "d.wav", 2, 32, "e.wav", "", 32 },
        { "d.wav", 2, 32, "f.wav", "16", 16 },
    };

    for (auto& [input, channels, bits, output, depth, outBits] : cases)
    {
        writeAudio (temp[input], noise (channels, 4410), 44100.0, bits);
        juce::StringArray args { temp (input), temp (output), "--high", "2", "-q", "-y" };
        if (*depth != 0)
            args.addArray ({ "--bit-depth", depth });
        ASSERT_EQ (render (args).code, 0) << output;

        const auto loaded = readAudio (temp[output]);
        EXPECT_EQ (std::make_tuple (loaded.sampleRate, loaded.audio.getNumChannels(), loaded.audio.getNumSamples(), loaded.bits, loaded.isFloat),
                   std::make_tuple (44100.0, channels, 4410, outBits, outBits == 32))
            << output;
        EXPECT_TRUE (loaded.format.containsIgnoreCase (temp[output].getFileExtension().substring (1))) << loaded.format;
    }
}

/** A stereo 48 kHz WAV file as recorders, pipes and other tools write it. */
static juce::MemoryBlock wavFile (const juce::AudioBuffer<float>& audio, int formatTag, int bits,
                                  juce::uint32 riffSize, juce::uint32 dataSize, bool rf64 = false)
{
    juce::MemoryOutputStream payload, file;
    for (int i = 0; i < audio.getNumSamples(); ++i)
        for (int c = 0; c < 2; ++c)
        {
            const auto x = audio.getSample (c, i);
            if (bits == 64)
                payload.writeDouble ((double) x);
            else
                payload.writeShort ((short) juce::roundToInt (x * 32768.0f));
        }

    file.write (rf64 ? "RF64" : "RIFF", 4);
    file.writeInt ((int) riffSize);
    file.write ("WAVE", 4);
    if (rf64)
    {
        file.write ("ds64", 4);
        file.writeInt (28);
        file.writeInt64 ((juce::int64) (4 + 36 + 24 + 8 + payload.getDataSize()));
        file.writeInt64 ((juce::int64) payload.getDataSize());
        file.writeInt64 (audio.getNumSamples());
        file.writeInt (0);
    }
    file.write ("fmt ", 4);
    file.writeInt (16);
    file.writeShort ((short) formatTag);
    file.writeShort (2);
    file.writeInt (48000);
    file.writeInt (48000 * 2 * bits / 8);
    file.writeShort ((short) (2 * bits / 8));
    file.writeShort ((short) bits);
    file.write ("data", 4);
    file.writeInt ((int) dataSize);
    file << payload.getMemoryBlock();
    return file.getMemoryBlock();
}

TEST (Formats, WavFromRecordersStreamsAndLargeFilesAndDoubles)
{
    TempFolder temp;
    const auto audio = noise (2, 3000);
    constexpr juce::uint32 unknown = 0xffffffff;
    const auto bytes16 = 3000u * 4u;
    const struct
    {
        const char* name;
        juce::MemoryBlock file;
        const char* said;
    } cases[] {
        { "doubles.wav", wavFile (audio, 3, 64, 36 + 4 * bytes16, 4 * bytes16), "64-bit float input: the output is 32-bit float" },
        { "streamed.wav", wavFile (audio, 1, 16, unknown, unknown), "no length for the audio (0xFFFFFFFF, as streamed files give); the audio was read to the end of the file" },
        { "cut-off.wav", wavFile (audio, 1, 16, 0, 0), "no length for the audio (0, as a recording that was cut off leaves); the audio was read to the end of the file" },
        { "riff-0.wav", wavFile (audio, 1, 16, 0, bytes16), "gives a file length (0 bytes) that ends before the audio" },
        { "rf64.wav", wavFile (audio, 1, 16, unknown, unknown, true), "" },
    };

    for (auto& [name, file, said] : cases)
    {
        temp[name].replaceWithData (file.getData(), file.getSize());
        const auto result = render ({ temp (name), temp (juce::String ("out-") + name), "--bypass" });
        ASSERT_EQ (result.code, 0) << name << ": " << result.err;
        EXPECT_NE (result.err.find (said), std::string::npos) << name << ": " << result.err;

        // Every sample read, each as the file holds it.
        const auto output = readAudio (temp[juce::String ("out-") + name]).audio;
        ASSERT_EQ (output.getNumSamples(), 3000) << name;
        const auto step = juce::String (name).startsWith ("doubles") ? 0.0f : 1.0f / 32768.0f;
        for (int c = 0; c < 2; ++c)
            for (int i = 0; i < 3000; ++i)
                ASSERT_NEAR (output.getSample (c, i), audio.getSample (c, i), step * 0.5f) << name << " " << c << ", " << i;
    }

    // Past 4 GB, RF64's own sizes count: the data chunk's 32-bit size would end inside the
    // audio, where these bytes are no chunk. The file is sparse, so this costs no disk.
    constexpr juce::int64 frames = 1100000000;
    auto header = wavFile (juce::AudioBuffer<float> (2, 0), 1, 16, unknown, unknown, true);
    const auto headerSize = (juce::int64) header.getSize();
    // The ds64 sizes sit at byte 20, not on an 8-byte boundary.
    const juce::int64 sizes[] { headerSize - 8 + frames * 4, frames * 4, frames };
    header.copyFrom (sizes, 20, sizeof (sizes));
    {
        juce::FileOutputStream large (temp["large.wav"]);
        large.write (header.getData(), header.getSize());
        large.setPosition (headerSize + 0xffffffffLL + 1);
        large.writeText ("audio, not chunks", false, false, nullptr);
    }
    ASSERT_EQ (::truncate (temp ("large.wav").toRawUTF8(), headerSize + frames * 4), 0);
    InputAudio large (temp["large.wav"]);
    EXPECT_EQ (large.length(), frames);
    juce::AudioBuffer<float> last (2, 1);
    large.read (last, frames - 1, 1);
}

TEST (Formats, SixteenBitsPassThroughUnchangedWhereTheSettingsLeaveTheSteps)
{
    TempFolder temp;
    writeAudio (temp["in.wav"], noise (2, 20000), 44100.0, 16);
    const auto input = readAudio (temp["in.wav"]).audio;

    for (auto settings : { juce::StringArray { "--bypass" }, juce::StringArray {}, juce::StringArray { "--dither", "none" } })
    {
        auto args = settings;
        args.addArray ({ temp ("in.wav"), temp ("out.wav"), "-y", "-q" });
        ASSERT_EQ (render (args).code, 0);
        const auto output = readAudio (temp["out.wav"]);
        ASSERT_EQ (output.bits, 16);
        for (int c = 0; c < 2; ++c)
            for (int i = 0; i < input.getNumSamples(); ++i)
                ASSERT_EQ (output.audio.getSample (c, i), input.getSample (c, i)) << settings.joinIntoString (" ") << " " << c << ", " << i;
    }

    // Processed audio is still dithered, unless asked not to be: then it is rounded.
    ASSERT_EQ (render ({ temp ("in.wav"), temp ("float.wav"), "--tilt", "0.5", "--bit-depth", "32", "-q" }).code, 0);
    ASSERT_EQ (render ({ temp ("in.wav"), temp ("tpdf.wav"), "--tilt", "0.5", "-q" }).code, 0);
    ASSERT_EQ (render ({ temp ("in.wav"), temp ("none.wav"), "--tilt", "0.5", "--dither", "none", "-q" }).code, 0);
    const auto exact = readAudio (temp["float.wav"]).audio, dithered = readAudio (temp["tpdf.wav"]).audio, rounded = readAudio (temp["none.wav"]).audio;
    int roundedWrong = 0, ditherMoved = 0;
    for (int i = 0; i < exact.getNumSamples(); ++i)
    {
        const auto nearest = std::floor ((double) exact.getSample (0, i) * 32768.0 + 0.5);
        roundedWrong += (int) (rounded.getSample (0, i) * 32768.0 != nearest);
        ditherMoved += (int) (dithered.getSample (0, i) * 32768.0 != nearest);
    }
    EXPECT_EQ (roundedWrong, 0);
    EXPECT_GT (ditherMoved, exact.getNumSamples() / 10);
}

TEST (Formats, SixteenBitDitherIsReproducible)
{
    TempFolder temp;
    constexpr float lsb = 1.0f / 32768.0f;
    juce::AudioBuffer<float> quiet (1, 48000);   // a third of a step: plain rounding writes silence
    for (int i = 0; i < quiet.getNumSamples(); ++i)
        quiet.setSample (0, i, 0.3f * lsb * (float) std::sin (0.05 * i));
    writeAudio (temp["quiet.wav"], quiet);

    for (auto* name : { "a.wav", "b.wav" })
        ASSERT_EQ (render ({ temp ("quiet.wav"), temp (name), "--bit-depth", "16", "-q" }).code, 0);
    EXPECT_EQ (bytes (temp["a.wav"]), bytes (temp["b.wav"]));

    // Through the tilt as well: each run plans its own transforms.
    for (auto* name : { "tilt-a.wav", "tilt-b.wav" })
        ASSERT_EQ (render ({ temp ("quiet.wav"), temp (name), "--tilt", "0.5", "--lin-phase", "--bit-depth", "16", "-q" }).code, 0);
    EXPECT_EQ (bytes (temp["tilt-a.wav"]), bytes (temp["tilt-b.wav"]));

    // The tone survives in the dither instead of vanishing, and the noise stays near one step.
    const auto written = readAudio (temp["a.wav"]).audio;
    double correlation = 0.0, error = 0.0;
    for (int i = 0; i < quiet.getNumSamples(); ++i)
    {
        correlation += (double) written.getSample (0, i) * quiet.getSample (0, i);
        error += juce::square ((double) (written.getSample (0, i) - quiet.getSample (0, i)) / lsb);
    }
    EXPECT_GT (correlation, 0.0);
    EXPECT_LT (std::sqrt (error / quiet.getNumSamples()), 1.0);
}

TEST (Formats, SixteenBitLevelsAreTriangularDitherWhateverTheWrites)
{
    // Stereo, writes cut at odd lengths, levels beyond full scale and non-finite samples.
    TempFolder temp;
    auto audio = noise (2, 9001);
    audio.applyGain (5.0f);
    audio.setSample (0, 17, std::numeric_limits<float>::quiet_NaN());
    audio.setSample (1, 18, std::numeric_limits<float>::infinity());
    audio.setSample (0, 19, -std::numeric_limits<float>::infinity());

    auto writeInPieces = [&] (const juce::File& file, const juce::AudioBuffer<float>& source, std::vector<int> pieces)
    {
        PendingFile target (file, false);
        AudioFileWriter writer (target, chooseOutputFormat (target.destination(), 16, 32, true), 48000.0, source.getNumChannels());
        int done = 0;
        pieces.push_back (source.getNumSamples());
        for (auto piece : pieces)
        {
            const auto count = std::min (piece, source.getNumSamples() - done);
            writer.write (source, done, count);
            done += count;
        }
        writer.close();
        target.commit();
        return readAudio (file).audio;
    };

    const auto whole = writeInPieces (temp["whole.wav"], audio, {});
    writeInPieces (temp["pieces.wav"], audio, { 1, 3, 4099, 2, 5 });
    EXPECT_EQ (bytes (temp["whole.wav"]), bytes (temp["pieces.wav"]));

    // Each level lies within one step of dither and half a step of rounding of the sample.
    int wrong = 0;
    for (int channel = 0; channel < 2; ++channel)
        for (int i = 0; i < audio.getNumSamples(); ++i)
        {
            const auto x = (double) audio.getSample (channel, i) * 32768.0;
            const auto level = (double) whole.getSample (channel, i) * 32768.0;
            const auto lowest = std::isnan (x) ? 0.0 : juce::jlimit (-32768.0, 32767.0, std::floor (x - 0.5));
            const auto highest = std::isnan (x) ? 0.0 : juce::jlimit (-32768.0, 32767.0, std::floor (x + 1.5));
            wrong += (int) (level < lowest || level > highest);
        }
    EXPECT_EQ (wrong, 0);

    // At a constant 0.3 of a step: unbiased, the variance of triangular dither plus rounding
    // (1/6 + 1/12), and neither the channels nor neighbouring samples correlated.
    juce::AudioBuffer<float> constant (2, 48000);
    for (int channel = 0; channel < 2; ++channel)
        juce::FloatVectorOperations::fill (constant.getWritePointer (channel), 0.3f / 32768.0f, constant.getNumSamples());
    const auto levels = writeInPieces (temp["constant.wav"], constant, { 4097 });

    const auto n = constant.getNumSamples();
    auto error = [&] (int channel, int i)
    { return (double) levels.getSample (channel, i) * 32768.0 - 0.3; };
    double mean = 0.0, variance = 0.0, acrossChannels = 0.0, neighbours = 0.0;
    for (int i = 0; i < n; ++i)
    {
        mean += error (0, i) / n;
        variance += juce::square (error (0, i)) / n;
        acrossChannels += error (0, i) * error (1, i) / n;
        neighbours += i > 0 ? error (0, i) * error (0, i - 1) / n : 0.0;
    }
    EXPECT_NEAR (mean, 0.0, 0.015);
    EXPECT_NEAR (variance, 0.25, 0.02);
    EXPECT_NEAR (acrossChannels / variance, 0.0, 0.03);
    EXPECT_NEAR (neighbours / variance, 0.0, 0.03);
}
}
