// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_audio_basics/juce_audio_basics.h>

#include <memory>
#include <vector>

namespace cli
{
/** Integrated loudness (ITU-R BS.1770, gated) by libebur128, of audio given a block at a time. */
class LoudnessMeter
{
public:
    LoudnessMeter (int numChannels, double sampleRate);
    ~LoudnessMeter();

    void add (const juce::AudioBuffer<float>& block, int start, int numSamples);

    /** In LUFS; minus infinity for silence or audio too short to measure. */
    double integrated() const;

private:
    struct State;
    std::unique_ptr<State> state;
    const int numChannels;
    std::vector<float> interleaved;
};
}
