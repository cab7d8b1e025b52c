// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_audio_processors/juce_audio_processors.h>

#include <atomic>
#include <memory>
#include <mutex>

/**
    Tells the host of the processor's latency. setLatencySamples notifies listeners under a
    lock and allocates, so the audio thread only stores a new latency and the message thread
    reports it, looking every 10 ms.

    Shared with the timer and disposed of like the kernel designs: an instance deleted on
    another thread never leaves a callback running on it.
*/
class LatencyReporter : private juce::Timer
{
public:
    static std::shared_ptr<LatencyReporter> create (juce::AudioProcessor& owner, int initialLatency);

    /** Detaches from the processor, then lets the message thread drop the last reference. */
    static void dispose (std::shared_ptr<LatencyReporter> reporter);

    /** Off the audio thread: tells the host now, if the latency changed. */
    void reportNow (int latency);

    /** Audio thread: no lock, no allocation; the host is told from the message thread. */
    void switchTo (int latency) noexcept { pending.store (latency); }

    /** The latency of the last switch, reported or not. */
    int latest() const noexcept { return pending.load(); }

    ~LatencyReporter() override;

private:
    LatencyReporter (juce::AudioProcessor& owner, int initialLatency);

    void timerCallback() override;
    void report (int latency);

    std::mutex ownerLock;
    juce::AudioProcessor* owner;
    std::atomic<int> pending;
    int reported;
};
