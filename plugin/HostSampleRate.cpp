// SPDX-License-Identifier: GPL-3.0-or-later
#include "HostSampleRate.h"

namespace
{
// From the VST 2.4 ABI: the opcode, and the start of the time info it returns.
constexpr juce::int32 getTimeOpcode = 7;

struct TimeInfoStart
{
    double samplePosition;
    double sampleRate;
};
}

void HostSampleRate::handleVstHostCallbackAvailable (std::function<VstHostCallbackType>&& callback)
{
    host = std::move (callback);
}

double HostSampleRate::current() const
{
    // The rate is always valid in the time info, whatever flags are asked for; the host's
    // plain sample-rate call is not used, as some hosts answer it with a fixed value.
    const auto* info = host ? reinterpret_cast<const TimeInfoStart*> (host (getTimeOpcode, 0, 0, nullptr, 0.0f)) : nullptr;
    const auto fromTimeInfo = info != nullptr ? info->sampleRate : 0.0;
    return fromTimeInfo > 0.0 ? fromTimeInfo : rateSetWhileResumed.load();
}
