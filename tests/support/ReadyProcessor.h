// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "plugin/PluginProcessor.h"
#include "Signals.h"

#include <memory>

namespace support
{
using Processor = QuendaAudioProcessor;

inline void setParameter (Processor& processor, int index, float plainValue)
{
    processor.getParameters()[index]->setValue (plainValue);
}

// As a host starts playback: stereo, then prepareToPlay, which designs the kernels.
inline void makeReady (Processor& processor, int blockSize, double sampleRate = 48000.0)
{
    processor.setPlayConfigDetails (2, 2, sampleRate, blockSize);
    processor.prepareToPlay (sampleRate, blockSize);
}

// A ready processor with linear phase on and a tilt, so every block runs the convolution.
inline std::unique_ptr<Processor> makeConvolvingProcessor (int blockSize, float tilt = 0.7f)
{
    auto processor = std::make_unique<Processor>();
    setParameter (*processor, ParameterTable::linPhaseIndex, 1.0f);
    setParameter (*processor, ParameterTable::tiltIndex, tilt);
    makeReady (*processor, blockSize);
    return processor;
}

// One block of a longer buffer, without copying.
inline juce::AudioBuffer<float> blockOf (juce::AudioBuffer<float>& buffer, int start, int length)
{
    return { buffer.getArrayOfWritePointers(), buffer.getNumChannels(), start, length };
}

// Runs the whole buffer through the processor in place, in blocks of blockSize.
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
