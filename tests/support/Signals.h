// SPDX-License-Identifier: GPL-3.0-or-later
// Test signals every test program shares: reproducible noise and an impulse.
#pragma once

#include <juce_audio_basics/juce_audio_basics.h>

namespace quenda_test
{
    /** Uniform noise in -amplitude ... amplitude, the same for the same seed, different per channel. */
    inline juce::AudioBuffer<float> makeNoise (int numChannels, int numSamples, juce::int64 seed = 7,
                                               float amplitude = 0.5f)
    {
        juce::Random random (seed);
        juce::AudioBuffer<float> noise (numChannels, numSamples);

        for (int i = 0; i < numSamples; ++i)
            for (int channel = 0; channel < numChannels; ++channel)
                noise.setSample (channel, i, amplitude * (2.0f * random.nextFloat() - 1.0f));

        return noise;
    }

    /** Silence with one sample of the given height. */
    inline juce::AudioBuffer<float> makeImpulse (int numChannels, int numSamples, int position, float height = 0.5f)
    {
        juce::AudioBuffer<float> impulse (numChannels, numSamples);
        impulse.clear();

        for (int channel = 0; channel < numChannels; ++channel)
            impulse.setSample (channel, position, height);

        return impulse;
    }
}
