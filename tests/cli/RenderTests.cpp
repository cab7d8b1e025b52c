// SPDX-License-Identifier: GPL-3.0-or-later
// Length, alignment and the first processed samples, end to end through files.

#include "TestSupport.h"
#include "Render.h"

namespace quenda::cli::test
{
namespace
{
    juce::AudioBuffer<float> impulse (int channels, int length, int position = 0)
    {
        juce::AudioBuffer<float> buffer (channels, length);
        buffer.clear();
        for (int c = 0; c < channels; ++c)
            buffer.setSample (c, position, 0.5f);
        return buffer;
    }
}

TEST (RenderAlignment, LinearPhaseImpulsePeaksAtSampleZeroAndKeepsTheLength)
{
    TempFolder temp;
    writeAudio (temp["impulse.wav"], impulse (2, 20000));

    const auto compensated = render ({ temp["impulse.wav"].getFullPathName(), temp["aligned.wav"].getFullPathName(),
                                       "--tilt", "1", "--lin-phase", "-q" });
    ASSERT_EQ (compensated.code, 0) << compensated.err;

    const auto raw = render ({ temp["impulse.wav"].getFullPathName(), temp["raw.wav"].getFullPathName(),
                               "--tilt", "1", "--lin-phase", "--no-latency-compensation", "-q" });
    ASSERT_EQ (raw.code, 0) << raw.err;

    const auto aligned = readAudio (temp["aligned.wav"]);
    const auto delayed = readAudio (temp["raw.wav"]);

    ASSERT_EQ (aligned.audio.getNumSamples(), 20000);
    ASSERT_EQ (delayed.audio.getNumSamples(), 20000);

    for (int channel = 0; channel < 2; ++channel)
    {
        EXPECT_EQ (peakIndex (aligned.audio, channel), 0);
        EXPECT_EQ (peakIndex (delayed.audio, channel), QuendaAudioProcessor::linearPhaseLatency);
    }

    // The compensated render is the raw one moved earlier, not a different signal.
    for (int i = 0; i < 20000 - QuendaAudioProcessor::linearPhaseLatency; ++i)
        ASSERT_EQ (aligned.audio.getSample (0, i), delayed.audio.getSample (0, i + QuendaAudioProcessor::linearPhaseLatency)) << i;
}

TEST (RenderAlignment, TailIsFlushedSoAnImpulseNearTheEndSurvives)
{
    // Without the flush, the last latency's worth of input would never come out.
    const auto input = impulse (1, 5000, 4990);
    QuendaAudioProcessor processor;
    processor.getParameters()[QuendaAudioProcessor::linPhaseIndex]->setValueNotifyingHost (1.0f);

    const auto output = renderBuffer (processor, input, 48000.0);

    ASSERT_EQ (output.getNumSamples(), 5000);
    EXPECT_EQ (peakIndex (output, 0), 4990);
    EXPECT_NEAR (output.getSample (0, 4990), 0.5f, 1.0e-3f);
}

TEST (RenderAlignment, BlockSizeDoesNotChangeTheResult)
{
    const auto input = noise (2, 3001);
    juce::AudioBuffer<float> reference;

    for (auto blockSize : { 512, 64, 4096, 333 })
    {
        QuendaAudioProcessor processor;
        dynamic_cast<PlainFloatParameter*> (processor.getParameters()[QuendaAudioProcessor::tiltIndex])->setPlainValueNotifyingHost (-0.7f);
        dynamic_cast<PlainFloatParameter*> (processor.getParameters()[QuendaAudioProcessor::lowIndex])->setPlainValueNotifyingHost (4.0f);
        processor.getParameters()[QuendaAudioProcessor::linPhaseIndex]->setValueNotifyingHost (1.0f);

        const auto output = renderBuffer (processor, input, 44100.0, { blockSize, true });
        ASSERT_EQ (output.getNumSamples(), 3001) << blockSize;

        if (reference.getNumSamples() == 0)
            reference = output;
        else
            EXPECT_LT (maxDifference (output, reference), 1.0e-4f) << "block size " << blockSize;
    }
}

TEST (RenderAlignment, FirstSamplesAreProcessedNotDry)
{
    // A live host would get dry blocks until the kernels exist; the renderer waits.
    const auto input = noise (2, 2048);

    QuendaAudioProcessor trimmed;
    dynamic_cast<PlainFloatParameter*> (trimmed.getParameters()[QuendaAudioProcessor::trimIndex])->setPlainValueNotifyingHost (-6.0f);
    const auto quieter = renderBuffer (trimmed, input, 48000.0);

    for (int i = 0; i < 16; ++i)
        EXPECT_NEAR (quieter.getSample (0, i), input.getSample (0, i) * 0.501187f, 1.0e-6f) << i;

    QuendaAudioProcessor tilted;
    dynamic_cast<PlainFloatParameter*> (tilted.getParameters()[QuendaAudioProcessor::tiltIndex])->setPlainValueNotifyingHost (1.0f);
    const auto filtered = renderBuffer (tilted, impulse (1, 2048), 48000.0);

    // A minimum-phase tilt spreads the impulse at once: sample 0 is no longer the dry 0.5.
    EXPECT_GT (std::abs (filtered.getSample (0, 0) - 0.5f), 0.01f);
    EXPECT_GT (std::abs (filtered.getSample (0, 1)), 1.0e-4f);
}

TEST (RenderAlignment, LeadingSilenceDoesNotChangeWhatFollows)
{
    // Catches anything that settles during the first blocks: kernels, gain glides.
    const auto signal = noise (2, 2000);
    juce::AudioBuffer<float> padded (2, 4096 + 2000);
    padded.clear();
    for (int c = 0; c < 2; ++c)
        padded.copyFrom (c, 4096, signal, c, 0, 2000);

    const auto renderWithShelves = [] (const juce::AudioBuffer<float>& input)
    {
        QuendaAudioProcessor processor;
        dynamic_cast<PlainFloatParameter*> (processor.getParameters()[QuendaAudioProcessor::lowIndex])->setPlainValueNotifyingHost (6.0f);
        dynamic_cast<PlainFloatParameter*> (processor.getParameters()[QuendaAudioProcessor::highIndex])->setPlainValueNotifyingHost (-3.0f);
        dynamic_cast<PlainFloatParameter*> (processor.getParameters()[QuendaAudioProcessor::tiltIndex])->setPlainValueNotifyingHost (0.4f);
        return renderBuffer (processor, input, 48000.0);
    };

    const auto direct = renderWithShelves (signal);
    const auto late = renderWithShelves (padded);

    for (int c = 0; c < 2; ++c)
        for (int i = 0; i < 2000; ++i)
            ASSERT_NEAR (direct.getSample (c, i), late.getSample (c, 4096 + i), 1.0e-4f) << c << ", " << i;
}

TEST (RenderMono, MonoFileStaysMonoAndMatchesOneSideOfStereo)
{
    TempFolder temp;
    const auto mono = noise (1, 9000);
    juce::AudioBuffer<float> stereo (2, 9000);
    stereo.copyFrom (0, 0, mono, 0, 0, 9000);
    stereo.copyFrom (1, 0, mono, 0, 0, 9000);

    writeAudio (temp["mono.wav"], mono);
    writeAudio (temp["stereo.wav"], stereo);

    const juce::StringArray settings { "--tilt", "0.6", "--low", "3", "--low-freq", "120", "--trim", "-1", "-q" };

    auto monoArgs = settings;
    monoArgs.addArray ({ temp["mono.wav"].getFullPathName(), temp["mono-out.wav"].getFullPathName() });
    auto stereoArgs = settings;
    stereoArgs.addArray ({ temp["stereo.wav"].getFullPathName(), temp["stereo-out.wav"].getFullPathName() });

    ASSERT_EQ (render (monoArgs).code, 0);
    ASSERT_EQ (render (stereoArgs).code, 0);

    const auto monoOut = readAudio (temp["mono-out.wav"]);
    const auto stereoOut = readAudio (temp["stereo-out.wav"]);

    ASSERT_EQ (monoOut.audio.getNumChannels(), 1);
    ASSERT_EQ (monoOut.audio.getNumSamples(), 9000);
    EXPECT_GT (maxDifference (monoOut.audio, mono), 0.01f);
    EXPECT_LT (maxDifference (monoOut.audio, stereoOut.audio, 0), 1.0e-6f);
}
}
