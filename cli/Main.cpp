// SPDX-License-Identifier: GPL-3.0-or-later
// quenda-render: runs audio through the same processor the plug-in uses.

#include "processor/PluginProcessor.h"

#include <juce_audio_formats/juce_audio_formats.h>
#include <juce_events/juce_events.h>

#include <cmath>
#include <iostream>

namespace
{
    /** A few seconds of program-like material: a chord, a bass line and noise hits. */
    juce::AudioBuffer<float> makeDemoSignal (double sampleRate)
    {
        const auto length = (int) (sampleRate * 4.0);
        juce::AudioBuffer<float> demo (2, length);
        juce::Random random (1300);

        for (int i = 0; i < length; ++i)
        {
            const auto t = i / sampleRate;
            const auto beat = std::fmod (t, 0.5);
            const auto bass = 0.25 * std::sin (2.0 * juce::MathConstants<double>::pi * 55.0 * t);
            const auto chord = 0.08 * (std::sin (2.0 * juce::MathConstants<double>::pi * 440.0 * t)
                                       + std::sin (2.0 * juce::MathConstants<double>::pi * 554.37 * t)
                                       + std::sin (2.0 * juce::MathConstants<double>::pi * 659.25 * t));
            const auto hit = 0.3 * std::exp (-beat * 30.0) * (random.nextFloat() * 2.0f - 1.0f);

            demo.setSample (0, i, (float) (bass + chord + hit));
            demo.setSample (1, i, (float) (bass + 0.9 * chord + hit));
        }

        return demo;
    }

    void render (QuendaAudioProcessor& processor, juce::AudioBuffer<float>& audio, double sampleRate, int blockSize)
    {
        processor.setPlayConfigDetails (audio.getNumChannels(), audio.getNumChannels(), sampleRate, blockSize);
        processor.prepareToPlay (sampleRate, blockSize);

        juce::MidiBuffer midi;

        for (int start = 0; start < audio.getNumSamples(); start += blockSize)
        {
            const auto n = juce::jmin (blockSize, audio.getNumSamples() - start);
            juce::AudioBuffer<float> block (audio.getArrayOfWritePointers(), audio.getNumChannels(), start, n);
            processor.processBlock (block, midi);
        }

        processor.releaseResources();
    }

    bool writeWav (const juce::File& file, const juce::AudioBuffer<float>& audio, double sampleRate)
    {
        file.getParentDirectory().createDirectory();
        file.deleteFile();

        juce::WavAudioFormat wav;
        std::unique_ptr<juce::AudioFormatWriter> writer (wav.createWriterFor (new juce::FileOutputStream (file),
                                                                              sampleRate,
                                                                              (unsigned int) audio.getNumChannels(),
                                                                              24, {}, 0));
        return writer != nullptr && writer->writeFromAudioSampleBuffer (audio, 0, audio.getNumSamples());
    }
}

int main (int argc, char* argv[])
{
    juce::ScopedJuceInitialiser_GUI juceInitialiser;

    const juce::StringArray args (argv + 1, argc - 1);

    if (! args.contains ("--demo"))
    {
        std::cerr << "usage: quenda-render --demo [OUTPUT_FOLDER]\n";
        return 2;
    }

    const auto folderIndex = args.indexOf ("--demo") + 1;
    const auto folder = juce::File::getCurrentWorkingDirectory()
                            .getChildFile (folderIndex < args.size() ? args[folderIndex] : "quenda-demo");

    constexpr double sampleRate = 48000.0;
    auto audio = makeDemoSignal (sampleRate);

    QuendaAudioProcessor processor;
    render (processor, audio, sampleRate, 512);

    const auto output = folder.getChildFile ("demo-processed.wav");

    if (! writeWav (output, audio, sampleRate))
    {
        std::cerr << "quenda-render: cannot write " << output.getFullPathName() << "\n";
        return 5;
    }

    std::cout << "wrote " << output.getFullPathName() << "\n";
    return 0;
}
