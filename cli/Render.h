// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "Options.h"
#include "plugin/PluginProcessor.h"

#include <functional>

namespace cli
{
/** Loads the preset, then the parameter values, into the processor. Throws CliError. */
void applySettings (QuendaAudioProcessor& processor, const Options& options);

/** The state block in a preset file, checked. Throws CliError. */
juce::MemoryBlock readPreset (const juce::File& file);

struct RenderSettings
{
    int blockSize = 512;
    bool latencyCompensation = true;
};

/** Drives a processor the way a host would, except that it waits for the kernels
        before the first block and, by default, removes the processor's latency. */
class Renderer
{
public:
    /** Fills the first numSamples of the block with input from the given position. */
    using Source = std::function<void (juce::AudioBuffer<float>& block, juce::int64 position, int numSamples)>;

    /** Receives output samples [start, start + numSamples) of the block, in order. */
    using Sink = std::function<void (const juce::AudioBuffer<float>& block, int start, int numSamples)>;

    using Progress = std::function<void (juce::int64 done, juce::int64 total)>;

    /** Sets the bus layout and rate and primes the processor: after this its kernels
            exist and its gain glides have settled, so the first real sample is processed. */
    Renderer (QuendaAudioProcessor& processor, int numChannels, double sampleRate, RenderSettings settings);

    /** The latency the processor reports for the current settings. */
    int getLatency() const noexcept { return latency; }

    /** Renders numSamples input samples into as many output samples. */
    void run (juce::int64 numSamples, const Source& source, const Sink& sink, const Progress& progress = {});

private:
    QuendaAudioProcessor& processor;
    const int numChannels;
    const RenderSettings settings;
    int latency = 0;
    juce::AudioBuffer<float> block;
    juce::MidiBuffer midi;
};

/** Renders a whole buffer in memory; the result has the input's length. */
juce::AudioBuffer<float> renderBuffer (QuendaAudioProcessor& processor, const juce::AudioBuffer<float>& input,
                                       double sampleRate, RenderSettings settings = {});

/** A new processor with the same parameter values, through the state block. */
std::unique_ptr<QuendaAudioProcessor> cloneProcessor (QuendaAudioProcessor& processor);
}
