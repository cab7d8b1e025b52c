// SPDX-License-Identifier: GPL-3.0-or-later
#include "processor/TiltStage.h"

#include <algorithm>
#include <cmath>
#include <thread>

void TiltKernelBank::prepare (const tilt::PartitionLayout& layout, int newFftSize)
{
    const std::lock_guard<std::mutex> lock (designMutex);

    published = -1;
    inUse = -1;

    for (auto& set : sets)
        set.partitions.prepare (layout);

    if (newFftSize != fftSize)
        designer.prepare (newFftSize);

    fftSize = newFftSize;
}

void TiltKernelBank::design (double sampleRate)
{
    const std::lock_guard<std::mutex> lock (designMutex);

    const auto target = published.load() == 0 ? 1 : 0;

    // The audio thread may still be in a block that started before the last publication.
    while (inUse.load() == target)
        std::this_thread::yield();

    designer.design (sampleRate, mainFft, minimumPhaseFft, spectra, &taps);

    auto& set = sets[(size_t) target];
    set.partitions.setKernel (TiltKernelSet::linearFalling, taps.linearFalling.data(), (int) taps.linearFalling.size());
    set.partitions.setKernel (TiltKernelSet::linearRising, taps.linearRising.data(), (int) taps.linearRising.size());
    set.partitions.setKernel (TiltKernelSet::minimumFalling, taps.minimumFalling.data(), (int) taps.minimumFalling.size());
    set.partitions.setKernel (TiltKernelSet::minimumRising, taps.minimumRising.data(), (int) taps.minimumRising.size());
    set.sampleRate = sampleRate;
    set.fftSize = fftSize;
    set.generation = ++generations;

    published = target;
}

const TiltKernelSet* TiltKernelBank::acquire() noexcept
{
    auto index = published.load();

    // Mark, then check the mark still names the published set: a design that published in
    // between either sees the mark or is seen here.
    while (index >= 0)
    {
        inUse = index;
        const auto again = published.load();

        if (again == index)
            return &sets[(size_t) index];

        index = again;
    }

    inUse = -1;
    return nullptr;
}

void TiltKernelBank::release() noexcept
{
    inUse = -1;
}

//==============================================================================
int TiltStage::fftSizeFor (int blockSize) noexcept
{
    auto size = 1;

    while (size <= tilt::kernelLength + blockSize - 2)
        size *= 2;

    return size;
}

tilt::PartitionLayout TiltStage::layoutFor (int maximumBlockSize)
{
    const auto minimumPhaseTaps = std::min (fftSizeFor (maximumBlockSize), tilt::minimumPhaseFftSize);
    return tilt::PartitionLayout::forBlockSize (maximumBlockSize, std::max (tilt::kernelLength, minimumPhaseTaps));
}

void TiltStage::prepare (int maximumBlockSize)
{
    layout = layoutFor (maximumBlockSize);
    pieceSize = std::max (maximumBlockSize, 1);

    auto dryLength = 1;
    while (dryLength < linearPhaseDelay + pieceSize)
        dryLength *= 2;

    dryMask = dryLength - 1;

    for (int c = 0; c < numChannels; ++c)
    {
        convolvers[(size_t) c].prepare (layout);
        falling[(size_t) c].assign ((size_t) pieceSize, 0.0f);
        rising[(size_t) c].assign ((size_t) pieceSize, 0.0f);
        dryLines[(size_t) c].assign ((size_t) dryLength, 0.0f);
    }

    reset();
}

void TiltStage::reset() noexcept
{
    for (auto& convolver : convolvers)
        convolver.reset();

    for (auto& line : dryLines)
        std::fill (line.begin(), line.end(), 0.0f);

    dryTime = 0;
    kernelGeneration = 0;
}

void TiltStage::process (float* const* channels, int numChannelsInBlock, int n, double target,
                         bool linearPhase, const TiltKernelSet& kernels) noexcept
{
    if (n <= 0)
        return;

    if (kernels.generation != kernelGeneration)
    {
        for (auto& convolver : convolvers)
            convolver.invalidateOutputs();

        kernelGeneration = kernels.generation;
    }

    const auto gliding = target != previousTilt;
    const auto needPositive = gliding || target > 0.0;
    const auto needNegative = gliding || target < 0.0;
    const auto step = (target - previousTilt) / n;

    // The falling kernel gives the positive tilt (treble down), the rising one the negative.
    const auto fallingKernel = linearPhase ? TiltKernelSet::linearFalling : TiltKernelSet::minimumFalling;
    const auto risingKernel = linearPhase ? TiltKernelSet::linearRising : TiltKernelSet::minimumRising;
    const auto mask = (needPositive ? 1u << fallingKernel : 0u) | (needNegative ? 1u << risingKernel : 0u);
    const auto used = std::min (numChannelsInBlock, numChannels);

    for (int start = 0; start < n; start += pieceSize)
    {
        const auto count = std::min (pieceSize, n - start);

        for (int c = 0; c < used; ++c)
        {
            auto* samples = channels[c] + start;
            auto* positive = falling[(size_t) c].data();
            auto* negative = rising[(size_t) c].data();
            float* outputs[tilt::maxKernels] = { positive, negative, positive, negative };
            convolvers[(size_t) c].process (samples, count, kernels.partitions, mask, outputs);

            auto* line = dryLines[(size_t) c].data();

            for (int i = 0; i < count; ++i)
                line[(dryTime + i) & dryMask] = samples[i];

            for (int i = 0; i < count; ++i)
            {
                const auto t = gliding ? previousTilt + (start + i) * step : target;
                const auto dry = linearPhase ? line[(dryTime + i - linearPhaseDelay) & dryMask] : samples[i];
                const auto weight = std::abs (t);
                const auto dryPart = (float) (1.0 - weight) * dry;

                // At t = 0 the wet outputs may not have been computed and must not be read.
                if (t == 0.0)
                {
                    samples[i] = dryPart;
                    continue;
                }

                const auto wet = t < 0.0 ? negative[i] : positive[i];
                samples[i] = (float) ((double) wet * weight + (double) dryPart);
            }
        }

        dryTime += count;
    }

    previousTilt = target;
}
