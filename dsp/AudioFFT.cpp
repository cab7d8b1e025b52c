// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/AudioFFT.h"

#include <algorithm>
#include <cstdint>
#include <mutex>

namespace audiofft
{

extern const char* const shippedWisdom;

namespace
{
    // FFTW's planner keeps global state: no two plan creations or destructions may
    // overlap anywhere in the process, and several plug-in instances share it.
    std::mutex& plannerMutex()
    {
        static std::mutex mutex;
        return mutex;
    }

    // Both under the planner lock.
    bool wisdomLoaded = false;
    bool measuring = false;

    unsigned streamingPlanFlags()
    {
        if (! wisdomLoaded)
        {
            fftwf_import_wisdom_from_string (shippedWisdom);
            wisdomLoaded = true;
        }

        return measuring ? FFTW_PATIENT : FFTW_PATIENT | FFTW_WISDOM_ONLY;
    }

    template <typename T>
    detail::FftwArray<T> allocate (size_t count)
    {
        return detail::FftwArray<T> (static_cast<T*> (fftwf_malloc (sizeof (T) * count)));
    }

    fftwf_complex* asFftw (FFTW3FFT::Complex* bins) noexcept
    {
        return reinterpret_cast<fftwf_complex*> (bins);
    }
}

FFTW3FFT::~FFTW3FFT()
{
    init (0);
}

void FFTW3FFT::init (size_t size)
{
    if (size == fftSize)
        return;

    const std::lock_guard<std::mutex> lock (plannerMutex());

    release();

    if (size == 0)
        return;

    fftSize = size;
    numBins = size / 2 + 1;

    timeBuffer = allocate<float> (fftSize);
    splitRe = allocate<float> (numBins);
    splitIm = allocate<float> (numBins);

    const fftwf_iodim dimension { static_cast<int> (fftSize), 1, 1 };

    splitForwardPlan.reset (fftwf_plan_guru_split_dft_r2c (1, &dimension, 0, nullptr,
                                                           timeBuffer.get(), splitRe.get(), splitIm.get(),
                                                           FFTW_ESTIMATE));
    splitInversePlan.reset (fftwf_plan_guru_split_dft_c2r (1, &dimension, 0, nullptr,
                                                           splitRe.get(), splitIm.get(), timeBuffer.get(),
                                                           FFTW_ESTIMATE));

    forwardOutput = allocate<Complex> (numBins);
    inverseInput = allocate<Complex> (numBins);

    forwardPlan.reset (fftwf_plan_dft_r2c_1d (static_cast<int> (fftSize), timeBuffer.get(),
                                              asFftw (forwardOutput.get()), FFTW_ESTIMATE));
    inversePlan.reset (fftwf_plan_dft_c2r_1d (static_cast<int> (fftSize), asFftw (inverseInput.get()),
                                              timeBuffer.get(), FFTW_ESTIMATE));
}

void FFTW3FFT::release() noexcept
{
    // Plans before the buffers they refer to.
    forwardPlan.reset();
    inversePlan.reset();
    splitForwardPlan.reset();
    splitInversePlan.reset();

    fftSize = 0;
    numBins = 0;

    timeBuffer.reset();
    inverseInput.reset();
    forwardOutput.reset();
    splitRe.reset();
    splitIm.reset();
}

void FFTW3FFT::fft (const float* data, float* re, float* im)
{
    std::copy_n (data, fftSize, timeBuffer.get());
    fftwf_execute_split_dft_r2c (splitForwardPlan.get(), timeBuffer.get(), splitRe.get(), splitIm.get());
    std::copy_n (splitRe.get(), numBins, re);
    std::copy_n (splitIm.get(), numBins, im);
}

void FFTW3FFT::ifft (float* data, const float* re, const float* im)
{
    // c2r destroys its input, which is why the bins are copied in first.
    std::copy_n (re, numBins, splitRe.get());
    std::copy_n (im, numBins, splitIm.get());
    fftwf_execute_split_dft_c2r (splitInversePlan.get(), splitRe.get(), splitIm.get(), timeBuffer.get());
    scaleInverseOutput (data);
}

void FFTW3FFT::fft (const float* data, Complex* spectrum)
{
    std::copy_n (data, fftSize, timeBuffer.get());
    fftwf_execute (forwardPlan.get());
    std::copy_n (forwardOutput.get(), numBins, spectrum);
}

void FFTW3FFT::ifft (float* data, const Complex* spectrum)
{
    std::copy_n (spectrum, numBins, inverseInput.get());
    fftwf_execute (inversePlan.get());
    scaleInverseOutput (data);
}

void FFTW3FFT::fft (const float* data, std::vector<Complex>& spectrum)
{
    fft (data, spectrum.data());
}

void FFTW3FFT::ifft (float* data, const std::vector<Complex>& spectrum)
{
    ifft (data, spectrum.data());
}

void FFTW3FFT::scaleInverseOutput (float* data) const noexcept
{
    const float scale = 1.0f / static_cast<float> (static_cast<uint64_t> (fftSize));
    const float* source = timeBuffer.get();

    for (size_t i = 0; i < fftSize; ++i)
        data[i] = source[i] * scale;
}

//==============================================================================
SplitRealFft::~SplitRealFft()
{
    init (0);
}

void SplitRealFft::init (int size)
{
    if (size == fftSize)
        return;

    const std::lock_guard<std::mutex> lock (plannerMutex());

    forwardPlan.reset();
    inversePlan.reset();
    interleaved.reset();
    fftSize = size;

    if (size == 0)
        return;

    // Scratch arrays of the callers' alignment, so the plans suit theirs.
    const auto numBins = (size_t) size / 2 + 1;
    auto time = allocate<float> ((size_t) size);
    interleaved = allocate<float> (2 * numBins);
    auto* bins = reinterpret_cast<fftwf_complex*> (interleaved.get());

    const auto flags = streamingPlanFlags();
    forwardPlan.reset (fftwf_plan_dft_r2c_1d (size, time.get(), bins, flags));
    inversePlan.reset (fftwf_plan_dft_c2r_1d (size, bins, time.get(), flags));

    if (forwardPlan == nullptr)
        forwardPlan.reset (fftwf_plan_dft_r2c_1d (size, time.get(), bins, FFTW_ESTIMATE));

    if (inversePlan == nullptr)
        inversePlan.reset (fftwf_plan_dft_c2r_1d (size, bins, time.get(), FFTW_ESTIMATE));
}

//==============================================================================
SplitComplexFft::~SplitComplexFft()
{
    init (0);
}

void SplitComplexFft::init (int size)
{
    if (size == fftSize)
        return;

    const std::lock_guard<std::mutex> lock (plannerMutex());

    forwardPlan.reset();
    inversePlan.reset();
    fftSize = size;

    if (size == 0)
        return;

    // Scratch arrays of the callers' alignment and spacing. The inverse is the forward
    // transform with real and imaginary parts swapped: planned on swapped pointers, since a
    // plan only runs on arrays spaced as the ones it was made for.
    auto in = allocate<float> (2 * (size_t) size), out = allocate<float> (2 * (size_t) size);
    const fftwf_iodim dimension { size, 1, 1 };

    auto plan = [&] (float* re, float* im, float* outRe, float* outIm)
    {
        auto* made = fftwf_plan_guru_split_dft (1, &dimension, 0, nullptr, re, im, outRe, outIm, streamingPlanFlags());
        return made != nullptr ? made : fftwf_plan_guru_split_dft (1, &dimension, 0, nullptr, re, im, outRe, outIm, FFTW_ESTIMATE);
    };

    forwardPlan.reset (plan (in.get(), in.get() + size, out.get(), out.get() + size));
    inversePlan.reset (plan (in.get() + size, in.get(), out.get() + size, out.get()));
}

void SplitComplexFft::forward (float* time, float* bins) noexcept
{
    fftwf_execute_split_dft (forwardPlan.get(), time, time + fftSize, bins, bins + fftSize);
}

void SplitComplexFft::inverseUnscaled (float* bins, float* time) noexcept
{
    fftwf_execute_split_dft (inversePlan.get(), bins + fftSize, bins, time + fftSize, time);
}

void measureStreamingPlans()
{
    const std::lock_guard<std::mutex> lock (plannerMutex());
    fftwf_forget_wisdom();
    wisdomLoaded = true;
    measuring = true;
}

std::string exportWisdom()
{
    const std::lock_guard<std::mutex> lock (plannerMutex());
    const std::unique_ptr<char, decltype (&fftwf_free)> text (fftwf_export_wisdom_to_string(), &fftwf_free);
    return text != nullptr ? std::string (text.get()) : std::string();
}

void SplitRealFft::forward (float* time, float* re, float* im) noexcept
{
    auto* bins = interleaved.get();
    fftwf_execute_dft_r2c (forwardPlan.get(), time, reinterpret_cast<fftwf_complex*> (bins));

    for (int k = 0; k <= fftSize / 2; ++k)
    {
        re[k] = bins[2 * k];
        im[k] = bins[2 * k + 1];
    }
}

void SplitRealFft::inverseUnscaled (const float* re, const float* im, float* time) noexcept
{
    auto* bins = interleaved.get();

    for (int k = 0; k <= fftSize / 2; ++k)
    {
        bins[2 * k] = re[k];
        bins[2 * k + 1] = im[k];
    }

    fftwf_execute_dft_c2r (inversePlan.get(), reinterpret_cast<fftwf_complex*> (bins), time);
}

void AlignedFloats::resize (size_t newCount)
{
    values = allocate<float> (std::max<size_t> (newCount, 1));
    count = newCount;
    clear();
}

void AlignedFloats::clear() noexcept
{
    std::fill_n (values.get(), count, 0.0f);
}

}   // namespace audiofft
