// SPDX-License-Identifier: GPL-3.0-or-later
// The test signals every test program shares: reproducible noise, an impulse, a sine, and how
// far two outputs differ. The buffer forms exist where JUCE is on the include path.
#pragma once

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace support
{
/** Uniform noise in -amplitude ... amplitude, the same for the same seed. */
inline std::vector<float> noise (size_t numSamples, unsigned seed, float amplitude = 1.0f)
{
    std::mt19937 random (seed);
    std::uniform_real_distribution<float> sample (-amplitude, amplitude);
    std::vector<float> samples (numSamples);
    for (auto& s : samples)
        s = sample (random);
    return samples;
}
}

#if __has_include(<juce_audio_basics/juce_audio_basics.h>)
 #include <juce_audio_basics/juce_audio_basics.h>

namespace support
{
/** Noise as above, a different stream per channel. */
inline juce::AudioBuffer<float> makeNoise (int numChannels, int numSamples, unsigned seed = 7, float amplitude = 0.5f)
{
    juce::AudioBuffer<float> buffer (numChannels, numSamples);
    for (int c = 0; c < numChannels; ++c)
    {
        const auto samples = noise ((size_t) numSamples, seed + 1000u * (unsigned) c, amplitude);
        buffer.copyFrom (c, 0, samples.data(), numSamples);
    }
    return buffer;
}

/** Silence with one sample of the given height in every channel. */
inline juce::AudioBuffer<float> makeImpulse (int numChannels, int numSamples, int position, float height = 0.5f)
{
    juce::AudioBuffer<float> buffer (numChannels, numSamples);
    buffer.clear();
    for (int c = 0; c < numChannels; ++c)
        buffer.setSample (c, position, height);
    return buffer;
}

/** A sine of the given frequency in cycles per sample, from the given phase, in every channel. */
inline juce::AudioBuffer<float> makeSine (int numChannels, int numSamples, double cyclesPerSample, double fromSample = 0.0,
                                          float amplitude = 0.5f)
{
    juce::AudioBuffer<float> buffer (numChannels, numSamples);
    for (int i = 0; i < numSamples; ++i)
        for (int c = 0; c < numChannels; ++c)
            buffer.setSample (c, i, amplitude * (float) std::sin (juce::MathConstants<double>::twoPi * cyclesPerSample * (fromSample + i)));
    return buffer;
}

/** The largest difference over all channels from the given sample on; NaN when either
        buffer holds one (std::max would drop it). */
inline float maxDifference (const juce::AudioBuffer<float>& a, const juce::AudioBuffer<float>& b, int from = 0)
{
    float worst = 0.0f;
    for (int c = 0; c < a.getNumChannels(); ++c)
        for (int i = from; i < a.getNumSamples(); ++i)
        {
            const auto difference = std::abs (a.getSample (c, i) - b.getSample (c, i));
            if (std::isnan (difference))
                return difference;
            worst = std::max (difference, worst);
        }
    return worst;
}
}
#endif
