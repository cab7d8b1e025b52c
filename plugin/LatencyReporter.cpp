// SPDX-License-Identifier: GPL-3.0-or-later
#include "LatencyReporter.h"

namespace
{
constexpr int pollMilliseconds = 10;
}

std::shared_ptr<LatencyReporter> LatencyReporter::create (juce::AudioProcessor& owner, int initialLatency)
{
    return std::shared_ptr<LatencyReporter> (new LatencyReporter (owner, initialLatency));
}

LatencyReporter::LatencyReporter (juce::AudioProcessor& processor, int initialLatency)
    : owner (&processor), pending (initialLatency), reported (initialLatency)
{
    startTimer (pollMilliseconds);
}

LatencyReporter::~LatencyReporter()
{
    stopTimer();
}

void LatencyReporter::dispose (std::shared_ptr<LatencyReporter> reporter)
{
    if (reporter == nullptr)
        return;

    {
        const std::lock_guard<std::mutex> detached (reporter->ownerLock);
        reporter->owner = nullptr;
    }

    // As for the kernel designs: the message thread may be about to call the timer, unless
    // this thread is that thread or holds its lock; then the last reference goes there.
    auto* messageManager = juce::MessageManager::getInstanceWithoutCreating();

    if (messageManager == nullptr || messageManager->currentThreadHasLockedMessageManager())
        return;

    juce::MessageManager::callAsync ([last = std::move (reporter)] {});
}

void LatencyReporter::reportNow (int latency)
{
    pending.store (latency);
    report (latency);
}

void LatencyReporter::timerCallback()
{
    report (pending.load());
}

void LatencyReporter::report (int latency)
{
    const std::lock_guard<std::mutex> attached (ownerLock);

    if (owner != nullptr && reported != latency)
    {
        reported = latency;
        owner->setLatencySamples (latency);
    }
}
