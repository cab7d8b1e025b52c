// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "dsp/AudioFFT.h"

#include <array>
#include <cstdint>
#include <vector>

/**
    Zero-latency partitioned convolution of a signal pair with up to four kernels (the tilt
    stage's falling and rising kernels in both phases).

    A kernel is cut into levels of uniform partitions (overlap-save, FFT size twice the
    partition). The head level has the smallest partitions and is computed inside every
    call, from whatever part of its current chunk has arrived, so a 1-sample call returns 1
    finished sample. A tail level, where needed, has partitions 4 to 16 times larger and
    starts at twice its partition size into the kernel: its output is due one partition
    after its input chunk is complete, so its work (one forward FFT, one spectral product
    per partition, one inverse FFT) is spread over the calls of that interval instead of
    landing on one block.

    Input spectra are stored once per level and shared by up to four kernels; a call asks
    for the kernels it needs with a bit mask, and only those get spectral products and
    inverse transforms.
*/
namespace convolution
{
constexpr int maxKernels = 4;

struct PartitionLayout
{
    struct Level
    {
        int partitionSize = 0;
        int firstTap = 0;
        int numPartitions = 0;

        bool operator== (const Level& other) const noexcept
        {
            return partitionSize == other.partitionSize && firstTap == other.firstTap && numPartitions == other.numPartitions;
        }
    };

    std::vector<Level> levels;

    /** Head partitions near the host's block size (32 ... 4096), levels up to numTaps. */
    static PartitionLayout forBlockSize (int maximumBlockSize, int numTaps);

    int headSize() const noexcept { return levels.front().partitionSize; }
    int largestPartition() const noexcept { return levels.back().partitionSize; }
    int capacity() const noexcept;
};

/** Floats per stored spectrum of a partition: N/2 + 1 bins, padded for SIMD alignment. */
int spectrumStride (int partitionSize) noexcept;

/**
        The partition spectra of up to four kernels for one layout, split complex and scaled
        by 1 / FFT size, so that an unscaled inverse transform gives the convolution.
        prepare() and setKernel() allocate or plan: never on the audio thread.
    */
class PartitionedKernels
{
public:
    void prepare (const PartitionLayout& layout);

    /** Cuts taps[0 .. length) into the layout's partitions as kernel k. Taps beyond the
            layout's capacity are dropped. */
    void setKernel (int k, const float* taps, int length);

    const PartitionLayout& getLayout() const noexcept { return layout; }

    /** Partitions of kernel k on a level that hold any non-zero tap. */
    int usedPartitions (int level, int k) const noexcept { return levels[(size_t) level].used[(size_t) k]; }

    const float* re (int level, int k, int partition) const noexcept;
    const float* im (int level, int k, int partition) const noexcept;

private:
    struct Level
    {
        int stride = 0;
        std::array<audiofft::AlignedFloats, maxKernels> re, im;
        std::array<int, maxKernels> used {};
        audiofft::SplitRealFft fft;
        audiofft::AlignedFloats segment;
    };

    PartitionLayout layout;
    std::vector<Level> levels;
};

/**
        The streaming convolution of a channel pair with any of the kernels of a
        PartitionedKernels of the same layout. Both channels go through one complex transform,
        left as the real part and right as the imaginary part: the kernels are real, so each
        channel's result comes back in its own part. Not thread-safe; process() never
        allocates, locks or waits.
    */
class PartitionedConvolver
{
public:
    static constexpr int numChannels = 2;
    using Inputs = std::array<const float*, numChannels>;
    using Outputs = std::array<std::array<float*, numChannels>, maxKernels>;

    /** Sizes every buffer and plan for a layout and clears the state. */
    void prepare (const PartitionLayout& layout);

    /** Silence as the past: clears the input history, stored spectra and pending output. */
    void reset() noexcept;

    /** Feeds n samples of each channel and writes, for each kernel k in kernelMask, its
            output for them to out[k][channel]. The stored input spectra are kept current
            whatever the mask, so a kernel that becomes needed later costs no more than any
            other call. One input may serve as both channels. */
    void process (const Inputs& input, int n, const PartitionedKernels& kernels,
                  unsigned kernelMask, const Outputs& out) noexcept;

