// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_audio_basics/juce_audio_basics.h>
#include <vector>

namespace cli
{
    /** Eight bars of generated program material at 120 bpm: kick, snare, hats, bass, chords
        and a lead, in stereo and peaking at -3 dBFS. The same every time. */
    juce::AudioBuffer<float> makeDemoSignal (double sampleRate, double seconds = 8.0);

    struct BandLevel
    {
        double centre;      // Hz
        double levelDb;     // a full-scale sine at the centre reads 0 dB
    };

    /** Power per octave band (31.5 Hz to 16 kHz), averaged over the channels. */
    std::vector<BandLevel> octaveBandLevels (const juce::AudioBuffer<float>& audio, double sampleRate);
}
