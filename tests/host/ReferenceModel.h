// SPDX-License-Identifier: GPL-3.0-or-later
// What Quenda's output should be, computed another way: the tilt by direct time-domain
// summation over the input (no FFT in the signal path), shelves and trim in double precision.
// Follows the documented block behaviour: every block is processed from the first, whatever
// its length; gains glide over one block, corners change at once.
#pragma once

#include "processor/Biquad.h"
#include "processor/TiltKernelDesign.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace reference
{

struct Settings
{
    float tilt = 0, bypass = 0, linPhase = 0, trim = 0, low = 0, high = 0, lowFreq = 150, highFreq = 4500;

    float& operator[] (int index) { return (&tilt)[index]; }
};

using Block = std::vector<std::vector<float>>;   // [channel][sample]

class Model
{
public:
    static constexpr int kernelLength = tilt::kernelLength;
    static constexpr int linearDelay = tilt::latencySamples;

    /** As a host's effMainsChanged(1) does: the rate and declared block size, then
        prepareToPlay, which designs the kernels and starts every filter and glide from
        silence at the current settings. */
    void start (double newSampleRate, int declaredBlockSize, const Settings& s)
    {
        sampleRate = newSampleRate;
        const bool bypassed = s.bypass >= 0.5f;
        previousTrim = bypassed ? 0.0f : s.trim;
        previousTilt = bypassed ? 0.0 : s.tilt;

        fftSize = 1;
        while (fftSize <= kernelLength + declaredBlockSize - 2)
            fftSize *= 2;

        designKernels();

        for (auto& channel : past)
            channel.assign ((size_t) fftSize, 0.0);

        for (int k = 0; k < 4; ++k)
        {
            auto& shelf = shelves[k];
            shelf = Biquad();
            shelf.type = k < 2 ? Biquad::lowShelfQ : Biquad::highShelfMirrored;
            shelf.Q = k < 2 ? 0.35 : 0.5;
            shelf.sampleRate = sampleRate;
            shelf.Fc = k < 2 ? s.lowFreq : s.highFreq;
            shelf.gainDb = bypassed ? 0.0f : (k < 2 ? s.low : s.high);
            shelf.design();
            glides[k].target = glides[k].previous = (float) shelf.gainDb;
        }

        latencyIsLinear = s.linPhase >= 0.5f;
        reportedLatency = latencyIsLinear ? linearDelay : 0;
    }

    int latency() const { return reportedLatency; }

    /** The expected output of one block: the same kernels whatever the block's length. */
    Block process (const Block& input, const Settings& s)
    {
        Block out = input;
        const bool linear = s.linPhase >= 0.5f;

        if (linear != latencyIsLinear)
        {
            reportedLatency = linear ? linearDelay : 0;
            latencyIsLinear = linear;
        }

        const bool bypassed = s.bypass >= 0.5f;
        tiltStage (out, s, linear, bypassed);
        shelfStage (out, s, bypassed);
        trimStage (out, s, bypassed);
        return out;
    }

private:
    struct Glide { float target = 0, previous = 0; double increment = 0; };

    void designKernels()
    {
        // Kernels of the processor's own size and rate; their shape is verified on its own.
        TiltKernelDesigner designer;
        designer.prepare (fftSize);
        audiofft::FFTW3FFT fft, minimumPhaseFft;
        TiltKernelSpectra spectra;
        TiltKernelTaps taps;
        designer.design (sampleRate, fft, minimumPhaseFft, spectra, &taps);

        const std::vector<float>* sources[] = { &taps.linearFalling, &taps.linearRising,
                                                &taps.minimumFalling, &taps.minimumRising };
        for (int k = 0; k < 4; ++k)
            kernels[k].assign (sources[k]->begin(), sources[k]->end());
    }

    /** Linear convolution, by direct summation, of the input up to and including history[end]. */
    static double convolve (const std::vector<double>& kernel, const std::vector<double>& history, size_t end)
    {
        double sum = 0;
        for (size_t k = 0; k < kernel.size() && k <= end; ++k)
            sum += kernel[k] * history[end - k];
        return sum;
    }

    void tiltStage (Block& out, const Settings& s, bool linear, bool bypassed)
    {
        const auto n = (int) out[0].size();
        const double target = bypassed ? 0.0 : s.tilt;
        const bool gliding = target != previousTilt;
        const auto step = (target - previousTilt) / n;

        for (int c = 0; c < 2; ++c)
        {
            auto& history = past[c];
            history.insert (history.end(), out[c].begin(), out[c].end());
            const auto first = history.size() - (size_t) n;

            const auto& falling = kernels[linear ? 0 : 2];
            const auto& rising = kernels[linear ? 1 : 3];

            for (int i = 0; i < n; ++i)
            {
                const auto now = first + (size_t) i;
                const auto t = gliding ? previousTilt + i * step : target;
                const auto dry = (float) (linear ? history[now - (size_t) linearDelay] : history[now]);
                const auto dryPart = (float) (1.0 - std::abs (t)) * dry;
                const auto wet = t == 0.0 ? 0.0 : (float) convolve (t < 0.0 ? rising : falling, history, now);
                out[c][(size_t) i] = (float) (wet * std::abs (t) + dryPart);
            }

            // Only the last N samples are ever needed again.
            history.erase (history.begin(), history.end() - fftSize);
        }

        previousTilt = target;
    }

    void shelfStage (Block& out, const Settings& s, bool bypassed)
    {
        const auto n = (int) out[0].size();

        for (int k = 0; k < 4; ++k)
        {
            if (! bypassed)
                glides[k].target = k < 2 ? s.low : s.high;
            else
                glides[k].target = 0.0f;

            glides[k].increment = (double) ((glides[k].target - glides[k].previous) / (float) n);
        }

        for (int c = 0; c < 2; ++c)
        {
            if ((double) s.lowFreq != shelves[c].Fc)      { shelves[c].Fc = s.lowFreq; shelves[c].design(); }
            if ((double) s.highFreq != shelves[2 + c].Fc) { shelves[2 + c].Fc = s.highFreq; shelves[2 + c].design(); }

            for (auto index : { c, 2 + c })
            {
                auto& shelf = shelves[index];
                auto& glide = glides[index];

                for (int i = 0; i < n; ++i)
                {
                    const auto gain = glide.target == glide.previous ? glide.target
                                                                     : (float) (glide.previous + i * glide.increment);
                    if ((double) gain != shelf.gainDb)
                    {
                        shelf.gainDb = gain;
                        shelf.design();
                    }

                    // Transposed direct form II in double, state kept across redesigns.
                    const double x = out[c][(size_t) i];
                    const double y = x * shelf.a0 + shelf.z1;
                    shelf.z1 = x * shelf.a1 + shelf.z2 - shelf.b1 * y;
                    shelf.z2 = x * shelf.a2 - shelf.b2 * y;
                    out[c][(size_t) i] = (float) y;
                }
            }
        }

        for (auto& glide : glides)
            glide.previous = glide.target;
    }

    void trimStage (Block& out, const Settings& s, bool bypassed)
    {
        const auto n = (int) out[0].size();
        const auto trim = bypassed ? 0.0f : s.trim;
        const auto g0 = std::pow (10.0, previousTrim / 20.0);
        const auto g1 = std::pow (10.0, trim / 20.0);

        for (auto& channel : out)
            for (int i = 0; i < n; ++i)
                channel[(size_t) i] = (float) (channel[(size_t) i] * (g0 + (g1 - g0) * i / n));

        previousTrim = trim;
    }

    double sampleRate = 0;
    int fftSize = 0;
    int reportedLatency = 0;
    bool latencyIsLinear = false;
    double previousTilt = 0;
    float previousTrim = 0;

    std::vector<double> kernels[4];
    std::vector<double> past[2];
    Biquad shelves[4];
    Glide glides[4];
};

}
