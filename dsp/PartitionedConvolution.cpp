// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/PartitionedConvolution.h"
#include "dsp/VectorClones.h"

#include <algorithm>
#include <cassert>
#include <cstring>

namespace convolution
{

namespace
{
    constexpr int smallestHead = 32;
    constexpr int largestHead = 2048;
    constexpr int largestTailGrowth = 16;
    constexpr int maxHeadPartitions = 2 * largestTailGrowth;

    int divideRoundingUp (int a, int b) noexcept
    {
        return (a + b - 1) / b;
    }

    int64_t powerOfTwoAtLeast (int64_t value) noexcept
    {
        int64_t size = 1;
        while (size < value)
            size *= 2;
        return size;
    }

    // Spectral products added for two lanes with one kernel spectrum, read once for both:
    // a * b (re = ac - bd, im = bc + ad).
    QUENDA_VECTOR_CLONES
    void multiplyAddForTwo (float* __restrict firstRe, float* __restrict firstIm,
                            float* __restrict secondRe, float* __restrict secondIm,
                            const float* __restrict xRe, const float* __restrict xIm,
                            const float* __restrict yRe, const float* __restrict yIm,
                            const float* __restrict hRe, const float* __restrict hIm, int bins) noexcept
    {
        for (int i = 0; i < bins; ++i)
        {
            firstRe[i] += xRe[i] * hRe[i] - xIm[i] * hIm[i];
            firstIm[i] += xIm[i] * hRe[i] + xRe[i] * hIm[i];
            secondRe[i] += yRe[i] * hRe[i] - yIm[i] * hIm[i];
            secondIm[i] += yIm[i] * hRe[i] + yRe[i] * hIm[i];
        }
    }

    constexpr int binsPerRun = 8;   // one AVX register of bins

    // first = the sum over p of x[p] * h[p], second = the same of y[p] * h[p], for partitions
    // whose kernel spectra lie one stride apart: eight bins at a time in registers across all
    // partitions, instead of a pass over the whole sum per partition, reading each kernel
    // spectrum once for both. bins is a multiple of binsPerRun.
    QUENDA_VECTOR_CLONES
    void sumOfProductsForTwo (float* __restrict firstRe, float* __restrict firstIm,
                              float* __restrict secondRe, float* __restrict secondIm,
                              const float* const* xRe, const float* const* xIm,
                              const float* const* yRe, const float* const* yIm,
                              const float* hRe, const float* hIm, int hStride, int partitions, int bins) noexcept
    {
        for (int start = 0; start < bins; start += binsPerRun)
        {
            float re[binsPerRun] = {}, im[binsPerRun] = {}, re2[binsPerRun] = {}, im2[binsPerRun] = {};

            for (int p = 0; p < partitions; ++p)
            {
                const auto* __restrict ar = xRe[p] + start;
                const auto* __restrict ai = xIm[p] + start;
                const auto* __restrict cr = yRe[p] + start;
                const auto* __restrict ci = yIm[p] + start;
                const auto* __restrict br = hRe + p * hStride + start;
                const auto* __restrict bi = hIm + p * hStride + start;

                for (int i = 0; i < binsPerRun; ++i)
                {
                    re[i] += ar[i] * br[i] - ai[i] * bi[i];
                    im[i] += ai[i] * br[i] + ar[i] * bi[i];
                    re2[i] += cr[i] * br[i] - ci[i] * bi[i];
                    im2[i] += ci[i] * br[i] + cr[i] * bi[i];
                }
            }

            for (int i = 0; i < binsPerRun; ++i)
            {
                firstRe[start + i] = re[i];
                firstIm[start + i] = im[i];
                secondRe[start + i] = re2[i];
                secondIm[start + i] = im2[i];
            }
        }
    }

    // base + a * b into separate output arrays.
    QUENDA_VECTOR_CLONES
    void multiplyAddInto (float* __restrict outRe, float* __restrict outIm,
                          const float* __restrict baseRe, const float* __restrict baseIm,
                          const float* __restrict xRe, const float* __restrict xIm,
                          const float* __restrict hRe, const float* __restrict hIm, int bins) noexcept
    {
        for (int i = 0; i < bins; ++i)
        {
            outRe[i] = baseRe[i] + (xRe[i] * hRe[i] - xIm[i] * hIm[i]);
            outIm[i] = baseIm[i] + (xIm[i] * hRe[i] + xRe[i] * hIm[i]);
        }
    }

