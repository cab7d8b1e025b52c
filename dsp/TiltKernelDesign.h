// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "dsp/AudioFFT.h"

#include <complex>
#include <vector>

/**
    Design of the tilt kernels: FIR filters whose magnitude falls (slope -1) or rises
    (slope +1) by 1 dB per octave and passes 0 dB at the pivot. Each slope comes as a
    linear-phase kernel and as a minimum-phase kernel with the same magnitude.
*/
namespace tilt
{
using Complex = std::complex<float>;

/** Taps of the linear-phase kernel. */
constexpr int kernelLength = 6500;

/** Centre tap of the linear-phase kernel, which is also its latency in samples. */
constexpr int latencySamples = (kernelLength - 1) / 2;

/** Frequency at which both tilts pass 0 dB. */
constexpr double pivotHz = 1300.0;

/** Kaiser shape, i.e. beta * pi of the textbook window: 3.141, not pi, because existing
        sessions must render with the kernels they were made with. */
constexpr double kaiserShape = 3.141;

/** Smallest power of two that holds the linear convolution of two kernels. */
constexpr int minimumPhaseFftSizeFor (int length)
{
    int size = 1;
    while (size < 2 * length - 1)
        size *= 2;
    return size;
}

/** FFT size the kernels are designed at, whatever the host's block size: the target
        magnitude is sampled on its bins, so another size would give other kernels and a
        session would sound different at another buffer size. */
constexpr int designFftSize = 8192;

/** FFT size of the minimum-phase derivation (16384). */
constexpr int minimumPhaseFftSize = minimumPhaseFftSizeFor (kernelLength);

/** Zeroth-order modified Bessel function of the first kind: its power series cut
        at exactly twenty terms, enough for the window's argument range. */
double besselI0 (double x);

/** Kaiser window value at tap index of a window of the given length. */
double kaiserWindow (int index, int length, double shape = kaiserShape);

/** Zero-phase magnitude of a tilt of slopeDbPerOctave about pivot, for a real FFT
        whose bins fill the vector (N/2 + 1 of them). DC takes the value of the lowest
        bin. Does nothing for sampleRate <= 0. */
void fillTiltMagnitude (std::vector<Complex>& bins, double slopeDbPerOctave,
                        double sampleRate, double pivot);

/** The same about the fixed pivot. */
void fillTiltMagnitude (std::vector<Complex>& bins, double slopeDbPerOctave, double sampleRate);

/** Work vectors of the minimum-phase derivation for an FFT of size M. */
struct MinimumPhaseWorkspace
{
    void resize (int fftSize);

    std::vector<float> paddedKernel;   // M
    std::vector<Complex> spectrum;     // M/2 + 1: spectrum of the padded kernel
    std::vector<Complex> shaped;       // M/2 + 1: log magnitude, then the new spectrum
    std::vector<float> cepstrum;       // M
    std::vector<float> impulse;        // M: the minimum-phase impulse response
};

/** Homomorphic (real cepstrum) minimum-phase version of kernel[0 .. length - 1],
        left in work.impulse. Single precision throughout. Initialises fft to the
        workspace size. */
void deriveMinimumPhase (const float* kernel, int length,
                         audiofft::FFTW3FFT& fft, MinimumPhaseWorkspace& work);
}

/** The four kernel spectra, N/2 + 1 bins each. */
struct TiltKernelSpectra
{
    void resize (int fftSize);

    std::vector<tilt::Complex> linearFalling;
    std::vector<tilt::Complex> linearRising;
    std::vector<tilt::Complex> minimumFalling;
    std::vector<tilt::Complex> minimumRising;
};

/** The same four kernels in the time domain, kernelLength taps each: the minimum-phase ones
    are the first kernelLength samples of their impulse response. */
struct TiltKernelTaps
{
    std::vector<float> linearFalling;
    std::vector<float> linearRising;
    std::vector<float> minimumFalling;
    std::vector<float> minimumRising;
};

/**
    Designs the tilt kernel spectra for an FFT size and a sample rate, and owns the
    work buffers. prepare() allocates; design() runs on the thread that computes the
    kernels, never on the audio thread.
*/
class TiltKernelDesigner
{
public:
    /** Allocates the work buffers for an FFT size (a power of two >= kernelLength). */
    void prepare (int fftSize);

    /** Fills out with linear falling, linear rising, minimum falling and minimum
        rising, in that order. mainFft is set to the prepared size and minPhaseFft to
        minimumPhaseFftSize. A sampleRate <= 0 leaves the target as it was and gives
        zero minimum-phase spectra. When taps is given it receives the time-domain kernels. */
    void design (double sampleRate, audiofft::FFTW3FFT& mainFft,
                 audiofft::FFTW3FFT& minPhaseFft, TiltKernelSpectra& out, TiltKernelTaps* taps = nullptr);

    int getFftSize() const noexcept { return fftSize; }

private:
    void designSlope (double slope, double sampleRate,
                      audiofft::FFTW3FFT& mainFft, audiofft::FFTW3FFT& minPhaseFft,
                      std::vector<tilt::Complex>& linearOut, std::vector<tilt::Complex>& minimumOut,
                      std::vector<float>* linearTaps, std::vector<float>* minimumTaps);

    int fftSize = 0;
    std::vector<float> window;            // kernelLength taps, already in float
    std::vector<tilt::Complex> target;    // N/2 + 1
    std::vector<float> impulseResponse;   // N
    std::vector<float> kernel;            // N
    tilt::MinimumPhaseWorkspace minimumPhase;
};
