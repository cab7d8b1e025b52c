// SPDX-License-Identifier: GPL-3.0-or-later
// Quenda.so through the VST2 ABI side by side with a model computed another way: the tilt by
// direct summation (no FFT), shelves and trim in double. Every block is processed from the
// first, whatever its length; gains glide over one block (except into the first block after a
// start, which takes its settings at once), corners change at once.
#pragma once

#include "Vst2Host.h"
#include "dsp/Biquad.h"
#include "dsp/TiltKernelDesign.h"
#include "tests/support/Signals.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

struct Settings
{
    float tilt = 0, bypass = 0, linPhase = 0, trim = 0, low = 0, high = 0, lowFreq = 150, highFreq = 4500;

    float& operator[] (int index)
    {
        float* const byIndex[] = { &tilt, &bypass, &linPhase, &trim, &low, &high, &lowFreq, &highFreq };
        return *byIndex[index];
    }
};

using Block = std::vector<std::vector<float>>;   // [channel][sample]

class ReferenceModel
{
public:
    /** As a host's effMainsChanged(1) does: prepareToPlay designs the kernels and starts
        every filter and glide from silence at the current settings. */
    void start (double sampleRate, const Settings& s)
    {
        rate = sampleRate;
        startFrom (s);

        // The processor's kernels, whatever the block size; their shape is verified on its own.
        TiltKernelDesigner designer;
        designer.prepare (tilt::designFftSize);
        audiofft::FFTW3FFT fft, minimumPhaseFft;
        TiltKernelSpectra spectra;
        TiltKernelTaps taps;
        designer.design (sampleRate, fft, minimumPhaseFft, spectra, &taps);
        size_t k = 0;
        for (auto* source : { &taps.linearFalling, &taps.linearRising, &taps.minimumFalling, &taps.minimumRising })
            kernels[k++].assign (source->begin(), source->end());

        for (auto& channel : past)
            channel.assign ((size_t) tilt::kernelLength, 0.0);
    }

    /** Glides, shelves and latency at these settings, as prepareToPlay leaves them; the
        first block takes the settings it is given the same way. */
    void startFrom (const Settings& s)
    {
        const bool bypassed = s.bypass >= 0.5f;
        previousTrim = bypassed ? 0.0f : s.trim;
        previousTilt = bypassed ? 0.0 : s.tilt;

        for (size_t i = 0; i < 4; ++i)
        {
            const bool low = i < 2;
            shelves[i] = Shelf();
            shelves[i].corner = low ? s.lowFreq : s.highFreq;
            shelves[i].gainDb = bypassed ? 0.0f : (low ? s.low : s.high);
            shelves[i].design (low, rate);
            previousGain[i] = (float) shelves[i].gainDb;
        }

        latencySamples = s.linPhase >= 0.5f ? tilt::latencySamples : 0;
        firstBlock = true;
    }

    int latency() const { return latencySamples; }