    void addInto (float* __restrict dest, const float* __restrict source, int n) noexcept
    {
        for (int i = 0; i < n; ++i)
            dest[i] += source[i];
    }

    template <typename Function>
    void forEachKernel (unsigned mask, Function&& function)
    {
        for (int k = 0; k < maxKernels; ++k)
            if ((mask & (1u << k)) != 0)
                function (k);
    }
}

//==============================================================================
PartitionLayout PartitionLayout::forBlockSize (int maximumBlockSize, int numTaps)
{
    auto head = smallestHead;
    while (head * 2 <= std::min (maximumBlockSize, largestHead))
        head *= 2;

    PartitionLayout layout;

    // One tail level, where the head does not reach, of partitions g times the head's,
    // starting at twice its partition (so 2g head partitions). Each partition costs one
    // product per sample, so small heads take the g with the fewest partitions in all; on a
    // tie the smaller, whose transforms are cheaper and less of a lump in one call. (A
    // middle level would save products but cost a third transform size, which small heads
    // pay for more than they save.) Heads from 256 up reach 6500 taps on their own.
    auto partitions = [&] (int g)
    {
        return 2 * g + std::max (0, divideRoundingUp (numTaps - 2 * g * head, g * head));
    };

    auto growth = head >= 256 ? largestTailGrowth : 2;

    for (int g = 4; g <= largestTailGrowth && head < 256; g *= 2)
        if (partitions (g) < partitions (growth))
            growth = g;

    const auto headCount = std::min (2 * growth, divideRoundingUp (numTaps, head));
    layout.levels.push_back ({ head, 0, headCount });

    const auto covered = head * headCount;

    if (covered < numTaps)
    {
        const auto size = head * growth;
        layout.levels.push_back ({ size, covered, divideRoundingUp (numTaps - covered, size) });
    }

    return layout;
}

int PartitionLayout::capacity() const noexcept
{
    const auto& last = levels.back();
    return last.firstTap + last.partitionSize * last.numPartitions;
}

int spectrumStride (int partitionSize) noexcept
{
    return (partitionSize + 1 + 15) / 16 * 16;
}

//==============================================================================
void PartitionedKernels::prepare (const PartitionLayout& newLayout)
{
    layout = newLayout;
    levels.clear();
    levels.resize (layout.levels.size());

    for (size_t l = 0; l < levels.size(); ++l)
    {
        const auto& shape = layout.levels[l];
        auto& level = levels[l];
        level.stride = spectrumStride (shape.partitionSize);

        for (int k = 0; k < maxKernels; ++k)
        {
            level.re[(size_t) k].resize ((size_t) (level.stride * shape.numPartitions));
            level.im[(size_t) k].resize ((size_t) (level.stride * shape.numPartitions));
            level.used[(size_t) k] = 0;
        }

        level.fft.init (2 * shape.partitionSize);
        level.segment.resize ((size_t) (2 * shape.partitionSize));
    }
}

void PartitionedKernels::setKernel (int k, const float* taps, int length)
{
    for (size_t l = 0; l < levels.size(); ++l)
    {
        const auto& shape = layout.levels[l];
        auto& level = levels[l];
        const auto size = shape.partitionSize;
        const auto scale = 1.0f / (float) (2 * size);
        auto used = 0;

        for (int p = 0; p < shape.numPartitions; ++p)
        {
            const auto start = shape.firstTap + p * size;
            const auto count = std::max (0, std::min (size, length - start));

            // Taps in the first half, zeros after: the second half of each overlap-save
            // result is then a clean linear convolution.
            level.segment.clear();
            for (int i = 0; i < count; ++i)
                level.segment[(size_t) i] = taps[start + i] * scale;

            if (std::any_of (level.segment.data(), level.segment.data() + count, [] (float t)
                             { return t != 0.0f; }))
                used = p + 1;

            level.fft.forward (level.segment.data(),
                               level.re[(size_t) k].data() + p * level.stride,
                               level.im[(size_t) k].data() + p * level.stride);
        }

        level.used[(size_t) k] = used;
    }
}

const float* PartitionedKernels::re (int level, int k, int partition) const noexcept
{
    const auto& data = levels[(size_t) level];
    return data.re[(size_t) k].data() + partition * data.stride;
}

const float* PartitionedKernels::im (int level, int k, int partition) const noexcept
{
    const auto& data = levels[(size_t) level];
    return data.im[(size_t) k].data() + partition * data.stride;
}

//==============================================================================
int PartitionedConvolver::Level::slotOf (int64_t chunk) const noexcept
{
    const auto slot = (int) (chunk % slots);
    return slot < 0 ? slot + slots : slot;
}

void PartitionedConvolver::Level::gatherPastSpectra (int lane, int slot, int count, const float** re, const float** im) noexcept
{
    for (int p = 1; p <= count; ++p)
    {
        const auto before = slotBefore (slot, p);
        re[p - 1] = spectrumRe (lane, before);
        im[p - 1] = spectrumIm (lane, before);
    }
}

void PartitionedConvolver::Level::transformIntoSlot (int slot) noexcept
{
    fft.forward (time.data(), bins.data());

    const auto n = 2 * size;
    const auto* re = binsRe();
    const auto* im = binsIm();
    std::copy_n (re, size + 1, spectrumRe (0, slot));
    std::copy_n (im, size + 1, spectrumIm (0, slot));

    auto* mirroredRe = spectrumRe (1, slot);
    auto* mirroredIm = spectrumIm (1, slot);
    mirroredRe[0] = re[0];
    mirroredIm[0] = -im[0];

    for (int k = 1; k <= size; ++k)
    {
        mirroredRe[k] = re[n - k];
        mirroredIm[k] = -im[n - k];
    }
}

void PartitionedConvolver::Level::transformBack (const float* laneOneRe, const float* laneOneIm) noexcept
{
    const auto n = 2 * size;
    auto* re = binsRe();
    auto* im = binsIm();

    for (int k = 1; k < size; ++k)
    {
        re[n - k] = laneOneRe[k];
        im[n - k] = -laneOneIm[k];
    }

    fft.inverseUnscaled (bins.data(), time.data());
}

void PartitionedConvolver::prepare (const PartitionLayout& layout)
{
    levels.clear();
    levels.resize (layout.levels.size());

    for (size_t l = 0; l < levels.size(); ++l)
    {
        const auto& shape = layout.levels[l];
        auto& level = levels[l];
        level.size = shape.partitionSize;
        level.firstTap = shape.firstTap;
        level.numPartitions = shape.numPartitions;
        level.stride = spectrumStride (level.size);

        // The head needs its partitions' chunks; a later level also the chunks of the
        // windows still in flight when a kernel is switched in (see catchUp).
        level.slots = level.numPartitions + 4;
        level.fft.init (2 * level.size);

        level.time.resize ((size_t) (4 * level.size));
        level.bins.resize ((size_t) (4 * level.size));

        level.scratchRe.resize ((size_t) level.stride);
        level.scratchIm.resize ((size_t) level.stride);

        for (int lane = 0; lane < numLanes; ++lane)
        {
            level.spectraRe[(size_t) lane].resize ((size_t) (level.slots * level.stride));
            level.spectraIm[(size_t) lane].resize ((size_t) (level.slots * level.stride));

            for (int k = 0; k < maxKernels; ++k)
            {
                level.sumRe[(size_t) lane][(size_t) k].resize ((size_t) level.stride);
                level.sumIm[(size_t) lane][(size_t) k].resize ((size_t) level.stride);
            }
        }
    }

    const auto span = powerOfTwoAtLeast (4 * (int64_t) layout.largestPartition());

    for (auto& ring : history)
        ring.resize ((size_t) span);

    historyMask = span - 1;

    for (auto& rings : tail)
        for (auto& ring : rings)
            ring.resize (levels.size() > 1 ? (size_t) span : 0);

    tailMask = span - 1;
    reset();
}

void PartitionedConvolver::reset() noexcept
{
    for (auto& ring : history)
        ring.clear();

    for (auto& rings : tail)
        for (auto& ring : rings)
            ring.clear();

    for (auto& level : levels)
    {
        for (int lane = 0; lane < numLanes; ++lane)
        {
            level.spectraRe[(size_t) lane].clear();
            level.spectraIm[(size_t) lane].clear();
        }

        level.jobChunk = -1;
        level.jobStage = 0;
        level.jobMask = 0;
    }

    pastChunk.fill (-1);
    time = 0;
    headFill = 0;
    activeMask = 0;
}

void PartitionedConvolver::writeHistory (const Inputs& input, int offset, int n) noexcept
{
    const auto first = time & historyMask;
    const auto firstPart = (int) std::min<int64_t> (n, historyMask + 1 - first);

    for (int c = 0; c < numChannels; ++c)
    {
        const auto* source = input[(size_t) c] + offset;
        auto* ring = history[(size_t) c].data();
        std::memcpy (ring + first, source, sizeof (float) * (size_t) firstPart);
        std::memcpy (ring, source + firstPart, sizeof (float) * (size_t) (n - firstPart));
    }
}

void PartitionedConvolver::readHistory (Level& level, int64_t start, int n) const noexcept
{
    const auto first = start & historyMask;
    const auto firstPart = (int) std::min<int64_t> (n, historyMask + 1 - first);

    for (int c = 0; c < numChannels; ++c)
    {
        const auto* ring = history[(size_t) c].data();
        auto* dest = c == 0 ? level.timeRe() : level.timeIm();
        std::memcpy (dest, ring + first, sizeof (float) * (size_t) firstPart);
        std::memcpy (dest + firstPart, ring, sizeof (float) * (size_t) (n - firstPart));
    }
}

void PartitionedConvolver::process (const Inputs& input, int n, const PartitionedKernels& kernels,
                                    unsigned kernelMask, const Outputs& out) noexcept
{
    assert (kernels.getLayout().levels.size() == levels.size());

    const auto newKernels = kernelMask & ~activeMask;

    if (newKernels != 0)
        catchUp (kernels, newKernels);

    activeMask = kernelMask;
    const auto headSize = levels.front().size;

    for (int done = 0; done < n;)
    {
        const auto count = std::min (n - done, headSize - headFill);
        writeHistory (input, done, count);
        runHead (kernels, kernelMask, headFill, headFill + count, out, done);

        if (levels.size() > 1)
            addTail (kernelMask, out, done, count);

        time += count;
        headFill = (headFill + count) % headSize;

        for (int l = 1; l < (int) levels.size(); ++l)
            advanceLevel (l, kernels);

        done += count;
    }
}

void PartitionedConvolver::runHead (const PartitionedKernels& kernels, unsigned mask, int from, int to,
                                    const Outputs& out, int outOffset) noexcept
{
    auto& head = levels.front();
    const auto size = head.size;
    const auto chunk = (time - from) / size;

    // The previous chunk and what has arrived of this one; the rest of it is still silence,
    // which cannot reach the samples already here.
    readHistory (head, (chunk - 1) * size, size + to);

    for (auto* part : { head.timeRe(), head.timeIm() })
        std::fill (part + size + to, part + 2 * size, 0.0f);

    const auto slot = head.slotOf (chunk);
    head.transformIntoSlot (slot);

    const auto bins = size + 1;

    forEachKernel (mask, [&] (int k)
                   {
        updatePastSum (kernels, k, chunk);

        const auto* hRe = kernels.re (0, k, 0);
        const auto* hIm = kernels.im (0, k, 0);
        multiplyAddInto (head.binsRe(), head.binsIm(),
                         head.sumRe[0][(size_t) k].data(), head.sumIm[0][(size_t) k].data(),
                         head.spectrumRe (0, slot), head.spectrumIm (0, slot), hRe, hIm, bins);
        multiplyAddInto (head.scratchRe.data(), head.scratchIm.data(),
                         head.sumRe[1][(size_t) k].data(), head.sumIm[1][(size_t) k].data(),
                         head.spectrumRe (1, slot), head.spectrumIm (1, slot), hRe, hIm, bins);

        head.transformBack (head.scratchRe.data(), head.scratchIm.data());
        std::memcpy (out[(size_t) k][0] + outOffset, head.timeRe() + size + from, sizeof (float) * (size_t) (to - from));
        std::memcpy (out[(size_t) k][1] + outOffset, head.timeIm() + size + from, sizeof (float) * (size_t) (to - from)); });
}

void PartitionedConvolver::updatePastSum (const PartitionedKernels& kernels, int k, int64_t chunk) noexcept
{
    if (pastChunk[(size_t) k] == chunk)
        return;

    // Many short partitions: one fused pass over the bins (the tail's long ones need none).
    auto& head = levels.front();
    const auto slot = head.slotOf (chunk);
    const auto past = std::max (0, kernels.usedPartitions (0, k) - 1);
    std::array<const float*, maxHeadPartitions> xRe {}, xIm {}, yRe {}, yIm {};
    head.gatherPastSpectra (0, slot, past, xRe.data(), xIm.data());
    head.gatherPastSpectra (1, slot, past, yRe.data(), yIm.data());

    // The padding after the last bin is zero in every spectrum, so whole runs are safe.
    const auto bins = (head.size + binsPerRun) / binsPerRun * binsPerRun;
    sumOfProductsForTwo (head.sumRe[0][(size_t) k].data(), head.sumIm[0][(size_t) k].data(),
                         head.sumRe[1][(size_t) k].data(), head.sumIm[1][(size_t) k].data(),
                         xRe.data(), xIm.data(), yRe.data(), yIm.data(),
                         kernels.re (0, k, 1), kernels.im (0, k, 1), head.stride, past, bins);

    pastChunk[(size_t) k] = chunk;
}

void PartitionedConvolver::addTail (unsigned mask, const Outputs& out, int outOffset, int n) noexcept
{
    const auto first = time & tailMask;
    const auto firstPart = (int) std::min<int64_t> (n, tailMask + 1 - first);

    forEachKernel (mask, [&] (int k)
                   {
        for (int c = 0; c < numChannels; ++c)
        {
            // Played samples leave the ring empty for the windows that land there later.
            auto* ring = tail[(size_t) k][(size_t) c].data();
            auto* dest = out[(size_t) k][(size_t) c] + outOffset;
            addInto (dest, ring + first, firstPart);
            addInto (dest + firstPart, ring, n - firstPart);
            std::fill_n (ring + first, firstPart, 0.0f);
            std::fill_n (ring, n - firstPart, 0.0f);
        } });
}

void PartitionedConvolver::advanceLevel (int l, const PartitionedKernels& kernels) noexcept
{
    auto& level = levels[(size_t) l];
    const auto products = level.numPartitions;

    // The forward transform in the first call after the chunk is complete, the inverse in the
    // call that reaches the window's start, the products spread evenly over the calls between:
    // the two transforms are the largest indivisible pieces, so they get calls of their own.
    if (level.jobChunk >= 0)
    {
        const auto elapsed = time - level.jobStart;

        if (elapsed >= level.size)
        {
            while (level.jobStage < products + 2)
                runStage (l, kernels);
        }
        else if (level.jobStage == 0)
        {
            runStage (l, kernels);
            level.jobFirstCall = elapsed;
        }
        else
        {
            const auto span = std::max<int64_t> (1, level.size - 2 * level.jobFirstCall);
            const auto due = std::min<int64_t> (products, (products * (elapsed - level.jobFirstCall) + span - 1) / span);

            while (level.jobStage <= due)
                runStage (l, kernels);
        }

        if (level.jobStage == products + 2)
            level.jobChunk = -1;
    }

    if (time % level.size == 0)
    {
        level.jobChunk = time / level.size - 1;
        level.jobStart = time;
        level.jobStage = 0;
        level.jobMask = activeMask;
    }
}

void PartitionedConvolver::runStage (int l, const PartitionedKernels& kernels) noexcept
{
    auto& level = levels[(size_t) l];
    const auto chunk = level.jobChunk;
    const auto stage = level.jobStage++;

    if (stage == 0)
    {
        readHistory (level, (chunk - 1) * level.size, 2 * level.size);
        level.transformIntoSlot (level.slotOf (chunk));
        return;
    }

    if (stage <= level.numPartitions)
    {
        const auto p = stage - 1;
        const auto slot = level.slotOf (chunk - p);

        forEachKernel (level.jobMask, [&] (int k)
                       {
            if (p == 0)
                clearSums (l, k);

            if (p < kernels.usedPartitions (l, k))
                addProducts (l, kernels, k, p, slot); });
        return;
    }

    forEachKernel (level.jobMask, [&] (int k)
                   {
        if (kernels.usedPartitions (l, k) > 0)
            addWindowToTail (l, k, chunk); });
}

void PartitionedConvolver::clearSums (int l, int k) noexcept
{
    auto& level = levels[(size_t) l];

    for (int lane = 0; lane < numLanes; ++lane)
    {
        std::fill_n (level.sumRe[(size_t) lane][(size_t) k].data(), level.size + 1, 0.0f);
        std::fill_n (level.sumIm[(size_t) lane][(size_t) k].data(), level.size + 1, 0.0f);
    }
}

void PartitionedConvolver::addProducts (int l, const PartitionedKernels& kernels, int k, int p, int slot) noexcept
{
    auto& level = levels[(size_t) l];
    multiplyAddForTwo (level.sumRe[0][(size_t) k].data(), level.sumIm[0][(size_t) k].data(),
                       level.sumRe[1][(size_t) k].data(), level.sumIm[1][(size_t) k].data(),
                       level.spectrumRe (0, slot), level.spectrumIm (0, slot),
                       level.spectrumRe (1, slot), level.spectrumIm (1, slot),
                       kernels.re (l, k, p), kernels.im (l, k, p), level.size + 1);
}

void PartitionedConvolver::accumulateWindow (int l, const PartitionedKernels& kernels, int k, int64_t chunk) noexcept
{
    auto& level = levels[(size_t) l];
    const auto slot = level.slotOf (chunk);
    clearSums (l, k);

    for (int p = 0; p < kernels.usedPartitions (l, k); ++p)
        addProducts (l, kernels, k, p, level.slotBefore (slot, p));
}

void PartitionedConvolver::addWindowToTail (int l, int k, int64_t chunk) noexcept
{
    auto& level = levels[(size_t) l];
    std::copy_n (level.sumRe[0][(size_t) k].data(), level.size + 1, level.binsRe());
    std::copy_n (level.sumIm[0][(size_t) k].data(), level.size + 1, level.binsIm());
    level.transformBack (level.sumRe[1][(size_t) k].data(), level.sumIm[1][(size_t) k].data());

    // The window's first sample lies one partition after the chunk's end at the earliest,
    // so nothing here has been played yet, except after a catch-up.
    const auto skip = (int) std::clamp<int64_t> (time - (chunk * level.size + level.firstTap), 0, level.size);
    const auto start = chunk * level.size + level.firstTap + skip;
    const auto count = level.size - skip;
    const auto first = start & tailMask;
    const auto firstPart = (int) std::min<int64_t> (count, tailMask + 1 - first);

    for (int c = 0; c < numChannels; ++c)
    {
        const auto* result = (c == 0 ? level.timeRe() : level.timeIm()) + level.size + skip;
        auto* ring = tail[(size_t) k][(size_t) c].data();
        addInto (ring + first, result, firstPart);
        addInto (ring, result + firstPart, count - firstPart);
    }
}

void PartitionedConvolver::catchUp (const PartitionedKernels& kernels, unsigned newKernels) noexcept
{
    // The newly needed kernels' outputs were not computed while they were idle: redo every
    // window that is not yet fully played from the stored input spectra.
    for (int l = 1; l < (int) levels.size(); ++l)
    {
        auto& level = levels[(size_t) l];

        if (level.jobChunk >= 0)
        {
            while (level.jobStage < level.numPartitions + 2)
                runStage (l, kernels);

            level.jobChunk = -1;
        }
    }

    forEachKernel (newKernels, [&] (int k)
                   {
        for (auto& ring : tail[(size_t) k])
            ring.clear(); });

    for (int l = 1; l < (int) levels.size(); ++l)
    {
        auto& level = levels[(size_t) l];

        for (auto chunk = time / level.size - 1; chunk >= 0; --chunk)
        {
            if (chunk * level.size + level.firstTap + level.size <= time)
                break;

            forEachKernel (newKernels, [&] (int k)
                           {
                if (kernels.usedPartitions (l, k) == 0)
                    return;

                accumulateWindow (l, kernels, k, chunk);
                addWindowToTail (l, k, chunk); });
        }
    }

    forEachKernel (newKernels, [&] (int k)
                   { pastChunk[(size_t) k] = -1; });
}

}   // namespace tilt
