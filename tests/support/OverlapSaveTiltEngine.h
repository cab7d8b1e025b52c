// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "dsp/AudioFFT.h"
#include "dsp/TiltKernelDesign.h"

#include <algorithm>
#include <vector>

/**
    The plain overlap-save tilt convolution of one channel, kept as the oracle for the
    partitioned engine: one N-point segment per block (N the smallest power of two above
    kernel + block - 2) with the kernels as designed, giving a positive-tilt output (falling
    kernel) and a negative-tilt output (rising kernel).
*/
class OverlapSaveTiltEngine
{
public:
    static constexpr int kernelLength = tilt::kernelLength;

    /** Sizes every buffer for blocks of up to blockSize samples and clears all history. */
    void prepare (int blockSize)
    {
        for (fftSize = 1; fftSize <= kernelLength + blockSize - 2;)
            fftSize *= 2;

        history.assign ((size_t) (blockSize + kernelLength), 0.0f);
        positive.assign ((size_t) blockSize, 0.0f);
        negative.assign ((size_t) blockSize, 0.0f);
        fill = kernelLength - 1;
        ready = 0;

        mainFft.init ((size_t) fftSize);
        designer.prepare (tilt::designFftSize);
        spectra.resize (fftSize);
        segment.assign ((size_t) fftSize, 0.0f);
        time.assign ((size_t) fftSize, 0.0f);
        inputSpectrum.assign ((size_t) fftSize / 2 + 1, {});
        product = inputSpectrum;
    }

    void design (double sampleRate)
    {
        TiltKernelSpectra designed;
        TiltKernelTaps taps;
        designer.design (sampleRate, designFft, minimumPhaseFft, designed, &taps);

        // The same taps, transformed at this engine's own size.
        const std::vector<float>* sources[] = { &taps.linearFalling, &taps.linearRising, &taps.minimumFalling, &taps.minimumRising };
        std::vector<tilt::Complex>* targets[] = { &spectra.linearFalling, &spectra.linearRising, &spectra.minimumFalling, &spectra.minimumRising };
        for (size_t k = 0; k < 4; ++k)
        {
            std::fill (segment.begin(), segment.end(), 0.0f);
            std::copy (sources[k]->begin(), sources[k]->end(), segment.begin());
            mainFft.fft (segment.data(), targets[k]->data());
        }
    }

    /** Appends n new samples to the convolution history. */
    void writeInput (const float* input, int n)
    {
        std::copy (input, input + n, history.begin() + fill);
        fill += n;
    }

    /** Runs segments until at least n output samples of both kernels are ready. */
    void convolve (int n, bool linearPhase)
    {
        constexpr int overlap = kernelLength - 1;

        while (ready < n)
        {
            const auto segmentLength = std::min (fill, fftSize);
            std::copy (history.begin(), history.begin() + segmentLength, segment.begin());
            std::fill (segment.begin() + segmentLength, segment.end(), 0.0f);
            // The last L - 1 samples are the overlap the next segment starts with.
            std::copy (history.begin() + fill - overlap, history.begin() + fill, history.begin());
            mainFft.fft (segment.data(), inputSpectrum.data());

            // The first L - 1 samples of the circular result wrap around and are dropped.
            const auto filter = [&] (const std::vector<tilt::Complex>& kernel, std::vector<float>& output)
            {
                for (size_t k = 0; k < product.size(); ++k)
                {
                    const auto a = inputSpectrum[k].real(), b = inputSpectrum[k].imag();
                    const auto c = kernel[k].real(), d = kernel[k].imag();
                    product[k] = { a * c - b * d, b * c + a * d };
                }
                mainFft.ifft (time.data(), product.data());
                std::copy (time.begin() + overlap, time.begin() + segmentLength, output.begin() + ready);
            };
            filter (linearPhase ? spectra.linearFalling : spectra.minimumFalling, positive);
            filter (linearPhase ? spectra.linearRising : spectra.minimumRising, negative);

            fill += overlap - segmentLength;
            ready += segmentLength - overlap;
        }
    }

    /** Drops the n samples a block used, keeping any computed beyond them. */
    void consume (int n)
    {
        ready = std::max (ready, n) - n;
        for (auto* output : { &positive, &negative })
            std::copy (output->begin() + n, output->begin() + n + ready, output->begin());
    }

    const float* positiveOutput() const noexcept { return positive.data(); }
    const float* negativeOutput() const noexcept { return negative.data(); }

private:
    audiofft::FFTW3FFT mainFft, designFft, minimumPhaseFft;
    TiltKernelDesigner designer;
    TiltKernelSpectra spectra;
    int fftSize = 0, fill = 0, ready = 0;   // fill: valid history; ready: outputs not yet used
    std::vector<float> history, positive, negative, segment, time;
    std::vector<tilt::Complex> inputSpectrum, product;
};
