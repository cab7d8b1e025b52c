// SPDX-License-Identifier: GPL-3.0-or-later
// Damaged and hostile input files for the renderer's reader: every outcome is either audio
// or a CliError, never a crash, a hang or a runaway allocation. Built once per format; the
// file name's extension decides which reader gets the first try.

#include "AudioReader.h"
#include "CliError.h"

#include <juce_events/juce_events.h>

#include <unistd.h>

#ifndef QUENDA_FUZZ_EXTENSION
 #define QUENDA_FUZZ_EXTENSION ".wav"
#endif

namespace
{
const juce::File& scratchFile()
{
    static juce::ScopedJuceInitialiser_GUI juceInitialiser;
    static const auto folder = juce::File ("/dev/shm").isDirectory() ? juce::File ("/dev/shm")
                                                                     : juce::File::getSpecialLocation (juce::File::tempDirectory);
    static const auto file = folder.getChildFile ("quenda-fuzz-" + juce::String (::getpid()) + QUENDA_FUZZ_EXTENSION);
    return file;
}

// Enough to reach every chunk and frame of a corpus file without rendering hours.
constexpr juce::int64 maxSamplesToRead = 1 << 16;
}

extern "C" int LLVMFuzzerTestOneInput (const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput (const uint8_t* data, size_t size)
{
    const auto& file = scratchFile();

    if (! file.replaceWithData (data, size))
        std::abort();

    try
    {
        cli::InputAudio input (file);
        juce::AudioBuffer<float> block (input.numChannels(), 4096);
        const auto end = std::min (input.length(), maxSamplesToRead);

        for (juce::int64 position = 0; position < end; position += block.getNumSamples())
            input.read (block, position, (int) std::min ((juce::int64) block.getNumSamples(), end - position));
    }
    catch (const cli::CliError&)
    {
    }

    return 0;
}
