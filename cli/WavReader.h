// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_audio_formats/juce_audio_formats.h>

namespace cli
{
/** What the chunks of a little-endian RIFF WAV file say about its audio, and what had
        to be repaired to read it. */
struct WavLayout
{
    bool isRiff = false;   // "RIFF", not RF64 or RIFX
    bool hasFormat = false, isFloat = false;
    int channels = 0, bitsPerSample = 0, blockAlign = 0;
    double sampleRate = 0.0;
    juce::int64 dataStart = -1, dataSize = 0;
    juce::String repair;   // what was done to read it, for a warning

    /** JUCE's reader takes neither 64-bit float nor a header that needed a repair. */
    bool needsOwnReader() const { return isRiff && dataStart >= 0 && (repair.isNotEmpty() || (isFloat && bitsPerSample == 64)); }
};

/** Reads integer (8 to 32 bits) and float (32 and 64 bits) WAV audio as the layout
        gives it. Null if the layout describes nothing it can read; otherwise the reader
        owns the stream. */
juce::AudioFormatReader* createPlainWavReader (juce::InputStream* stream, const WavLayout& layout);
}
