// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "PendingFile.h"

#include <juce_audio_formats/juce_audio_formats.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace cli
{
struct WriteOutcome;

struct OutputFormat
{
    std::unique_ptr<juce::AudioFormat> format;
    int bitDepth = 24;    // 32 means float
    bool dither = true;   // TPDF at 16 bits
};

/** The format from the output's extension; the bit depth as asked, or the input's
        nearest that the format can hold. Throws CliError. */
OutputFormat chooseOutputFormat (const juce::File& output, int requestedBitDepth,
                                 int inputBits, bool inputIsFloat);

/** Four xorshift128 generators side by side: the draws of the 16-bit dither. */
struct DitherNoise
{
    static constexpr int lanes = 4;
    using Words = std::uint32_t __attribute__ ((vector_size (16)));
    using Ints = std::int32_t __attribute__ ((vector_size (16)));
    using Floats = float __attribute__ ((vector_size (16)));

    explicit DitherNoise (std::uint64_t seed) noexcept;

    Words next() noexcept
    {
        const auto t = x ^ (x << 11);
        x = y;
        y = z;
        z = w;
        w = (w ^ (w >> 19)) ^ (t ^ (t >> 8));
        return w;
    }

    Words x, y, z, w;
};

/** Writes float blocks, adding TPDF dither from a fixed seed at 16 bits to the samples
        between two steps, and keeps the peak and the counts of samples beyond full scale
        and of samples the integer format had to limit. */
class AudioFileWriter
{
public:
    /** Writes the pending file's temporary; messages name its destination. Throws CliError (outputUnwritable). */
    AudioFileWriter (const PendingFile& target, const OutputFormat& format, double sampleRate, int numChannels);
    ~AudioFileWriter();

    void write (const juce::AudioBuffer<float>& block, int start, int numSamples);

    /** Completes the file; call before committing it. Throws CliError (outputUnwritable)
            if any write failed or came up short. */
    void close();

    float peak() const noexcept { return peakLevel; }
    juce::int64 samplesOverFullScale() const noexcept { return overFullScale; }

    /** Samples written at the format's limit instead of their level; 0 for float. */
    juce::int64 clippedSamples() const noexcept
    {
        return bitDepth == 32 ? 0 : (bitDepth == 16 ? clipped16 : overFullScale);
    }

private:
    void convert (const juce::AudioBuffer<float>& block, int start, int numSamples);

    const juce::File file, destination;
    const int bitDepth;
    const float ditherGain;
    std::shared_ptr<WriteOutcome> outcome;
    std::unique_ptr<juce::AudioFormatWriter> writer;
    std::vector<int> integerSamples;   // per channel, left-justified as the format writers take them
    std::vector<const int*> channelData;
    struct DrawPair
    {
        DitherNoise::Words first, second;
    };
    std::vector<DitherNoise> dither;     // per channel
    std::vector<DrawPair> ditherDraws;   // per channel, for the current four samples
    int ditherPhase = 0;                 // samples of those four written so far
    float peakLevel = 0.0f;
    juce::int64 overFullScale = 0, clipped16 = 0;
};
}
