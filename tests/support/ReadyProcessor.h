// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "processor/PluginProcessor.h"

#include <memory>

namespace quenda_test
{
    using Processor = QuendaAudioProcessor;

    inline void setParameter (Processor& processor, int index, float plainValue)
    {
        processor.getParameters()[index]->setValue (plainValue);
    }

    /** Takes a processor through the blocks that precede normal processing: a silent one that
        sizes the engine, a dry one after the new sample rate, then the kernel computation the
        message thread would run. */
    inline void makeReady (Processor& processor, int blockSize, double sampleRate = 48000.0)
    {
        processor.setPlayConfigDetails (2, 2, sampleRate, blockSize);
        processor.prepareToPlay (sampleRate, blockSize);

        juce::AudioBuffer<float> buffer (2, blockSize);
        juce::MidiBuffer midi;

        for (int block = 0; block < 2; ++block)
        {
            buffer.clear();
            processor.processBlock (buffer, midi);
        }

        processor.handleUpdateNowIfNeeded();
    }

    /** A new processor with linear phase on and a tilt, so every block runs the convolution. */
    inline std::unique_ptr<Processor> makeConvolvingProcessor (int blockSize, float tilt = 0.7f)
    {
        auto processor = std::make_unique<Processor>();
        setParameter (*processor, Processor::linPhaseIndex, 1.0f);
        setParameter (*processor, Processor::tiltIndex, tilt);
        makeReady (*processor, blockSize);
        return processor;
    }

    /** Reproducible stereo noise at half scale. */
    inline juce::AudioBuffer<float> makeNoise (int numSamples, juce::int64 seed)
    {
        juce::Random random (seed);
        juce::AudioBuffer<float> noise (2, numSamples);

        for (int channel = 0; channel < 2; ++channel)
            for (int i = 0; i < numSamples; ++i)
                noise.setSample (channel, i, random.nextFloat() - 0.5f);

        return noise;
    }

    /** One block of a longer buffer, without copying. */
    inline juce::AudioBuffer<float> blockOf (juce::AudioBuffer<float>& buffer, int start, int length)
    {
        return { buffer.getArrayOfWritePointers(), buffer.getNumChannels(), start, length };
    }

    /** Runs the whole of input through the processor in blocks of blockSize, in place. */
    inline void processInBlocks (Processor& processor, juce::AudioBuffer<float>& audio, int blockSize)
    {
        juce::MidiBuffer midi;

        for (int start = 0; start < audio.getNumSamples(); start += blockSize)
        {
            auto block = blockOf (audio, start, std::min (blockSize, audio.getNumSamples() - start));
            processor.processBlock (block, midi);
        }
    }
}
