// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "dsp/TiltKernelBank.h"
#include "platform/NamedSemaphore.h"

#include <juce_events/juce_events.h>

#include <atomic>
#include <memory>
#include <optional>

/**
    The designs that fill one instance's tilt kernels.

    A design posted to the message thread holds no pointer to the processor, only to this
    object, which the processor shares with it. An instance can therefore be deleted on any
    thread without waiting for the message thread: dispose() drops what is pending, and an
    object a design may still run on is deleted on the message thread once that has passed.
*/
class KernelDesigns
{
public:
    /** Designs run at once on the requesting thread when designOnRequestingThread is set,
        otherwise on the message thread. */
    static std::shared_ptr<KernelDesigns> create (std::shared_ptr<TiltKernelBank> bank,
                                                  platform::NamedSemaphore& engineLock,
                                                  platform::NamedSemaphore& kernelDesignLock,
                                                  bool designOnRequestingThread);

    /** Cancels what is pending and lets the object go, here or on the message thread.
        Never waits. */
    static void dispose (std::shared_ptr<KernelDesigns> designs);

    ~KernelDesigns();

    /** Asks for kernels at this rate: from any thread, the audio thread included. Requests
        coalesce; the newest rate wins. */
    void request (double sampleRate);

    /** Designs for this rate now, on the calling thread (never the audio thread, unless the
        host wants it). */
    void designNow (double sampleRate);

    /** Designs for a rate the host will run at next, on the calling thread (never the audio
        thread), beside the kernels in use; nothing when kernels for it exist. Pending
        requests stay as they are. */
    void designAhead (double sampleRate);

    /** Message thread: runs a pending request at once. */
    void runPendingRequest();

    /** Whether a design has started since construction (the audio thread's ready flag). */
    bool isReady() const noexcept;

private:
    struct PendingRequest : juce::AsyncUpdater
    {
        explicit PendingRequest (KernelDesigns& o)
            : owner (o) {}
        void handleAsyncUpdate() override;
        KernelDesigns& owner;
    };

    KernelDesigns (std::shared_ptr<TiltKernelBank> bank, platform::NamedSemaphore& engineLock,
                   platform::NamedSemaphore& kernelDesignLock, bool designOnRequestingThread);

    void designRequestedRate();
    void design (std::optional<double> sampleRate);   // the requested rate where none is given

    const std::shared_ptr<TiltKernelBank> bank;
    platform::NamedSemaphore& engineLock;
    platform::NamedSemaphore& kernelDesignLock;
    const bool designOnRequestingThread;
    std::atomic<bool> kernelDesignStarted { false };
    std::atomic<bool> cancelled { false };
    std::atomic<double> requestedRate { 0.0 };
    PendingRequest pending { *this };

    JUCE_DECLARE_NON_COPYABLE (KernelDesigns)
};
