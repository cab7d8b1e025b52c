// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/TiltKernelDesign.h"

#include <algorithm>
#include <cassert>
#include <cmath>

namespace tilt
{

double besselI0 (double x)
{
    // A fixed term count, no convergence test: the result must not depend on
    // where a tolerance happens to stop the sum.
    const double halfX = x / 2.0;
    double sum = 1.0;
    double power = 1.0;
    double factorial = 1.0;

    for (int k = 1; k < 20; ++k)
    {
        power *= halfX * halfX;
        factorial *= k;
        sum += power / (factorial * factorial);
    }

    return sum;
}

double kaiserWindow (int index, int length, double shape)
{
    // Centred on (length - 1) / 2 exactly, half a tap after the kernel's integer centre for
    // an even length: existing sessions must render with the kernels they were made with.
    const double halfWidth = (length - 1) * 0.5;
    const double x = (index - halfWidth) / halfWidth;
    return besselI0 (shape * std::sqrt (1.0 - x * x)) / besselI0 (shape);
}

void fillTiltMagnitude (std::vector<Complex>& bins, double slopeDbPerOctave,
                        double sampleRate, double pivot)
{
    if (sampleRate <= 0.0)
        return;

    const auto numBins = static_cast<int> (bins.size());
    const double binSpacing = sampleRate * 0.5 / (numBins - 1);
    const double s = slopeDbPerOctave;

    for (int k = 1; k < numBins; ++k)
    {
        const double f = k * binSpacing;
        const double gainDb = s * std::log10 (f) / std::log10 (2.0) - s * std::log10 (pivot) / std::log10 (2.0);
        bins[(size_t) k] = Complex (static_cast<float> (std::pow (10.0, gainDb / 20.0)), 0.0f);
    }

    // The line runs off to infinity (or zero) at DC; hold the lowest bin's gain instead.
    bins[0] = bins[1];
}

void fillTiltMagnitude (std::vector<Complex>& bins, double slopeDbPerOctave, double sampleRate)
{
    fillTiltMagnitude (bins, slopeDbPerOctave, sampleRate, pivotHz);
}

void MinimumPhaseWorkspace::resize (int fftSize)
{
    const auto size = (size_t) fftSize;
    const auto numBins = size / 2 + 1;
    paddedKernel.resize (size);
    spectrum.resize (numBins);
    shaped.resize (numBins);
    cepstrum.resize (size);
    impulse.resize (size);
}

void deriveMinimumPhase (const float* kernel, int length,
                         audiofft::FFTW3FFT& fft, MinimumPhaseWorkspace& work)
{
    const auto size = work.cepstrum.size();
    const auto numBins = size / 2 + 1;
    const auto copied = std::min ((size_t) length, size);
    fft.init (size);

    std::copy_n (kernel, copied, work.paddedKernel.begin());
    std::fill (work.paddedKernel.begin() + (std::ptrdiff_t) copied, work.paddedKernel.end(), 0.0f);

    fft.fft (work.paddedKernel.data(), work.spectrum);

    for (size_t k = 0; k < numBins; ++k)
        work.shaped[k] = Complex (std::log (std::abs (work.spectrum[k])), 0.0f);

    fft.ifft (work.cepstrum.data(), work.shaped);

    // Fold the real cepstrum onto one side. Keeping the upper half (negative
    // quefrencies) instead of doubling the lower one flips the sign of the phase
    // below, which the conjugate in the last step undoes.
    const auto half = size / 2;
    for (size_t n = 1; n < half; ++n)
        work.cepstrum[n] = 0.0f;

    work.cepstrum[0] *= 0.5f;
    work.cepstrum[half] *= 0.5f;

    fft.fft (work.cepstrum.data(), work.shaped);

    // Original magnitude, minimum phase: exp (2i * Im Y) conjugated.
    for (size_t k = 0; k < numBins; ++k)
    {
        const float magnitude = std::abs (work.spectrum[k]);
        const float phase = 2.0f * work.shaped[k].imag();
        work.shaped[k] = Complex (magnitude * std::cos (phase), magnitude * -std::sin (phase));
    }

    fft.ifft (work.impulse.data(), work.shaped);
}

}   // namespace tilt

