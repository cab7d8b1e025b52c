// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "dsp/PartitionedConvolution.h"
#include "dsp/TiltKernelDesign.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

/**
    The four tilt kernels, partitioned for one layout, as the audio thread uses them.
    Instances at the same sample rate and block size design the same kernels; they share one
    read-only copy, so that a session with a tilt on every bus keeps one copy in the cache.
*/
struct TiltKernelSet
{
    enum Kernel
    {
        linearFalling = 0,
        linearRising,
        minimumFalling,
        minimumRising
    };

    std::shared_ptr<const convolution::PartitionedKernels> partitions;
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
    /** Sizes both sets for a layout and designs for an FFT size (tilt::designFftSize).
        Must not run while the audio thread processes. Drops the published set. */
    void prepare (const convolution::PartitionLayout& layout, int fftSize);

    /** Designs the kernels for a sample rate into the set not in use and publishes it.
        Never on the audio thread; waits at most for one block that still reads that set. */
    void design (double sampleRate);

    /** Audio thread: the newest set (nullptr before the first design), valid until
        release(). Never waits. */
    const TiltKernelSet* acquire() noexcept;
    void release() noexcept;

private:
    std::mutex designMutex;   // between message-side callers only
    convolution::PartitionLayout layout;
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
