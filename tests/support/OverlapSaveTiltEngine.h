// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "audiofft/AudioFFT.h"
#include "processor/TiltKernelDesign.h"

#include <vector>

/**
    The plain overlap-save tilt convolution, kept as the oracle for the partitioned engine:
    one N-point segment per block (N the smallest power of two above kernel + block - 2),
    giving each channel a positive-tilt output (falling kernel) and a negative-tilt output
    (rising kernel), plus the dry delay line used with the linear-phase kernels.
*/
class OverlapSaveTiltEngine
{
public:
    static constexpr int numChannels = 2;
    static constexpr int kernelLength = tilt::kernelLength;
    static constexpr int linearPhaseDelay = tilt::latencySamples;

    /** Smallest power of two strictly above kernelLength + blockSize - 2. */
    static int fftSizeFor (int blockSize) noexcept;

    /** Sizes every buffer for blocks of up to blockSize samples and clears the histories,
        the pending outputs and the kernel spectra. */
    void prepare (int blockSize);

    /** Recomputes the four kernel spectra for a sample rate. */
    void design (double sampleRate);

    int getPreparedBlockSize() const noexcept   { return preparedBlockSize; }
    int getFftSize() const noexcept             { return fftSize; }

    /** Appends n new samples of each channel to the convolution history. */
    void writeInput (const float* const* channels, int numChannelsInBlock, int n) noexcept;

    /** Runs segments until at least n output samples are ready, computing only the outputs
        asked for. */
    void convolve (int numChannelsInBlock, int n, bool wantPositive, bool wantNegative, bool linearPhase) noexcept;

    /** Drops the n samples the block used, keeping any that were computed beyond them. */
    void consume (int n, bool positiveComputed, bool negativeComputed) noexcept;

    const float* positiveOutput (int channel) const noexcept  { return positive[(size_t) channel].data(); }
    const float* negativeOutput (int channel) const noexcept  { return negative[(size_t) channel].data(); }

    /** Writes n input samples into the dry delay line at index delay. */
    void writeDry (int channel, const float* input, int n, int delay) noexcept;

    /** The dry delay line: entry i is the dry sample that lines up with output sample i. */
    const float* dry (int channel) const noexcept   { return dryDelay[(size_t) channel].data(); }

    /** Moves the dry delay line down by n, keeping its last `delay` samples. */
    void advanceDry (int channel, int n, int delay) noexcept;

    const TiltKernelSpectra& getSpectra() const noexcept { return spectra; }

private:
    void runSegment (int numChannelsInBlock, bool wantPositive, bool wantNegative, bool linearPhase) noexcept;
    void filterSegment (const std::vector<tilt::Complex>& kernel, std::vector<tilt::Complex>& product,
                        std::vector<float>& time) noexcept;

    audiofft::FFTW3FFT mainFft;
    audiofft::FFTW3FFT minimumPhaseFft;
    TiltKernelDesigner designer;
    TiltKernelSpectra spectra;

    int preparedBlockSize = 0;
    int fftSize = 0;
    int delayLength = 0;     // D: the block size the outputs are sized for
    int fill = 0;            // valid samples in each history
    int ready = 0;           // computed output samples not yet used

    std::vector<float> history[numChannels];     // D + L
    std::vector<float> positive[numChannels];    // D
    std::vector<float> negative[numChannels];    // D
    std::vector<float> dryDelay[numChannels];    // D + linearPhaseDelay

    std::vector<float> segment;                  // N
    std::vector<tilt::Complex> inputSpectrum;    // N/2 + 1
    std::vector<tilt::Complex> positiveSpectrum, negativeSpectrum;
    std::vector<float> positiveTime, negativeTime;   // N
};