    /** New kernels: outputs computed in advance with the old ones are recomputed from the
            stored spectra at the next call. */
    void invalidateOutputs() noexcept { activeMask = 0; }

private:
    // A chunk's spectrum Z = L + iR is kept as two half spectra that the real kernels'
    // half spectra multiply directly: Z[k] (= L[k] + iR[k]) and conj Z[N - k]
    // (= L[k] - iR[k]), for k = 0 ... N/2. These are the two lanes.
    static constexpr int numLanes = 2;

    struct Level
    {
        int size = 0;   // partition size B
        int firstTap = 0;
        int numPartitions = 0;
        int stride = 0;
        int slots = 0;   // stored input spectra, a ring
        audiofft::SplitComplexFft fft;
        audiofft::AlignedFloats time;   // left then right, 2B each
        audiofft::AlignedFloats bins;   // the whole spectrum, real then imaginary parts
        std::array<audiofft::AlignedFloats, numLanes> spectraRe, spectraIm;
        std::array<std::array<audiofft::AlignedFloats, maxKernels>, numLanes> sumRe, sumIm;
        audiofft::AlignedFloats scratchRe, scratchIm;

        // The spread work of the newest complete chunk: stage 0 transforms it, stages
        // 1 ... P multiply one partition each, stage P + 1 transforms back.
        int64_t jobChunk = -1;
        int64_t jobStart = 0;
        int jobStage = 0;
        unsigned jobMask = 0;
        int64_t jobFirstCall = 0;   // samples from the chunk's end to the forward transform

        // Ring slot of a chunk's spectrum, and the slot p chunks before a given one.
        int slotOf (int64_t chunk) const noexcept;
        int slotBefore (int slot, int p) const noexcept { return slot >= p ? slot - p : slot - p + slots; }
        float* timeRe() noexcept { return time.data(); }
        float* timeIm() noexcept { return time.data() + 2 * size; }
        float* binsRe() noexcept { return bins.data(); }
        float* binsIm() noexcept { return bins.data() + 2 * size; }
        float* spectrumRe (int lane, int slot) noexcept { return spectraRe[(size_t) lane].data() + slot * stride; }
        float* spectrumIm (int lane, int slot) noexcept { return spectraIm[(size_t) lane].data() + slot * stride; }

        // The spectra of the count chunks before the one in a slot, newest first.
        void gatherPastSpectra (int lane, int slot, int count, const float** re, const float** im) noexcept;

        // The transform of time, split into the lanes of a slot.
        void transformIntoSlot (int slot) noexcept;

        // The whole spectrum from lane 0 already in bins[0 ... B] and lane 1 given, then
        // back to time: the left result in timeRe(), the right in timeIm().
        void transformBack (const float* laneOneRe, const float* laneOneIm) noexcept;
    };

    void writeHistory (const Inputs& input, int offset, int n) noexcept;
    // n samples of both channels from start on, into a level's time buffers.
    void readHistory (Level& level, int64_t start, int n) const noexcept;
    void runHead (const PartitionedKernels& kernels, unsigned mask, int from, int to,
                  const Outputs& out, int outOffset) noexcept;
    void updatePastSum (const PartitionedKernels& kernels, int k, int64_t chunk) noexcept;
    void addTail (unsigned mask, const Outputs& out, int outOffset, int n) noexcept;
    void advanceLevel (int level, const PartitionedKernels& kernels) noexcept;
    void runStage (int level, const PartitionedKernels& kernels) noexcept;
    void clearSums (int level, int k) noexcept;
    // Both lanes' sums of kernel k += partition p times the spectrum in a slot.
    void addProducts (int level, const PartitionedKernels& kernels, int k, int p, int slot) noexcept;
    void accumulateWindow (int level, const PartitionedKernels& kernels, int k, int64_t chunk) noexcept;
    void addWindowToTail (int level, int k, int64_t chunk) noexcept;
    void catchUp (const PartitionedKernels& kernels, unsigned newKernels) noexcept;

    std::vector<Level> levels;
    std::array<audiofft::AlignedFloats, numChannels> history;   // input rings
    int64_t historyMask = 0;
    std::array<std::array<audiofft::AlignedFloats, numChannels>, maxKernels> tail;   // output of the levels after the head, rings
    int64_t tailMask = 0;
    std::array<int64_t, maxKernels> pastChunk {};   // head chunk the sums of older partitions are for

    int64_t time = 0;   // samples fed so far
    int headFill = 0;   // samples of the current head chunk
    unsigned activeMask = 0;
};
}
