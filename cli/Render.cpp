// SPDX-License-Identifier: GPL-3.0-or-later
#include "Render.h"
#include "CliError.h"

namespace cli
{
juce::MemoryBlock readPreset (const juce::File& file)
{
    if (! file.existsAsFile())
        throw CliError (ExitCode::inputUnreadable, "preset " + quoted (file) + (file.isDirectory() ? " is a folder" : ": no such file"));

    juce::MemoryBlock data;

    if (! file.loadFileAsData (data))
        throw CliError (ExitCode::inputUnreadable, "preset " + quoted (file) + ": cannot read it");

    // The processor ignores blocks it does not recognise; say so instead of rendering flat.
    if (! StateBlock::read (data.getData(), (int) data.getSize()))
        throw CliError (ExitCode::badFormat, "preset " + quoted (file) + " is not a Quenda state block");

    return data;
}

void applySettings (QuendaAudioProcessor& processor, const Options& options)
{
    if (options.presetToLoad.isNotEmpty())
    {
        const auto state = readPreset (juce::File::getCurrentWorkingDirectory().getChildFile (options.presetToLoad));
        processor.setStateInformation (state.getData(), (int) state.getSize());
    }

    for (const auto& [id, value] : options.parameterValues)
    {
        const auto index = ParameterTable::indexOf (id.toStdString());

        if (index < ParameterTable::numParameters)
            processor.getParameterSet().setPlainValue (index, value);
    }
}

std::unique_ptr<QuendaAudioProcessor> cloneProcessor (QuendaAudioProcessor& processor)
{
    juce::MemoryBlock state;
    processor.getStateInformation (state);

    auto copy = std::make_unique<QuendaAudioProcessor>();
    copy->setStateInformation (state.getData(), (int) state.getSize());
    return copy;
}

//==============================================================================
Renderer::Renderer (QuendaAudioProcessor& processorToUse, int channels, double sampleRate, RenderSettings settingsToUse)
    : processor (processorToUse), numChannels (channels), settings (settingsToUse),
      block (channels, settingsToUse.blockSize)
{
    processor.setPlayConfigDetails (numChannels, numChannels, sampleRate, settings.blockSize);

    if (processor.getTotalNumInputChannels() != numChannels || processor.getTotalNumOutputChannels() != numChannels)
        throw CliError (ExitCode::internalError, "the processor refused a " + juce::String (numChannels) + "-channel layout");

    // Designs the kernels and sets every filter to the settings: the first block is final.
    processor.prepareToPlay (sampleRate, settings.blockSize);
    latency = processor.getLatencySamples();
}

void Renderer::run (juce::int64 numSamples, const Source& source, const Sink& sink, const Progress& progress)
{
    const auto n = settings.blockSize;
    const juce::int64 toSkip = settings.latencyCompensation ? latency : 0;
    juce::int64 inputPosition = 0, skipped = 0, written = 0;

    while (written < numSamples)
    {
        block.clear();
        const auto available = (int) juce::jlimit ((juce::int64) 0, (juce::int64) n, numSamples - inputPosition);

        // Past the end the processor gets silence, which flushes the delayed tail.
        if (available > 0)
            source (block, inputPosition, available);

        inputPosition += n;
        processor.processBlock (block, midi);

        int start = 0;

        if (skipped < toSkip)
        {
            start = (int) std::min ((juce::int64) n, toSkip - skipped);
            skipped += start;
        }

        const auto count = (int) std::min ((juce::int64) (n - start), numSamples - written);

        if (count > 0)
        {
            sink (block, start, count);
            written += count;
        }

        if (progress)
            progress (written, numSamples);
    }
}

juce::AudioBuffer<float> renderBuffer (QuendaAudioProcessor& processor, const juce::AudioBuffer<float>& input,
                                       double sampleRate, RenderSettings settings)
{
    const auto channels = input.getNumChannels();
    juce::AudioBuffer<float> output (channels, input.getNumSamples());
    Renderer renderer (processor, channels, sampleRate, settings);
    int writePosition = 0;

    renderer.run (
        input.getNumSamples(),
        [&] (juce::AudioBuffer<float>& block, juce::int64 position, int count)
        {
            for (int channel = 0; channel < channels; ++channel)
                block.copyFrom (channel, 0, input, channel, (int) position, count);
        },
        [&] (const juce::AudioBuffer<float>& block, int start, int count)
        {
            for (int channel = 0; channel < channels; ++channel)
                output.copyFrom (channel, writePosition, block, channel, start, count);

            writePosition += count;
        });

    return output;
}
}
