// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/OverlapSaveTiltEngine.h"

#include <algorithm>
#include <cstring>

int OverlapSaveTiltEngine::fftSizeFor (int blockSize) noexcept
{
    auto size = 1;

    while (size <= kernelLength + blockSize - 2)
        size *= 2;

    return size;
}

void OverlapSaveTiltEngine::prepare (int blockSize)
{
    preparedBlockSize = blockSize;
    delayLength = std::max (blockSize, 0);
    fftSize = fftSizeFor (blockSize);

    for (int c = 0; c < numChannels; ++c)
    {
        history[c].assign ((size_t) (delayLength + kernelLength), 0.0f);
        positive[c].assign ((size_t) delayLength, 0.0f);
        negative[c].assign ((size_t) delayLength, 0.0f);
        dryDelay[c].assign ((size_t) (delayLength + linearPhaseDelay), 0.0f);
    }

    fill = kernelLength - 1;
    ready = 0;

    mainFft.init ((size_t) fftSize);
    minimumPhaseFft.init ((size_t) tilt::minimumPhaseFftSize);
    designer.prepare (fftSize);

    const auto numBins = (size_t) fftSize / 2 + 1;
    spectra.resize (fftSize);
    for (auto* bins : { &spectra.linearFalling, &spectra.linearRising, &spectra.minimumFalling, &spectra.minimumRising })
        std::fill (bins->begin(), bins->end(), tilt::Complex());

    segment.assign ((size_t) fftSize, 0.0f);
    inputSpectrum.assign (numBins, tilt::Complex());
    positiveSpectrum.assign (numBins, tilt::Complex());
    negativeSpectrum.assign (numBins, tilt::Complex());
    positiveTime.assign ((size_t) fftSize, 0.0f);
    negativeTime.assign ((size_t) fftSize, 0.0f);
}

void OverlapSaveTiltEngine::design (double sampleRate)
{
    designer.design (sampleRate, mainFft, minimumPhaseFft, spectra);
}

void OverlapSaveTiltEngine::writeInput (const float* const* channels, int numChannelsInBlock, int n) noexcept
{
    for (int c = 0; c < std::min (numChannelsInBlock, numChannels); ++c)
        std::copy (channels[c], channels[c] + n, history[c].begin() + fill);

    fill += n;
}

void OverlapSaveTiltEngine::convolve (int numChannelsInBlock, int n, bool wantPositive, bool wantNegative, bool linearPhase) noexcept
{
    while (ready < n)
        runSegment (numChannelsInBlock, wantPositive, wantNegative, linearPhase);
}

void OverlapSaveTiltEngine::runSegment (int numChannelsInBlock, bool wantPositive, bool wantNegative, bool linearPhase) noexcept
{
    const auto segmentLength = std::min (fill, fftSize);
    const auto overlap = kernelLength - 1;

    for (int c = 0; c < std::min (numChannelsInBlock, numChannels); ++c)
    {
        auto& input = history[c];
        std::copy (input.begin(), input.begin() + segmentLength, segment.begin());
        std::fill (segment.begin() + segmentLength, segment.end(), 0.0f);

        // The last L - 1 samples are the overlap the next segment starts with.
        std::memmove (input.data(), input.data() + fill - overlap, (size_t) overlap * sizeof (float));

        mainFft.fft (segment.data(), inputSpectrum.data());

        const auto& falling = linearPhase ? spectra.linearFalling : spectra.minimumFalling;
        const auto& rising = linearPhase ? spectra.linearRising : spectra.minimumRising;

        // Overlap-save: the first L - 1 samples of the circular result are wrapped around
        // and discarded; the rest is this segment's share of the linear convolution.
        if (wantPositive)
        {
            filterSegment (falling, positiveSpectrum, positiveTime);
            std::copy (positiveTime.begin() + overlap, positiveTime.begin() + segmentLength, positive[c].begin() + ready);
        }

        if (wantNegative)
        {
            filterSegment (rising, negativeSpectrum, negativeTime);
            std::copy (negativeTime.begin() + overlap, negativeTime.begin() + segmentLength, negative[c].begin() + ready);
        }
    }

    fill += kernelLength - segmentLength - 1;
    ready += segmentLength - kernelLength + 1;
}

void OverlapSaveTiltEngine::filterSegment (const std::vector<tilt::Complex>& kernel, std::vector<tilt::Complex>& product,
                                std::vector<float>& time) noexcept
{
    for (size_t k = 0; k < product.size(); ++k)
    {
        const auto a = inputSpectrum[k].real(), b = inputSpectrum[k].imag();
        const auto c = kernel[k].real(), d = kernel[k].imag();
        product[k] = { a * c - b * d, b * c + a * d };
    }

    mainFft.ifft (time.data(), product.data());
}

void OverlapSaveTiltEngine::consume (int n, bool positiveComputed, bool negativeComputed) noexcept
{
    ready = std::max (ready, n) - n;

    if (ready == 0)
        return;

    for (int c = 0; c < numChannels; ++c)
    {
        if (positiveComputed)
            std::memmove (positive[c].data(), positive[c].data() + n, (size_t) ready * sizeof (float));

        if (negativeComputed)
            std::memmove (negative[c].data(), negative[c].data() + n, (size_t) ready * sizeof (float));
    }
}

void OverlapSaveTiltEngine::writeDry (int channel, const float* input, int n, int delay) noexcept
{
    std::copy (input, input + n, dryDelay[channel].begin() + delay);
}

void OverlapSaveTiltEngine::advanceDry (int channel, int n, int delay) noexcept
{
    std::memmove (dryDelay[channel].data(), dryDelay[channel].data() + n, (size_t) delay * sizeof (float));
}
