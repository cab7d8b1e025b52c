// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "dsp/PartitionedConvolution.h"
#include "dsp/TiltKernelBank.h"
#include "dsp/TiltKernelDesign.h"

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

/**
    The tilt stage: each channel convolved with the falling or rising kernel (linear or
    minimum phase) and cross-faded with the dry signal by the magnitude of the tilt, which
    glides linearly over a block. Dry is delayed by the kernels' latency in linear phase.
    Two channels; further ones pass untouched. prepare() allocates; process() never
    allocates, locks or waits. The stage holds its kernel bank (shared with designs that may
    outlive it): designs run off the audio thread and the next block picks the new set up.
*/
class TiltStage
{
public:
    static constexpr int numChannels = 2;
    static constexpr int linearPhaseDelay = tilt::latencySamples;

    /** A block's settings: the tilt at its end (already limited) and the phase mode. */
    struct Settings
    {
        double tilt = 0.0;
        bool linearPhase = false;
        double kernelSampleRate = 0.0;   // kernels of another rate are not used; 0 takes any
    };

    /** Partitions for blocks of up to maximumBlockSize, holding the kernels' taps. */
    static convolution::PartitionLayout layoutFor (int maximumBlockSize);

    /** Sizes the buffers and the kernel bank; drops the designed kernels. Must not run while
        a block is processed. */
    void prepare (int maximumBlockSize);

    /** Designs the kernels for a sample rate. Never on the audio thread. */
    void designKernels (double sampleRate) { kernelBank->design (sampleRate); }

    /** Audio thread: whether kernels for this rate are designed. Never waits. */
    bool hasKernelsFor (double sampleRate) noexcept;

    /** Audio thread: designs the kernels for a rate without allocating, locking or waiting
        (TiltKernelBank::designInBlock). */
    bool designKernelsInBlock (double sampleRate) noexcept { return kernelBank->designInBlock (sampleRate); }

    /** The kernel bank, shared so that a design under way can outlive the stage. */
    std::shared_ptr<TiltKernelBank> getKernelBank() const noexcept { return kernelBank; }

    /** Silence as the past; the glide's start value is kept. */
    void reset() noexcept;

    /** Silence as the past, and the next block starts from this setting without a glide. */
    void reset (const Settings& settings) noexcept;

    const convolution::PartitionLayout& getLayout() const noexcept { return layout; }

    /** Processes n samples in place, gliding to settings.tilt. Blocks longer than the
        prepared size are worked through in pieces. Returns false, leaving the samples as
        they are, while no kernels are designed (for settings.kernelSampleRate). */
    bool process (float* const* channels, int numChannelsInBlock, int n, const Settings& settings) noexcept;

private:
    void process (float* const* channels, int numChannelsInBlock, int n, const Settings& settings,
                  const TiltKernelSet& kernels) noexcept;

    // Counts the samples up to the end of a piece in which both inputs were alike; true when
    // every output of the piece depends on such samples only.
    bool keepsChannelsAlike (const float* left, const float* right, int n) noexcept;

    std::shared_ptr<TiltKernelBank> kernelBank = std::make_shared<TiltKernelBank>();
    convolution::PartitionLayout layout;
    convolution::PartitionedConvolver convolver;
    std::array<std::vector<float>, numChannels> falling, rising;   // wet outputs of one piece
    std::array<std::vector<float>, numChannels> dryLines;          // rings of past input
    std::vector<float> delayedDry;                                 // one piece of a ring, in order
    int64_t dryMask = 0;
    int64_t dryTime = 0;
    int pieceSize = 0;
    double previousTilt = 0.0;
    uint64_t kernelGeneration = 0;
    int64_t channelsAlikeFor = 0;   // samples up to now in which both inputs were bit for bit alike
};