    /** The expected output of one block. */
    Block process (Block out, const Settings& s)
    {
        if (firstBlock)
            startFrom (s);
        firstBlock = false;

        const bool linear = s.linPhase >= 0.5f, bypassed = s.bypass >= 0.5f;
        latencySamples = linear ? tilt::latencySamples : 0;
        const auto n = out[0].size();

        // The tilt: wet from the kernel of the tilt's sign, dry delayed in linear phase.
        const double tiltTarget = bypassed ? 0.0 : s.tilt;
        for (size_t c = 0; c < 2; ++c)
        {
            auto& history = past[c];
            history.insert (history.end(), out[c].begin(), out[c].end());
            const auto first = history.size() - n;

            const auto step = (tiltTarget - previousTilt) / (double) n;
            for (size_t i = 0; i < n; ++i)
            {
                const auto now = first + i;
                const auto t = tiltTarget != previousTilt ? previousTilt + (double) i * step : tiltTarget;
                const auto dry = (float) history[linear ? now - (size_t) tilt::latencySamples : now];
                const auto& kernel = kernels[(linear ? 0 : 2) + (t < 0.0 ? 1 : 0)];
                double wet = 0;
                for (size_t k = 0; t != 0.0 && k < kernel.size() && k <= now; ++k)
                    wet += kernel[k] * history[now - k];
                out[c][i] = (float) ((t == 0.0 ? 0.0 : (double) (float) wet) * std::abs (t) + (double) ((float) (1.0 - std::abs (t)) * dry));
            }

            history.erase (history.begin(), history.end() - tilt::kernelLength);   // all the kernels reach back
        }
        previousTilt = tiltTarget;

        // The shelves: gains glide over the block, redesigning the section where they move;
        // a new corner applies at once. Transposed direct form II in double.
        for (size_t index = 0; index < 4; ++index)
        {
            auto& shelf = shelves[index];
            const bool low = index < 2;
            const auto target = bypassed ? 0.0f : (low ? s.low : s.high);
            const auto increment = (double) ((target - previousGain[index]) / (float) n);
            const auto corner = (double) (low ? s.lowFreq : s.highFreq);
            if (corner != shelf.corner)
            {
                shelf.corner = corner;
                shelf.design (low, rate);
            }

            for (size_t i = 0; i < n; ++i)
            {
                const auto gain = target == previousGain[index] ? target : (float) (previousGain[index] + (double) i * increment);
                if ((double) gain != shelf.gainDb)
                {
                    shelf.gainDb = gain;
                    shelf.design (low, rate);
                }

                auto& sample = out[index % 2][i];
                const auto& c = shelf.coefficients;
                const double x = sample, y = x * c.b0 + shelf.z1;
                shelf.z1 = x * c.b1 + shelf.z2 - c.a1 * y;
                shelf.z2 = x * c.b2 - c.a2 * y;
                sample = (float) y;
            }
            previousGain[index] = target;
        }

        // The trim: a linear gain ramp over the block.
        const auto trim = bypassed ? 0.0f : s.trim;
        const auto g0 = std::pow (10.0, previousTrim / 20.0), g1 = std::pow (10.0, trim / 20.0);
        for (auto& channel : out)
            for (size_t i = 0; i < n; ++i)
                channel[i] = (float) (channel[i] * (g0 + (g1 - g0) * (double) i / (double) n));
        previousTrim = trim;
        return out;
    }

private:
    int latencySamples = 0;
    double previousTilt = 0;
    float previousTrim = 0, previousGain[4] {};
    std::vector<double> kernels[4], past[2];
    /** A shelf's design and its own recurrence (the plug-in's runs in Biquad). */
    struct Shelf
    {
        double corner = 0, gainDb = 0, z1 = 0, z2 = 0;
        Biquad::Coefficients coefficients;

        void design (bool low, double sampleRate)
        {
            coefficients = low ? Biquad::lowShelf (corner, 0.35, gainDb, sampleRate) : Biquad::highShelf (corner, 0.5, gainDb, sampleRate);
        }
    };

    double rate = 0;
    bool firstBlock = false;
    Shelf shelves[4];   // low left, low right, high left, high right
};

namespace
{
/** Drives the plug-in and the model side by side, block by block. */
struct Session
{
    explicit Session (int blockSize, Settings initial = {}, double rate = 48000.0)
        : declaredBlockSize (blockSize), settings (initial)
    {
        apply();
        plugin.start ((float) rate, declaredBlockSize);
        model.start (rate, settings);
    }

    /** As a host changing the rate: stopped, then started again at the new one. */
    void restart (double rate)
    {
        plugin.stop();
        plugin.start ((float) rate, declaredBlockSize);
        model.start (rate, settings);
    }

    void apply()
    {
        for (int i = 0; i < 8; ++i)
            plugin.setParameter (i, settings[i]);
    }

    /** Runs one block of noise through both and compares the output sample by sample. */
    void block (int n, const char* what)
    {
        Block input;
        for (unsigned c = 0; c < 2; ++c)
            input.push_back (support::noise ((size_t) n, 2 * (unsigned) blockCount + c, 0.5f));

        apply();
        const auto expected = model.process (input, settings);
        plugin.process (input[0], input[1], 0, n);

        for (size_t c = 0; c < 2; ++c)
            for (size_t i = 0; i < (size_t) n; ++i)
                if (! (std::abs ((double) input[c][i] - expected[c][i]) < 2e-5))   // NaN fails too
                {
                    ADD_FAILURE() << what << ", block " << blockCount << ", channel " << c << ", sample " << i
                                  << ": got " << input[c][i] << ", expected " << expected[c][i];
                    break;
                }

        EXPECT_EQ (model.latency(), plugin.latency()) << what << ", block " << blockCount;
        ++blockCount;
    }

    const int declaredBlockSize;
    vst2host::Instance plugin;
    ReferenceModel model;
    Settings settings;
    int blockCount = 0;
};
}
