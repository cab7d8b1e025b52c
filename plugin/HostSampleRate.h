// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_audio_processors/juce_audio_processors.h>

#include <atomic>
#include <functional>

/**
    The sample rate a VST2 host runs at, asked from the host itself.

    A host may set a new rate while the plug-in is resumed (Audacity does, between preparing
    and its first block); JUCE's VST2 wrapper keeps that rate for the next resume and tells
    the processor nothing. The host's time info carries its current rate, so the audio thread
    asks for it before each block; where the host gives no time info, the rate it set while
    resumed stands in. Other formats never get a host callback here.
*/
class HostSampleRate : public juce::VSTCallbackHandler
{
public:
    /** The host's current rate, or 0 when there is no host to ask and it set none.
        Audio thread: no allocation, no lock of ours. */
    double current() const;

    /** The rate the host set while resumed (any thread); 0 forgets it, as a new preparation does. */
    void setRateSetWhileResumed (double sampleRate) noexcept { rateSetWhileResumed = sampleRate; }

    void handleVstHostCallbackAvailable (std::function<VstHostCallbackType>&& callback) override;

    juce::pointer_sized_int handleVstManufacturerSpecific (juce::int32, juce::pointer_sized_int, void*, float) override
    {
        return 0;
    }

private:
    std::function<VstHostCallbackType> host;
    std::atomic<double> rateSetWhileResumed { 0.0 };
};
