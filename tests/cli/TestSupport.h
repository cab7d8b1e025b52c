// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "Cli.h"

#include <juce_audio_formats/juce_audio_formats.h>
#include <gtest/gtest.h>

#include <sstream>

namespace quenda::cli::test
{
    /** A fresh folder, removed with everything in it. */
    struct TempFolder
    {
        TempFolder()
            : folder (juce::File::getSpecialLocation (juce::File::tempDirectory)
                          .getNonexistentChildFile ("quenda-render-test", "", false))
        {
            folder.createDirectory();
        }

        ~TempFolder()                                   { folder.deleteRecursively(); }

        juce::File operator[] (const juce::String& name) const { return folder.getChildFile (name); }

        juce::StringArray names() const
        {
            juce::StringArray result;
            for (auto& file : folder.findChildFiles (juce::File::findFilesAndDirectories, false, "*"))
                result.add (file.getFileName());
            result.sort (false);
            return result;
        }

        const juce::File folder;
    };

    struct Result
    {
        int code = -1;
        std::string out, err;
    };

    inline Result render (const juce::StringArray& args)
    {
        std::ostringstream out, err;
        Result result;
        result.code = runCommandLine (args, out, err);
        result.out = out.str();
        result.err = err.str();
        return result;
    }

    /** Deterministic noise, different per channel. */
    inline juce::AudioBuffer<float> noise (int channels, int length, float amplitude = 0.25f, juce::int64 seed = 7)
    {
        juce::AudioBuffer<float> buffer (channels, length);
        juce::Random random (seed);

        for (int c = 0; c < channels; ++c)
            for (int i = 0; i < length; ++i)
                buffer.setSample (c, i, amplitude * (random.nextFloat() * 2.0f - 1.0f));

        return buffer;
    }

    inline std::unique_ptr<juce::AudioFormat> formatFor (const juce::File& file)
    {
        const auto extension = file.getFileExtension();
        if (extension == ".flac")                       return std::make_unique<juce::FlacAudioFormat>();
        if (extension == ".aiff" || extension == ".aif") return std::make_unique<juce::AiffAudioFormat>();
        return std::make_unique<juce::WavAudioFormat>();
    }

    inline void writeAudio (const juce::File& file, const juce::AudioBuffer<float>& audio,
                            double sampleRate = 48000.0, int bits = 32)
    {
        auto format = formatFor (file);
        file.deleteFile();
        auto stream = std::make_unique<juce::FileOutputStream> (file);
        std::unique_ptr<juce::AudioFormatWriter> writer (
            format->createWriterFor (stream.get(), sampleRate, (unsigned int) audio.getNumChannels(), bits, {}, 0));
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
        juce::AudioFormatManager manager;
        manager.registerBasicFormats();
        std::unique_ptr<juce::AudioFormatReader> reader (manager.createReaderFor (file));
        Loaded loaded;

        if (reader == nullptr)
        {
            ADD_FAILURE() << "cannot read " << file.getFullPathName();
            return loaded;
        }

        loaded.audio.setSize ((int) reader->numChannels, (int) reader->lengthInSamples);
        reader->read (&loaded.audio, 0, (int) reader->lengthInSamples, 0, true, true);
        loaded.sampleRate = reader->sampleRate;
        loaded.bits = (int) reader->bitsPerSample;
        loaded.isFloat = reader->usesFloatingPointData;
        loaded.format = reader->getFormatName();
        return loaded;
    }

    inline int peakIndex (const juce::AudioBuffer<float>& audio, int channel)
    {
        const auto* samples = audio.getReadPointer (channel);
        return (int) (std::max_element (samples, samples + audio.getNumSamples(),
                                        [] (float a, float b) { return std::abs (a) < std::abs (b); }) - samples);
    }

    inline float maxDifference (const juce::AudioBuffer<float>& a, const juce::AudioBuffer<float>& b, int channelOfB = -1)
    {
        float largest = 0.0f;
        for (int c = 0; c < a.getNumChannels(); ++c)
            for (int i = 0; i < a.getNumSamples(); ++i)
                largest = std::max (largest, std::abs (a.getSample (c, i) - b.getSample (channelOfB < 0 ? c : channelOfB, i)));
        return largest;
    }
}
