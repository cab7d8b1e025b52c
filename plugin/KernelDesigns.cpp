// SPDX-License-Identifier: GPL-3.0-or-later
#include "KernelDesigns.h"

std::shared_ptr<KernelDesigns> KernelDesigns::create (std::shared_ptr<TiltKernelBank> bank, platform::NamedSemaphore& engine,
                                                      platform::NamedSemaphore& kernelDesign, bool onRequestingThread)
{
    return std::shared_ptr<KernelDesigns> (new KernelDesigns (std::move (bank), engine, kernelDesign, onRequestingThread));
}

KernelDesigns::KernelDesigns (std::shared_ptr<TiltKernelBank> kernelBank, platform::NamedSemaphore& engine,
                              platform::NamedSemaphore& kernelDesign, bool onRequestingThread)
    : bank (std::move (kernelBank)), engineLock (engine), kernelDesignLock (kernelDesign), designOnRequestingThread (onRequestingThread)
{
}

KernelDesigns::~KernelDesigns()
{
    pending.cancelPendingUpdate();
}

void KernelDesigns::dispose (std::shared_ptr<KernelDesigns> designs)
{
    if (designs == nullptr)
        return;

    designs->cancelled = true;
    designs->pending.cancelPendingUpdate();

    // The message thread may have taken the update out of its queue just before the cancel
    // and be about to run it. It cannot be doing so while this thread is the message thread
    // or holds its lock (JUCE's VST2 wrapper deletes instances under that lock); otherwise
    // the last reference goes to the message thread, behind that update, and nobody waits.
    auto* messageManager = juce::MessageManager::getInstanceWithoutCreating();

    if (messageManager == nullptr || messageManager->currentThreadHasLockedMessageManager())
        return;

    // If the queue no longer takes messages, no update is left to run either.
    juce::MessageManager::callAsync ([last = std::move (designs)] {});
}

void KernelDesigns::request (double sampleRate)
{
    requestedRate = sampleRate;

    if (designOnRequestingThread)
        designNow (sampleRate);
    else
        pending.triggerAsyncUpdate();
}

void KernelDesigns::PendingRequest::handleAsyncUpdate()
{
    if (! owner.cancelled)
        owner.designRequestedRate();
}

void KernelDesigns::runPendingRequest()
{
    pending.handleUpdateNowIfNeeded();
}

void KernelDesigns::designNow (double sampleRate)
{
    // This design serves any request made before it; one already taken from the queue
    // designs for this rate too.
    requestedRate = sampleRate;
    pending.cancelPendingUpdate();
    designRequestedRate();
}

void KernelDesigns::designRequestedRate()
{
    design (std::nullopt);
}

void KernelDesigns::designAhead (double sampleRate)
{
    if (! bank->hasKernelsFor (sampleRate))
        design (sampleRate);
}

void KernelDesigns::design (std::optional<double> sampleRate)
{
    kernelDesignLock.wait();
    kernelDesignStarted = true;
    kernelDesignLock.release();

    // The shared lock serialises designs across instances; the audio thread never takes it,
    // it picks the new set up at its next block. A requested rate is read under the lock, so
    // that of two designs the one published last has the newest rate.
    engineLock.wait();
    bank->design (sampleRate.value_or (requestedRate.load()));
    engineLock.release();
}

bool KernelDesigns::isReady() const noexcept
{
    return kernelDesignStarted;
}
