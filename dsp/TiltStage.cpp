// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/TiltStage.h"
#include "dsp/VectorClones.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace
{
// out = wet * |t| + (1 - |t|) * dry, the dry product in float and the sum in double; at
// t = 0 exactly the dry signal, and the wet outputs are not read (they may not exist).
inline void crossFadeSample (float& out, float positive, float negative, float dry, double t) noexcept
{
    const auto weight = std::abs (t);
    const auto dryPart = (float) (1.0 - weight) * dry;

    if (t == 0.0)
        out = dryPart;
    else
        out = (float) ((double) (t < 0.0 ? negative : positive) * weight + (double) dryPart);
}

// The same for a tilt that holds still over the block, without a branch per sample.
QUENDA_VECTOR_CLONES
void crossFade (float* out, const float* positive, const float* negative, const float* dry, int n, double t) noexcept
{
    const auto weight = std::abs (t);
    const auto dryWeight = (float) (1.0 - weight);

    if (t == 0.0)
    {
        for (int i = 0; i < n; ++i)
            out[i] = dryWeight * dry[i];
        return;
    }

    const auto* wet = t < 0.0 ? negative : positive;

    for (int i = 0; i < n; ++i)
        out[i] = (float) ((double) wet[i] * weight + (double) (dryWeight * dry[i]));
}
}

convolution::PartitionLayout TiltStage::layoutFor (int maximumBlockSize)
{
    return convolution::PartitionLayout::forBlockSize (maximumBlockSize, tilt::kernelLength);
}

void TiltStage::prepare (int maximumBlockSize)
{
    layout = layoutFor (maximumBlockSize);
    pieceSize = std::max (maximumBlockSize, 1);

    auto dryLength = 1;
    while (dryLength < linearPhaseDelay + pieceSize)
        dryLength *= 2;

    dryMask = dryLength - 1;

    convolver.prepare (layout);
    kernelBank->prepare (layout, tilt::designFftSize);

    for (int c = 0; c < numChannels; ++c)
    {
        falling[(size_t) c].assign ((size_t) pieceSize, 0.0f);
        delayedDry.assign ((size_t) pieceSize, 0.0f);
        rising[(size_t) c].assign ((size_t) pieceSize, 0.0f);
        dryLines[(size_t) c].assign ((size_t) dryLength, 0.0f);
    }

    reset();
}

void TiltStage::reset() noexcept
{
    convolver.reset();

    for (auto& line : dryLines)
        std::fill (line.begin(), line.end(), 0.0f);

    dryTime = 0;
    kernelGeneration = 0;
    channelsAlikeFor = std::numeric_limits<int64_t>::max() / 2;   // silence on both sides
}

void TiltStage::reset (const Settings& settings) noexcept
{
    reset();
    previousTilt = settings.tilt;
}

bool TiltStage::keepsChannelsAlike (const float* left, const float* right, int n) noexcept
{
    // Just past the last sample where the two differ (0 where none does).
    auto differingEnd = n;

    while (differingEnd > 0 && std::memcmp (left + differingEnd - 1, right + differingEnd - 1, sizeof (float)) == 0)
        --differingEnd;

    channelsAlikeFor = differingEnd == 0 ? std::min (channelsAlikeFor + n, std::numeric_limits<int64_t>::max() / 2)
                                         : n - differingEnd;

    return channelsAlikeFor >= (int64_t) n + layout.capacity();
}

bool TiltStage::process (float* const* channels, int numChannelsInBlock, int n, const Settings& settings) noexcept
{
    // Another rate's kernels would put the tilt at the wrong frequencies.
    const auto* kernels = kernelBank->acquire (settings.kernelSampleRate);

    if (kernels != nullptr)
        process (channels, numChannelsInBlock, n, settings, *kernels);

    kernelBank->release();
    return kernels != nullptr;
}

bool TiltStage::hasKernelsFor (double sampleRate) noexcept
{
    const auto found = kernelBank->acquire (sampleRate) != nullptr;
    kernelBank->release();
    return found;
}

void TiltStage::process (float* const* channels, int numChannelsInBlock, int n, const Settings& settings,
                         const TiltKernelSet& kernels) noexcept
{
    if (n <= 0)
        return;

    const auto target = settings.tilt;
    const auto linearPhase = settings.linearPhase;

    if (kernels.generation != kernelGeneration)
    {
        convolver.invalidateOutputs();
        kernelGeneration = kernels.generation;
    }

    // A glide reads only the kernels of the signs it passes through.
    const auto gliding = target != previousTilt;
    const auto needPositive = std::max (target, previousTilt) > 0.0;
    const auto needNegative = std::min (target, previousTilt) < 0.0;
    const auto step = (target - previousTilt) / n;

    // The falling kernel gives the positive tilt (treble down), the rising one the negative.
    const auto fallingKernel = linearPhase ? TiltKernelSet::linearFalling : TiltKernelSet::minimumFalling;
    const auto risingKernel = linearPhase ? TiltKernelSet::linearRising : TiltKernelSet::minimumRising;
    const auto mask = (needPositive ? 1u << fallingKernel : 0u) | (needNegative ? 1u << risingKernel : 0u);
    const auto used = std::min (numChannelsInBlock, numChannels);

    // Both channels go through the convolver together; a single channel stands in for both.
    convolution::PartitionedConvolver::Outputs outputs {};

    for (size_t c = 0; c < numChannels; ++c)
    {
        outputs[TiltKernelSet::linearFalling][c] = outputs[TiltKernelSet::minimumFalling][c] = falling[c].data();
        outputs[TiltKernelSet::linearRising][c] = outputs[TiltKernelSet::minimumRising][c] = rising[c].data();
    }

    for (int start = 0; start < n; start += pieceSize)
    {
        const auto count = std::min (pieceSize, n - start);

        if (used > 0)
            convolver.process ({ channels[0] + start, channels[used - 1] + start }, count, *kernels.partitions, mask, outputs);

        // The shared transform rounds the right side apart from the left. Where the right's
        // outputs depend on input that is bit for bit the left's, they take the left's, so that
        // dual mono stays exactly dual mono.
        if (used == 2 && keepsChannelsAlike (channels[0] + start, channels[1] + start, count))
        {
            std::copy_n (falling[0].data(), count, falling[1].data());
            std::copy_n (rising[0].data(), count, rising[1].data());
        }

        for (int c = 0; c < used; ++c)
        {
            auto* samples = channels[c] + start;
            auto* positive = falling[(size_t) c].data();
            auto* negative = rising[(size_t) c].data();

            auto* line = dryLines[(size_t) c].data();
            const auto to = dryTime & dryMask;
            const auto writePart = (int) std::min<int64_t> (count, dryMask + 1 - to);
            std::copy_n (samples, writePart, line + to);
            std::copy_n (samples + writePart, count - writePart, line);

            const float* dry = samples;

            if (linearPhase)
            {
                // The delayed dry signal, gathered from the ring into one run first.
                auto* delayed = delayedDry.data();
                const auto from = (dryTime - linearPhaseDelay) & dryMask;
                const auto firstPart = (int) std::min<int64_t> (count, dryMask + 1 - from);
                std::copy_n (line + from, firstPart, delayed);
                std::copy_n (line, count - firstPart, delayed + firstPart);
                dry = delayed;
            }

            if (! gliding)
                crossFade (samples, positive, negative, dry, count, target);
            else
                for (int i = 0; i < count; ++i)
                    crossFadeSample (samples[i], positive[i], negative[i], dry[i], previousTilt + (start + i) * step);
        }

        dryTime += count;
    }

    previousTilt = target;
}
