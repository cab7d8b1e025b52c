// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/TiltKernelDesign.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

namespace
{
// All four kernel spectra for one sample rate: what a rate change costs.
void designAllKernels (benchmark::State& state)
{
    const auto fftSize = static_cast<int> (state.range (0));
    TiltKernelDesigner designer;
    audiofft::FFTW3FFT mainFft, minPhaseFft;
    TiltKernelSpectra spectra;
    designer.prepare (fftSize);
    mainFft.init ((size_t) fftSize);
    spectra.resize (fftSize);

    for (auto _ : state)
    {
        designer.design (48000.0, mainFft, minPhaseFft, spectra);
        benchmark::DoNotOptimize (spectra.minimumRising.data());
    }
}

std::vector<float> testSignal (size_t size)
{
    std::vector<float> signal (size);
    for (size_t i = 0; i < size; ++i)
        signal[i] = std::sin (0.01f * (float) i);
    return signal;
}

void forwardTransform (benchmark::State& state)
{
    const auto size = static_cast<size_t> (state.range (0));
    audiofft::FFTW3FFT fft;
    fft.init (size);
    const auto signal = testSignal (size);
    std::vector<audiofft::FFTW3FFT::Complex> bins (size / 2 + 1);

    for (auto _ : state)
    {
        fft.fft (signal.data(), bins);
        benchmark::DoNotOptimize (bins.data());
    }
}

void inverseTransform (benchmark::State& state)
{
    const auto size = static_cast<size_t> (state.range (0));
    audiofft::FFTW3FFT fft;
    fft.init (size);
    std::vector<float> signal = testSignal (size);
    std::vector<audiofft::FFTW3FFT::Complex> bins (size / 2 + 1);
    fft.fft (signal.data(), bins);

    for (auto _ : state)
    {
        fft.ifft (signal.data(), bins);
        benchmark::DoNotOptimize (signal.data());
    }
}
}

BENCHMARK (designAllKernels)->Arg (8192)->Arg (16384)->Unit (benchmark::kMillisecond);
BENCHMARK (forwardTransform)->Arg (8192)->Arg (16384)->Arg (32768)->Unit (benchmark::kMicrosecond);
BENCHMARK (inverseTransform)->Arg (8192)->Arg (16384)->Arg (32768)->Unit (benchmark::kMicrosecond);
