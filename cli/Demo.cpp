// SPDX-License-Identifier: GPL-3.0-or-later
#include "Demo.h"
#include "dsp/AudioFFT.h"

#include <algorithm>
#include <cmath>

namespace cli
{
namespace
{
    constexpr double twoPi = juce::MathConstants<double>::twoPi;

    double noteFrequency (int midiNote)
    {
        return 440.0 * std::pow (2.0, (midiNote - 69) / 12.0);
    }

    /** A few harmonics with falling weights: a soft saw. */
    double softSaw (double phase, int harmonics)
    {
        double sum = 0.0;

        for (int k = 1; k <= harmonics; ++k)
            sum += std::sin (twoPi * k * phase) / k;

        return sum * 0.6;
    }
}

juce::AudioBuffer<float> makeDemoSignal (double sampleRate, double seconds)
{
    const auto length = (int) (sampleRate * seconds);
    const auto beat = 0.5;   // 120 bpm
    const int bassLine[] = { 33, 33, 45, 33, 31, 31, 43, 36 };
    const int chords[][3] = { { 57, 60, 64 }, { 55, 59, 62 }, { 53, 57, 60 }, { 55, 59, 64 } };
    const int melody[] = { 76, 74, 72, 74, 76, 76, 76, 0, 74, 74, 74, 0, 76, 79, 79, 0 };

    juce::AudioBuffer<float> demo (2, length);
    juce::Random random (1300);
    double kickPhase = 0.0, bassPhase = 0.0, leadPhase = 0.0;
    double chordPhases[3][2] = {};
    float hatState = 0.0f;

    for (int i = 0; i < length; ++i)
    {
        const auto t = i / sampleRate;
        const auto beatIndex = (int) (t / beat);
        const auto inBeat = t - beatIndex * beat;
        const auto eighth = std::fmod (t, beat / 2.0);
        const auto bar = beatIndex / 4;

        // Kick on every beat: a falling sine.
        const auto kickFrequency = 50.0 + 110.0 * std::exp (-inBeat * 30.0);
        kickPhase += kickFrequency / sampleRate;
        const auto kick = 0.8 * std::sin (twoPi * kickPhase) * std::exp (-inBeat * 9.0);

        // Snare on beats 2 and 4: noise and a body tone.
        const auto noise = random.nextFloat() * 2.0 - 1.0;
        const auto snareEnvelope = (beatIndex % 2 == 1) ? std::exp (-inBeat * 18.0) : 0.0;
        const auto snare = snareEnvelope * (0.35 * noise + 0.25 * std::sin (twoPi * 185.0 * inBeat));

        // Hats on the eighths: differentiated noise is bright.
        const auto hatNoise = (float) (random.nextFloat() * 2.0 - 1.0);
        const auto hat = 0.12 * (hatNoise - hatState) * std::exp (-eighth * 60.0);
        hatState = hatNoise;

        // Bass: one note per beat, plucked.
        bassPhase += noteFrequency (bassLine[beatIndex % 8]) / sampleRate;
        const auto bass = 0.35 * softSaw (bassPhase, 6) * (0.4 + 0.6 * std::exp (-inBeat * 6.0));

        // Chords: one per bar, slightly detuned between the sides.
        double chordLeft = 0.0, chordRight = 0.0;
        const auto& chord = chords[bar % 4];
        const auto swell = 1.0 - std::exp (-std::fmod (t, 4.0 * beat) * 8.0);

        for (int v = 0; v < 3; ++v)
        {
            chordPhases[v][0] += noteFrequency (chord[v]) * 0.999 / sampleRate;
            chordPhases[v][1] += noteFrequency (chord[v]) * 1.001 / sampleRate;
            chordLeft += softSaw (chordPhases[v][0], 8);
            chordRight += softSaw (chordPhases[v][1], 8);
        }

        chordLeft *= 0.05 * swell;
        chordRight *= 0.05 * swell;

        // Lead: eighth notes with vibrato, rests where the melody has 0.
        const auto note = melody[(int) (t / (beat / 2.0)) % 16];
        double lead = 0.0;

        if (note != 0)
        {
            const auto vibrato = 1.0 + 0.004 * std::sin (twoPi * 5.5 * t);
            leadPhase += noteFrequency (note) * vibrato / sampleRate;
            lead = 0.12 * (std::sin (twoPi * leadPhase) + 0.3 * std::sin (2.0 * twoPi * leadPhase))
                   * std::min (1.0, eighth * 80.0) * std::exp (-eighth * 3.0);
        }

        const auto centre = kick + snare + bass;
        demo.setSample (0, i, (float) (centre + 0.8 * hat + chordLeft + 0.7 * lead));
        demo.setSample (1, i, (float) (centre + 1.2 * hat + chordRight + 1.0 * lead));
    }

    const auto peak = demo.getMagnitude (0, length);

    if (peak > 0.0f)
        demo.applyGain (0.7079f / peak);

    return demo;
}

OctaveBandMeter::OctaveBandMeter (int numChannels, double rate)
    : sampleRate (rate), window (size), frame (size), re (size / 2 + 1), im (size / 2 + 1),
      pending ((size_t) numChannels, std::vector<float> (size)), power (size / 2 + 1, 0.0)
{
    fft.init (size);

    for (int i = 0; i < size; ++i)
        window[(size_t) i] = (float) (0.5 - 0.5 * std::cos (twoPi * i / size));
}

void OctaveBandMeter::add (const juce::AudioBuffer<float>& block, int start, int numSamples)
{
    // Frames of `size` samples every `hop`: each channel's last frame waits in `pending`.
    while (numSamples > 0)
    {
        const auto count = std::min (numSamples, size - filled);

        for (size_t channel = 0; channel < pending.size(); ++channel)
            std::copy_n (block.getReadPointer ((int) channel, start), count, pending[channel].data() + filled);

        filled += count;
        start += count;
        numSamples -= count;

        if (filled < size)
            break;

        for (auto& samples : pending)
        {
            for (int i = 0; i < size; ++i)
                frame[(size_t) i] = samples[(size_t) i] * window[(size_t) i];

            fft.fft (frame.data(), re.data(), im.data());

            for (size_t k = 0; k < power.size(); ++k)
                power[k] += (double) re[k] * re[k] + (double) im[k] * im[k];

            ++frames;
            std::copy (samples.begin() + hop, samples.end(), samples.begin());
        }

        filled = size - hop;
    }
}

std::vector<BandLevel> OctaveBandMeter::levels() const
{
    // A Hann-windowed sine of amplitude 1 puts 3 * size^2 / 32 of energy into the positive bins.
    const auto reference = 3.0 * size * size / 32.0 * std::max (frames, 1);
    std::vector<BandLevel> bands;

    for (auto centre : { 31.5, 63.0, 125.0, 250.0, 500.0, 1000.0, 2000.0, 4000.0, 8000.0, 16000.0 })
    {
        if (centre * std::sqrt (2.0) >= sampleRate / 2.0)
            break;

        const auto binOf = [&] (double frequency)
        { return (size_t) std::lround (frequency * size / sampleRate); };
        double sum = 0.0;

        for (auto k = binOf (centre / std::sqrt (2.0)); k < binOf (centre * std::sqrt (2.0)) && k < power.size(); ++k)
            sum += power[k];

        bands.push_back ({ centre, 10.0 * std::log10 (std::max (sum / reference, 1.0e-12)) });
    }

    return bands;
}

std::vector<BandLevel> octaveBandLevels (const juce::AudioBuffer<float>& audio, double sampleRate)
{
    OctaveBandMeter meter (audio.getNumChannels(), sampleRate);
    meter.add (audio, 0, audio.getNumSamples());
    return meter.levels();
}

juce::String bandTable (const std::vector<BandLevel>& before, const std::vector<BandLevel>& after)
{
    juce::String text ("Octave band   before     after    change\n");

    for (size_t i = 0; i < before.size() && i < after.size(); ++i)
    {
        const auto centre = before[i].centre;
        const auto label = centre >= 1000.0 ? juce::String (centre / 1000.0) + " kHz" : juce::String (centre) + " Hz";
        const auto change = after[i].levelDb - before[i].levelDb;
        text << label.paddedLeft (' ', 9) << juce::String (before[i].levelDb, 1).paddedLeft (' ', 9) << " dB"
             << juce::String (after[i].levelDb, 1).paddedLeft (' ', 7) << " dB"
             << ((change >= 0.0 ? "+" : "") + juce::String (change, 1)).paddedLeft (' ', 7) << " dB\n";
    }

    return text;
}
}
