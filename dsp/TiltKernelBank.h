// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "dsp/PartitionedConvolution.h"
#include "dsp/TiltKernelDesign.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>

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
    Designs kernel sets off the audio thread and hands them to it without a lock. The two
    newest sets stay usable, so that a set designed ahead for a rate the host is about to
    run at leaves the one in use alone; the audio thread takes the newest set of the rate it
    runs at and marks it for the length of a block, and a design always goes into a third
    set that is neither. A new set therefore takes effect at a block boundary.
*/
class TiltKernelBank
{
public:
    /** Sizes the sets for a layout and designs for an FFT size (tilt::designFftSize).
        Must not run while the audio thread processes. Drops the designed sets. */
    void prepare (const convolution::PartitionLayout& layout, int fftSize);

    /** Designs the kernels for a sample rate into a free set and makes it the newest.
        Never on the audio thread; waits at most for one block that still reads that set. */
    void design (double sampleRate);

    /** Whether one of the usable sets is for this rate. Never on the audio thread. */
    bool hasKernelsFor (double sampleRate);

    /** Audio thread, at a rate change the host gave no earlier notice of: designs the kernels
        for this rate in the buffers and plans made at prepare(), without allocating, locking
        or waiting. False, designing nothing, while another thread designs. */
    bool designInBlock (double sampleRate) noexcept;

    /** Audio thread: the newest set for this rate (any rate for 0; nullptr when there is
        none), valid until release(). Never waits. */
    const TiltKernelSet* acquire (double sampleRate = 0.0) noexcept;
    void release() noexcept;

private:
    static constexpr int numSets = 3;

    // The usable sets, newest first, packed into one atomic so that the audio thread sees
    // both from one moment: index + 1 of the newest, and of the one before it, times 4.
    static constexpr int newestOf (int usable) noexcept { return (usable & 3) - 1; }
    static constexpr int previousOf (int usable) noexcept { return (usable >> 2) - 1; }
    static constexpr bool isUsable (int usable, int index) noexcept { return index >= 0 && (newestOf (usable) == index || previousOf (usable) == index); }

    // Held by one designer at a time. Not a mutex: the audio thread only tries it.
    struct Designing
    {
        explicit Designing (std::atomic<bool>& f);
        ~Designing() { flag.store (false); }
        std::atomic<bool>& flag;
    };

    void publish (int target, double sampleRate, int current) noexcept;

    std::atomic<bool> designing { false };
    convolution::PartitionLayout layout;
    TiltKernelDesigner designer;
    audiofft::FFTW3FFT mainFft, minimumPhaseFft;
    TiltKernelSpectra spectra;
    TiltKernelTaps taps;
    int fftSize = 0;
    uint64_t generations = 0;

    // Per set, partitions for designs in a block (no allocation there), and what such a design
    // took out of the set, let go by the next design on another thread.
    std::array<std::shared_ptr<convolution::PartitionedKernels>, numSets> inBlockPartitions;
    std::array<std::shared_ptr<const convolution::PartitionedKernels>, numSets> retired;

    std::array<TiltKernelSet, numSets> sets;
    std::atomic<int> usable { 0 };
    std::atomic<int> inUse { -1 };
};
