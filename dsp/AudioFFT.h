// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <complex>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <fftw3.h>

namespace audiofft
{

/** Real FFT of size N with N/2 + 1 complex bins: forward unscaled, inverse scaled by 1/N. */
class AudioFFTBase
{
public:
    virtual ~AudioFFTBase() = default;

    /** Prepares for transforms of the given size; must be called before any transform. */
    virtual void init (size_t size) = 0;

    /** Forward transform into separate real and imaginary arrays of N/2 + 1 values. */
    virtual void fft (const float* data, float* re, float* im) = 0;

    /** Inverse transform from separate real and imaginary arrays, scaled by 1/N. */
    virtual void ifft (float* data, const float* re, const float* im) = 0;
};

namespace detail
{
    struct FftwFree
    {
        void operator() (void* memory) const noexcept { fftwf_free (memory); }
    };

    /** SIMD-aligned array from fftwf_malloc. */
    template <typename T>
    using FftwArray = std::unique_ptr<T[], FftwFree>;

    /** Destroys a plan. Only ever released inside FFTW3FFT::init, under the planner lock. */
    struct FftwPlanDestroy
    {
        void operator() (fftwf_plan plan) const noexcept { fftwf_destroy_plan (plan); }
    };

    using FftwPlan = std::unique_ptr<fftwf_plan_s, FftwPlanDestroy>;
}

/**
    AudioFFTBase over single-precision FFTW.

    Every transform copies through the object's own aligned buffers, so callers may
    pass any memory, and transforms never allocate. An object is not thread-safe, but
    any number of objects may be initialised concurrently: all plan creation and
    destruction in the process is serialised by one lock.
*/
class FFTW3FFT : public AudioFFTBase
{
public:
    using Complex = std::complex<float>;   // same layout as fftwf_complex

    FFTW3FFT() = default;
    ~FFTW3FFT() override;

    FFTW3FFT (const FFTW3FFT&) = delete;
    FFTW3FFT& operator= (const FFTW3FFT&) = delete;

    /** Free when the size is unchanged; otherwise releases and rebuilds. 0 releases everything. */
    void init (size_t size) override;

    void fft (const float* data, float* re, float* im) override;
    void ifft (float* data, const float* re, const float* im) override;

    /** Forward transform into N/2 + 1 interleaved bins. */
    virtual void fft (const float* data, Complex* spectrum);

    /** Inverse transform of N/2 + 1 interleaved bins, scaled by 1/N. */
    virtual void ifft (float* data, const Complex* spectrum);

    /** Forward transform into a vector that already holds N/2 + 1 bins. */
    virtual void fft (const float* data, std::vector<Complex>& spectrum);

    /** Inverse transform of the first N/2 + 1 bins of a vector, scaled by 1/N. */
    virtual void ifft (float* data, const std::vector<Complex>& spectrum);

    /** Transform length N (0 before init). */
    virtual int size() const { return static_cast<int> (fftSize); }

    /** Number of complex bins, N/2 + 1. */
    size_t complexSize() const noexcept { return numBins; }

private:
    void release() noexcept;
    void scaleInverseOutput (float* data) const noexcept;

    size_t fftSize = 0;
    size_t numBins = 0;

    detail::FftwPlan forwardPlan, inversePlan;   // interleaved
    detail::FftwPlan splitForwardPlan, splitInversePlan;

    detail::FftwArray<float> splitRe, splitIm;
    detail::FftwArray<float> timeBuffer;   // shared by all plans
    detail::FftwArray<Complex> forwardOutput, inverseInput;
};

/**
    A pair of real FFT plans of one size for streaming work, with spectra handed over in split
    form (separate real and imaginary arrays, which spectral products vectorise best on). The
    transforms run interleaved, FFTW's fastest form, through the object's own buffer; the
    caller's arrays must come from fftwf_malloc. Forward is unscaled and so is inverse (it
    returns N times the input). Plans come from the shipped wisdom below, never from timing
    runs at start-up: timed plans differ from run to run, and so would the last bit of the
    output (a render repeated would not null against the first). Planning takes the
    process-wide planner lock; executing allocates nothing. One object is used from one
    thread at a time.
*/
class SplitRealFft
{
public:
    SplitRealFft() = default;
    SplitRealFft (const SplitRealFft&) = delete;
    SplitRealFft& operator= (const SplitRealFft&) = delete;
    SplitRealFft (SplitRealFft&&) = default;
    SplitRealFft& operator= (SplitRealFft&&) = delete;
    ~SplitRealFft();

    /** Makes the plans for size N (a release when N is 0). */
    void init (int size);

    int size() const noexcept { return fftSize; }

    void forward (float* time, float* re, float* im) noexcept;
    void inverseUnscaled (const float* re, const float* im, float* time) noexcept;

private:
    int fftSize = 0;
    detail::FftwPlan forwardPlan, inversePlan;
    detail::FftwArray<float> interleaved;   // N/2 + 1 complex values
};

/**
    Complex FFT plans of one size for streaming work, on split arrays. Two real signals go
    through them at once as the real and imaginary parts: on this FFTW one complex transform
    costs about half of two real ones of the same size. Each operand is one fftwf_malloc'd
    array of 2N floats, the N real parts followed by the N imaginary parts (FFTW's plans and
    wisdom are tied to that spacing). Out of place and unscaled both ways; the input may be
    overwritten. Plans come from the shipped wisdom, as for SplitRealFft.
*/
class SplitComplexFft
{
public:
    SplitComplexFft() = default;
    SplitComplexFft (const SplitComplexFft&) = delete;
    SplitComplexFft& operator= (const SplitComplexFft&) = delete;
    SplitComplexFft (SplitComplexFft&&) = default;
    SplitComplexFft& operator= (SplitComplexFft&&) = delete;
    ~SplitComplexFft();

    /** Makes the plans for size N (a release when N is 0). */
    void init (int size);

    int size() const noexcept { return fftSize; }

    void forward (float* time, float* bins) noexcept;
    void inverseUnscaled (float* bins, float* time) noexcept;

private:
    int fftSize = 0;
    detail::FftwPlan forwardPlan, inversePlan;
};

/** Streaming transform plans come from FFTW wisdom measured once and shipped with the code:
    as fast as plans measured at start-up, yet the same in every run, so that renders repeat
    to the bit. A size the wisdom lacks (or an FFTW that refuses it) is planned by estimate.
    The two functions below are for the tool that makes that wisdom. */
void measureStreamingPlans();
std::string exportWisdom();

/** The transform sizes the shipped wisdom covers: twice each partition size of the layouts
    for blocks up to 2048 samples (a larger tail, for much longer kernels, is estimated). */
constexpr int streamingSizes[] = { 64, 128, 256, 512, 1024, 2048, 4096 };

/** fftwf_malloc'd float storage, zero-filled, sized once. */
class AlignedFloats
{
public:
    AlignedFloats() = default;
    explicit AlignedFloats (size_t size) { resize (size); }
    void resize (size_t count);

    float* data() noexcept { return values.get(); }
    const float* data() const noexcept { return values.get(); }
    size_t size() const noexcept { return count; }
    void clear() noexcept;

    float& operator[] (size_t i) noexcept { return values[i]; }
    const float& operator[] (size_t i) const noexcept { return values[i]; }

private:
    detail::FftwArray<float> values;
    size_t count = 0;
};

}   // namespace audiofft
