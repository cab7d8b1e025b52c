// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_audio_formats/juce_audio_formats.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace quenda::cli
{
    class ShortReadWatch;
    struct WriteOutcome;

    /** An opened, checked input: WAV, AIFF or FLAC, one or two channels. */
    class InputAudio
    {
    public:
        /** Throws CliError: inputUnreadable, or badFormat for foreign, damaged or truncated
            files and for more than two channels. */
        explicit InputAudio (const juce::File& file);
        ~InputAudio();

        /** Fills the block's first numSamples samples; throws CliError if the file ends early. */
        void read (juce::AudioBuffer<float>& block, juce::int64 position, int numSamples);

        /** Throws CliError (inputUnreadable) if the file was replaced, rewritten or resized
            since it was opened: what was read may mix two versions. */
        void checkUnchanged() const;

        const juce::File file;
        int numChannels() const                 { return (int) reader->numChannels; }
        double sampleRate() const               { return reader->sampleRate; }
        juce::int64 length() const              { return reader->lengthInSamples; }
        int bitsPerSample() const               { return (int) reader->bitsPerSample; }
        bool isFloat() const                    { return reader->usesFloatingPointData; }
        juce::String formatName() const         { return reader->getFormatName(); }
        bool isFlac() const                     { return formatName().containsIgnoreCase ("flac"); }

    private:
        juce::String identity;                  // device, inode, size and modification time when opened
        ShortReadWatch* watch = nullptr;        // owned by the reader
        std::unique_ptr<juce::AudioFormatReader> reader;
    };

    /** A file written under a temporary name in the target's folder and renamed into place
        by commit(); if commit() is never reached, or the process is interrupted, the
        temporary file is removed and the target is left as it was. */
    class PendingFile
    {
    public:
        /** Throws CliError: outputExists without overwrite, outputUnwritable when the
            folder is missing or read-only. */
        PendingFile (const juce::File& target, bool overwrite);
        ~PendingFile();

        const juce::File& temporary() const     { return temp; }
        const juce::File& destination() const   { return target; }

        /** Flushes to disk and renames; throws CliError (outputExists if the target
            appeared meanwhile and overwrite is off, else outputUnwritable). */
        void commit();

    private:
        const juce::File target;
        const bool overwrite;
        juce::File temp;
        bool committed = false;

        JUCE_DECLARE_NON_COPYABLE (PendingFile)
    };

    struct OutputFormat
    {
        std::unique_ptr<juce::AudioFormat> format;
        int bitDepth = 24;                      // 32 means float
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

    /** Writes float blocks, adding TPDF dither from a fixed seed at 16 bits, and keeps the
        peak and the count of samples beyond full scale. */
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

        float peak() const noexcept             { return peakLevel; }
        juce::int64 clippedSamples() const noexcept { return clipped; }

    private:
        void convert (const juce::AudioBuffer<float>& block, int start, int numSamples);

        const juce::File file, destination;
        const int bitDepth;
        std::shared_ptr<WriteOutcome> outcome;
        std::unique_ptr<juce::AudioFormatWriter> writer;
        std::vector<int> integerSamples;        // per channel, left-justified as the format writers take them
        std::vector<const int*> channelData;
        struct DrawPair { DitherNoise::Words first, second; };
        std::vector<DitherNoise> dither;        // per channel
        std::vector<DrawPair> ditherDraws;      // per channel, for the current four samples
        int ditherPhase = 0;                    // samples of those four written so far
        float peakLevel = 0.0f;
        juce::int64 clipped = 0;
    };

    /** True when both name the same file on disk (symbolic and hard links included). */
    bool isSameFile (const juce::File& a, const juce::File& b);

    /** Writes bytes through a PendingFile. Throws CliError. */
    void writeFileSafely (const juce::File& target, const juce::MemoryBlock& data, bool overwrite);
}
