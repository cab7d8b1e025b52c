// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "Cli.h"
#include "CliError.h"
#include "plugin/PluginProcessor.h"
#include "tests/support/Signals.h"

#include <juce_audio_formats/juce_audio_formats.h>
#include <gtest/gtest.h>

#include <sstream>

namespace cli::test
{
/** A fresh folder, removed with everything in it; temp ("x") is the full path of x in it. */
struct TempFolder
{
    TempFolder() { folder.createDirectory(); }
    ~TempFolder() { folder.deleteRecursively(); }

    juce::File operator[] (const juce::String& name) const { return folder.getChildFile (name); }
    juce::String operator() (const juce::String& name) const { return (*this)[name].getFullPathName(); }

    int count() const { return folder.getNumberOfChildFiles (juce::File::findFilesAndDirectories); }

    const juce::File folder = juce::File::getSpecialLocation (juce::File::tempDirectory)
                                  .getNonexistentChildFile ("quenda-render-test", "", false);
};

struct Result
{
    int code;
    std::string err;
};

inline Result render (const juce::StringArray& args)
{
    std::ostringstream out, err;
    const auto code = runCommandLine (args, out, err);
    return { code, err.str() };
}

/** Noise at a quarter of full scale, or, given a position, an impulse of 0.5 there. */
inline juce::AudioBuffer<float> noise (int channels, int length, int impulseAt = -1)
{
    return impulseAt >= 0 ? support::makeImpulse (channels, length, impulseAt)
                          : support::makeNoise (channels, length, 7, 0.25f);
}

inline void writeAudio (const juce::File& file, const juce::AudioBuffer<float>& audio, double sampleRate = 48000.0, int bits = 32)
{
    juce::AudioFormatManager formats;
    formats.registerBasicFormats();
    auto stream = std::make_unique<juce::FileOutputStream> (file);
    std::unique_ptr<juce::AudioFormatWriter> writer (formats.findFormatForFileExtension (file.getFileExtension())
                                                         ->createWriterFor (stream.get(), sampleRate, (unsigned int) audio.getNumChannels(), bits, {}, 0));
    ASSERT_NE (writer, nullptr);
    stream.release();
    ASSERT_TRUE (writer->writeFromAudioSampleBuffer (audio, 0, audio.getNumSamples()));
}

struct Loaded
{
    juce::AudioBuffer<float> audio;
    double sampleRate = 0.0;
    int bits = 0;
    bool isFloat = false;
    juce::String format;
};

inline Loaded readAudio (const juce::File& file)
{
    juce::AudioFormatManager formats;
    formats.registerBasicFormats();
    std::unique_ptr<juce::AudioFormatReader> reader (formats.createReaderFor (file));
    EXPECT_NE (reader, nullptr) << "cannot read " << file.getFullPathName();
    if (reader == nullptr)
        return {};
    juce::AudioBuffer<float> audio ((int) reader->numChannels, (int) reader->lengthInSamples);
    reader->read (&audio, 0, audio.getNumSamples(), 0, true, true);
    return { audio, reader->sampleRate, (int) reader->bitsPerSample, reader->usesFloatingPointData, reader->getFormatName() };
}

inline juce::MemoryBlock bytes (const juce::File& file)
{
    juce::MemoryBlock data;
    file.loadFileAsData (data);
    return data;
}
}
