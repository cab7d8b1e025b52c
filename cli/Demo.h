// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "dsp/AudioFFT.h"

#include <juce_audio_basics/juce_audio_basics.h>
#include <vector>

namespace cli
{
/** Eight bars of generated program material at 120 bpm: kick, snare, hats, bass, chords
        and a lead, in stereo and peaking at -3 dBFS. The same every time. */
juce::AudioBuffer<float> makeDemoSignal (double sampleRate, double seconds = 8.0);

struct BandLevel
{
    double centre;    // Hz
    double levelDb;   // a full-scale sine at the centre reads 0 dB
};

/** Power per octave band (31.5 Hz to 16 kHz), averaged over the channels, of audio
        given a block at a time, so that a file of any length fits. */
class OctaveBandMeter
{
public:
    OctaveBandMeter (int numChannels, double sampleRate);

    void add (const juce::AudioBuffer<float>& block, int start, int numSamples);
    std::vector<BandLevel> levels() const;

private:
    static constexpr int size = 16384, hop = size / 2;

    const double sampleRate;
    audiofft::FFTW3FFT fft;
    std::vector<float> window, frame, re, im;
    std::vector<std::vector<float>> pending;   // per channel, up to one frame
    int filled = 0;
    std::vector<double> power;
    int frames = 0;
};

/** The same for a whole buffer. */
std::vector<BandLevel> octaveBandLevels (const juce::AudioBuffer<float>& audio, double sampleRate);

/** The table --demo and --analyse print: level per band before, after and the change. */
juce::String bandTable (const std::vector<BandLevel>& before, const std::vector<BandLevel>& after);
}
