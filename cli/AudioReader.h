// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_audio_formats/juce_audio_formats.h>

#include <memory>

namespace cli
{
class ShortReadWatch;

/** An opened, checked input: WAV, AIFF or FLAC, one or two channels. */
class InputAudio
{
public:
    /** Throws CliError: inputUnreadable, or badFormat for foreign, damaged or truncated
            files and for more than two channels. */
    explicit InputAudio (const juce::File& file);
    ~InputAudio();

    /** Fills the block's first numSamples samples; throws CliError if the file ends early.
            Non-finite samples come back as 0 and are counted. */
    void read (juce::AudioBuffer<float>& block, juce::int64 position, int numSamples);

    /** Throws CliError (inputUnreadable) if the file was replaced, rewritten or resized
            since it was opened: what was read may mix two versions. */
    void checkUnchanged() const;

    const juce::File file;
    int numChannels() const { return (int) reader->numChannels; }
    double sampleRate() const { return reader->sampleRate; }
    juce::int64 length() const { return reader->lengthInSamples; }
    int bitsPerSample() const { return (int) reader->bitsPerSample; }
    bool isFloat() const { return reader->usesFloatingPointData; }
    juce::String formatName() const { return reader->getFormatName(); }
    bool isFlac() const { return formatName().containsIgnoreCase ("flac"); }

    struct NonFinite
    {
        juce::int64 count = 0, firstPosition = -1;
        int firstChannel = 0;
    };

    /** Repairs made to read the file, for warnings. */
    const juce::StringArray& warnings() const { return notes; }

    /** The non-finite samples replaced by silence so far. */
    const NonFinite& nonFinite() const { return replaced; }

private:
    juce::String identity;             // device, inode, size and modification time when opened
    ShortReadWatch* watch = nullptr;   // owned by the reader
    std::unique_ptr<juce::AudioFormatReader> reader;
    NonFinite replaced;
    juce::StringArray notes;
};
}
