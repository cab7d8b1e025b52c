// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_audio_processors/juce_audio_processors.h>

#include <functional>

/**
    The sample rate a VST2 host runs at, asked from the host itself.

    A host may set a new rate while the plug-in is resumed (Audacity does, between preparing
    and its first block); JUCE's VST2 wrapper keeps that rate for the next resume and tells
    the processor nothing. The host's time info carries its current rate, so the audio thread
    asks for it before each block. Other formats never get a host callback here.
*/
class HostSampleRate : public juce::VSTCallbackHandler
{
public:
    /** The host's current rate, or 0 when there is no host to ask or it does not say.
        Audio thread: no allocation, no lock of ours. */
    double current() const;

    void handleVstHostCallbackAvailable (std::function<VstHostCallbackType>&& callback) override;

    juce::pointer_sized_int handleVstManufacturerSpecific (juce::int32, juce::pointer_sized_int, void*, float) override
    {
        return 0;
    }

private:
    std::function<VstHostCallbackType> host;
};
