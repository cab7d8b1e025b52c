// SPDX-License-Identifier: GPL-3.0-or-later
// Test signals every test program shares: reproducible noise, an impulse, and how far two
// outputs differ.
#pragma once

#include <juce_audio_basics/juce_audio_basics.h>

#include <algorithm>
#include <cmath>

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

    /** The largest difference over both channels from the given sample on; NaN when either
        buffer holds one. */
    inline float maxDifference (const juce::AudioBuffer<float>& a, const juce::AudioBuffer<float>& b, int from = 0)
    {
        float worst = 0.0f;
        for (int i = 2 * from; i < 2 * a.getNumSamples(); ++i)
        {
            const auto difference = std::abs (a.getSample (i % 2, i / 2) - b.getSample (i % 2, i / 2));
            if (std::isnan (difference))
                return difference;   // std::max would drop it at the next sample
            worst = std::max (difference, worst);
        }
        return worst;
    }
}