void TiltKernelSpectra::resize (int fftSize)
{
    const auto numBins = (size_t) fftSize / 2 + 1;
    linearFalling.resize (numBins);
    linearRising.resize (numBins);
    minimumFalling.resize (numBins);
    minimumRising.resize (numBins);
}

void TiltKernelDesigner::prepare (int newFftSize)
{
    assert (newFftSize >= tilt::kernelLength);

    fftSize = newFftSize;
    const auto size = (size_t) fftSize;

    target.assign (size / 2 + 1, tilt::Complex());
    impulseResponse.assign (size, 0.0f);
    kernel.assign (size, 0.0f);
    minimumPhase.resize (tilt::minimumPhaseFftSize);

    // Rounded to float once here, exactly as it multiplies the float kernel.
    window.resize ((size_t) tilt::kernelLength);
    for (int i = 0; i < tilt::kernelLength; ++i)
        window[(size_t) i] = static_cast<float> (tilt::kaiserWindow (i, tilt::kernelLength));
}

void TiltKernelDesigner::design (double sampleRate, audiofft::FFTW3FFT& mainFft,
                                 audiofft::FFTW3FFT& minPhaseFft, TiltKernelSpectra& out, TiltKernelTaps* taps)
{
    out.resize (fftSize);
    designSlope (-1.0, sampleRate, mainFft, minPhaseFft, out.linearFalling, out.minimumFalling,
                 taps != nullptr ? &taps->linearFalling : nullptr, taps != nullptr ? &taps->minimumFalling : nullptr);
    designSlope (1.0, sampleRate, mainFft, minPhaseFft, out.linearRising, out.minimumRising,
                 taps != nullptr ? &taps->linearRising : nullptr, taps != nullptr ? &taps->minimumRising : nullptr);
}

void TiltKernelDesigner::designSlope (double slope, double sampleRate,
                                      audiofft::FFTW3FFT& mainFft, audiofft::FFTW3FFT& minPhaseFft,
                                      std::vector<tilt::Complex>& linearOut,
                                      std::vector<tilt::Complex>& minimumOut,
                                      std::vector<float>* linearTaps, std::vector<float>* minimumTaps)
{
    const auto size = (size_t) fftSize;
    const auto centre = (size_t) tilt::latencySamples;
    const auto length = (size_t) tilt::kernelLength;

    mainFft.init (size);

    // Zero-phase target -> real, even response centred on sample 0.
    tilt::fillTiltMagnitude (target, slope, sampleRate);
    mainFft.ifft (impulseResponse.data(), target);

    // Rotate the centre to the latency tap, window, and truncate to the kernel length.
    for (size_t i = 0; i < length; ++i)
        kernel[i] = impulseResponse[(i + size - centre) % size] * window[i];

    std::fill (kernel.begin() + (std::ptrdiff_t) length, kernel.end(), 0.0f);

    mainFft.fft (kernel.data(), linearOut);

    if (linearTaps != nullptr)
        linearTaps->assign (kernel.begin(), kernel.begin() + (std::ptrdiff_t) length);

    if (sampleRate <= 0.0)
    {
        std::fill (minimumOut.begin(), minimumOut.end(), tilt::Complex());

        if (minimumTaps != nullptr)
            minimumTaps->assign (length, 0.0f);

        return;
    }

    tilt::deriveMinimumPhase (kernel.data(), tilt::kernelLength, minPhaseFft, minimumPhase);

    // A minimum-phase FIR with the linear kernel's magnitude is as long as that kernel; the
    // derivation's samples beyond it are its aliasing (below 1e-7 each), dropped.
    const auto kept = std::min ({ size, length, minimumPhase.impulse.size() });
    std::copy_n (minimumPhase.impulse.begin(), kept, impulseResponse.begin());
    std::fill (impulseResponse.begin() + (std::ptrdiff_t) kept, impulseResponse.end(), 0.0f);

    mainFft.fft (impulseResponse.data(), minimumOut);

    if (minimumTaps != nullptr)
        minimumTaps->assign (impulseResponse.begin(), impulseResponse.begin() + (std::ptrdiff_t) kept);
}
