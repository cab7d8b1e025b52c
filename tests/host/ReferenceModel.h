// SPDX-License-Identifier: GPL-3.0-or-later
// What Quenda's output should be, computed another way: the tilt by direct time-domain
// summation over each block's input segment (no FFT in the signal path), shelves and trim
// in double precision. Follows the documented block behaviour: a block longer than any
// before is silent and regrows the buffers, the block after a sample-rate change is dry,
// gains glide over one block, corners change at once.
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

    /** As a host's effMainsChanged(1) does: the rate and declared block size, then prepareToPlay. */
    void start (double newSampleRate, int newDeclaredBlockSize, const Settings& s)
    {
        sampleRate = newSampleRate;
        declaredBlockSize = newDeclaredBlockSize;
        previousTrim = s.trim;
        previousTilt = s.tilt;

        for (int c = 0; c < 2; ++c)
        {
            shelves[c].configure (Biquad::lowShelfQ, s.lowFreq, 0.35, s.low, sampleRate);
            shelves[2 + c].configure (Biquad::highShelfMirrored, s.highFreq, 0.5, s.high, sampleRate);
        }

        for (auto& g : glides)
            g.previous = g.target;
    }

    int latency() const { return reportedLatency; }

    /** The expected output of one block. */
    Block process (const Block& input, const Settings& s)
    {
        const auto n = (int) input[0].size();
        Block out = input;

        if (n > preparedBlockSize)
        {
            for (auto& channel : out)
                std::fill (channel.begin(), channel.end(), 0.0f);

            prepare (std::max (n, declaredBlockSize));
        }

        const bool linear = s.linPhase >= 0.5f;

        if (linear != latencyIsLinear)
        {
            reportedLatency = linear ? linearDelay : 0;
            latencyIsLinear = linear;
        }

        if (sampleRate != designedRate)
        {
            for (auto& shelf : shelves)
            {
                if (sampleRate > 0 && sampleRate < 384000)
                    shelf.sampleRate = sampleRate;
                shelf.design();
            }

            designedRate = sampleRate;
            designKernels();
            return out;
        }

        const bool bypassed = s.bypass >= 0.5f;
        tiltStage (out, s, linear, bypassed);
        shelfStage (out, s, bypassed);
        trimStage (out, s, bypassed);
        return out;
    }

private:
    struct Glide { float target = 0, previous = 0; double increment = 0; };

    void prepare (int blockSize)
    {
        preparedBlockSize = blockSize;
        fftSize = 1;
        while (fftSize <= kernelLength + blockSize - 2)
            fftSize *= 2;

        for (int c = 0; c < 2; ++c)
        {
            past[c].assign ((size_t) kernelLength - 1, 0.0);
            dryLine[c].assign ((size_t) (blockSize + linearDelay), 0.0f);
        }

        designKernels();
    }

    void designKernels()
    {
        // Kernels of the processor's own size and rate; their shape is verified on its own.
        TiltKernelDesigner designer;
        designer.prepare (fftSize);
        audiofft::FFTW3FFT fft, minimumPhaseFft;
        fft.init ((size_t) fftSize);
        TiltKernelSpectra spectra;
        spectra.resize (fftSize);
        designer.design (sampleRate, fft, minimumPhaseFft, spectra);

        const std::vector<tilt::Complex>* sources[] = { &spectra.linearFalling, &spectra.linearRising,
                                                        &spectra.minimumFalling, &spectra.minimumRising };
        std::vector<float> taps ((size_t) fftSize);

        for (int k = 0; k < 4; ++k)
        {
            fft.ifft (taps.data(), *sources[k]);
            kernels[k].assign (taps.begin(), taps.end());
        }
    }

    /** Output sample j of the block: the circular convolution of the zero-padded segment
        (the last L - 1 + n inputs) with the N-tap kernel, at index L - 1 + j. */
    double convolve (const std::vector<double>& kernel, const std::vector<double>& segment, int j) const
    {
        const auto m = kernelLength - 1 + j;
        const auto length = (int) segment.size();
        double sum = 0;

        for (int k = 0; k < fftSize; ++k)
        {
            auto index = m - k;
            if (index < 0)
                index += fftSize;
            if (index < length && kernel[(size_t) k] != 0.0)
                sum += kernel[(size_t) k] * segment[(size_t) index];
        }

        return sum;
    }

    void tiltStage (Block& out, const Settings& s, bool linear, bool bypassed)
    {
        const auto n = (int) out[0].size();
        const double target = bypassed ? 0.0 : s.tilt;
        const bool gliding = target != previousTilt;
        const auto step = (target - previousTilt) / n;
        const auto delay = linear ? linearDelay : 0;

        for (int c = 0; c < 2; ++c)
        {
            past[c].insert (past[c].end(), out[c].begin(), out[c].end());
            const std::vector<double> segment (past[c].end() - (kernelLength - 1 + n), past[c].end());
            std::copy (out[c].begin(), out[c].end(), dryLine[c].begin() + delay);

            const auto& falling = kernels[linear ? 0 : 2];
            const auto& rising = kernels[linear ? 1 : 3];

            for (int i = 0; i < n; ++i)
            {
                const auto t = gliding ? previousTilt + i * step : target;
                const auto dry = linear ? dryLine[c][(size_t) i] : out[c][(size_t) i];
                const auto dryPart = (float) (1.0 - std::abs (t)) * dry;
                const auto wet = t == 0.0 ? 0.0 : (float) convolve (t < 0.0 ? rising : falling, segment, i);
                out[c][(size_t) i] = (float) (wet * std::abs (t) + dryPart);
            }

            std::copy (dryLine[c].begin() + n, dryLine[c].begin() + n + delay, dryLine[c].begin());

            // Only the last L - 1 samples are ever needed again.
            past[c].erase (past[c].begin(), past[c].end() - (kernelLength - 1));
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

    double sampleRate = 0, designedRate = 0;
    int declaredBlockSize = 0, preparedBlockSize = 0, fftSize = 0;
    int reportedLatency = 0;
    bool latencyIsLinear = false;
    double previousTilt = 0;
    float previousTrim = 0;

    std::vector<double> kernels[4];
    std::vector<double> past[2];
    std::vector<float> dryLine[2];
    Biquad shelves[4];
    Glide glides[4];
};

}
