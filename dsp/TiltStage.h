// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "dsp/PartitionedConvolution.h"
#include "dsp/TiltKernelDesign.h"

#include <array>
#include <atomic>
#include <memory>
#include <cstdint>
#include <mutex>
#include <vector>

/**
    The four tilt kernels, partitioned for one layout, as the audio thread uses them.
    Instances at the same sample rate and block size design the same kernels; they share one
    read-only copy, so that a session with a tilt on every bus keeps one copy in the cache.
*/
struct TiltKernelSet
{
    enum Kernel { linearFalling = 0, linearRising, minimumFalling, minimumRising };

    std::shared_ptr<const tilt::PartitionedKernels> partitions;
    double sampleRate = 0.0;
    int fftSize = 0;
    uint64_t generation = 0;
};

/**
    Designs kernel sets off the audio thread and hands them to it without a lock: two sets,
    the audio thread marks the one it reads for the length of a block, and a design always
    goes into the other one. A new set therefore takes effect at a block boundary.
*/
class TiltKernelBank
{
public:
    /** Sizes both sets for a layout and designs for an FFT size (the block size's N).
        Must not run while the audio thread processes. Drops the published set. */
    void prepare (const tilt::PartitionLayout& layout, int fftSize);

    /** Designs the kernels for a sample rate into the set not in use and publishes it.
        Never on the audio thread; waits at most for one block that still reads that set. */
    void design (double sampleRate);

    /** Audio thread: the newest set (nullptr before the first design), valid until
        release(). Never waits. */
    const TiltKernelSet* acquire() noexcept;
    void release() noexcept;

private:
    std::mutex designMutex;     // between message-side callers only
    tilt::PartitionLayout layout;
    TiltKernelDesigner designer;
    audiofft::FFTW3FFT mainFft, minimumPhaseFft;
    TiltKernelSpectra spectra;
    TiltKernelTaps taps;
    int fftSize = 0;
    uint64_t generations = 0;

    std::array<TiltKernelSet, 2> sets;
    std::atomic<int> published { -1 };
    std::atomic<int> inUse { -1 };
};

/**
    The tilt stage: each channel convolved with the falling or rising kernel (linear or
    minimum phase) and cross-faded with the dry signal by the magnitude of the tilt, which
    glides linearly over a block. Dry is delayed by the kernels' latency in linear phase.
    Two channels; further ones pass untouched. prepare() allocates; process() never
    allocates, locks or waits.
*/
class TiltStage
{
public:
    static constexpr int numChannels = 2;
    static constexpr int linearPhaseDelay = tilt::latencySamples;

    /** Smallest power of two strictly above kernelLength + blockSize - 2: the FFT size the
        kernels are designed at. */
    static int fftSizeFor (int blockSize) noexcept;

    /** Taps of a kernel that an overlap-save block of up to maximumBlockSize applies. */
    static int tapsFor (int maximumBlockSize) noexcept;

    /** Partitions for blocks of up to maximumBlockSize, holding tapsFor() taps. */
    static tilt::PartitionLayout layoutFor (int maximumBlockSize);

    void prepare (int maximumBlockSize);

    /** Silence as the past; the glide's start value is kept. */
    void reset() noexcept;

    void setPreviousTilt (double tilt) noexcept  { previousTilt = tilt; }
    const tilt::PartitionLayout& getLayout() const noexcept  { return layout; }

    /** Processes n samples in place; target is the tilt at the block's end. Blocks longer
        than the prepared size are worked through in pieces. */
    void process (float* const* channels, int numChannelsInBlock, int n, double target,
                  bool linearPhase, const TiltKernelSet& kernels) noexcept;

private:
    // Counts the samples up to the end of a piece in which both inputs were alike; true when
    // every output of the piece depends on such samples only.
    bool keepsChannelsAlike (const float* left, const float* right, int n) noexcept;

    tilt::PartitionLayout layout;
    tilt::PartitionedConvolver convolver;
    std::array<std::vector<float>, numChannels> falling, rising;   // wet outputs of one piece
    std::array<std::vector<float>, numChannels> dryLines;           // rings of past input
    std::vector<float> delayedDry;                                  // one piece of a ring, in order
    int64_t dryMask = 0;
    int64_t dryTime = 0;
    int pieceSize = 0;
    double previousTilt = 0.0;
    uint64_t kernelGeneration = 0;
    int64_t channelsAlikeFor = 0;   // samples up to now in which both inputs were bit for bit alike
};
