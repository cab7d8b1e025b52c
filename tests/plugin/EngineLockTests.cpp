// SPDX-License-Identifier: GPL-3.0-or-later
// The two locks all instances of the user share: they serialise kernel computations, never
// hold up an audio thread, never deadlock, and are freed by every instance that starts.

#include "tests/support/ReadyProcessor.h"
#include "platform/NamedSemaphore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

using namespace support;
using namespace std::chrono_literals;

namespace
{
constexpr int blockSize = 512;
constexpr auto generousWait = 3s;   // never reached unless something is stuck

platform::NamedSemaphore& engineLock()
{
    return platform::NamedSemaphore::open (Processor::engineLockName);
}
platform::NamedSemaphore& kernelDesignLock()
{
    return platform::NamedSemaphore::open (Processor::kernelDesignLockName);
}

bool finishes (std::future<void>& task, std::chrono::milliseconds within)
{
    return task.wait_for (within) == std::future_status::ready;
}

// Frees both locks until the task ends, so that a failing test ends instead of hanging.
void rescue (std::future<void>& task)
{
    while (! finishes (task, 10ms))
    {
        engineLock().release();
        kernelDesignLock().release();
    }
}

// Takes and frees the lock; false when it stayed taken for the whole time.
bool isFreedWithin (platform::NamedSemaphore& lock, int milliseconds)
{
    const auto taken = lock.waitFor (milliseconds);
    if (taken)
        lock.release();
    return taken;
}
}

// Held in this process (another process: the wavelab host tests; a killed holder: the platform tests).
TEST (EngineLocks, AHeldLockStallsTheKernelComputationButNeverABlock)
{
    enum Holder
    {
        here,
        hereFreedByANewInstance,
        kernelDesignHereFreedByANewInstance
    };
    auto processor = makeConvolvingProcessor (blockSize);
    auto buffer = makeNoise (2, blockSize, 1);
    const std::string ranEarly = "ran while the lock was held", stalled = "stalled, then resumed";

    for (auto holder : { here, hereFreedByANewInstance, kernelDesignHereFreedByANewInstance })
    {
        SCOPED_TRACE ("holder " + std::to_string (holder));
        auto& lock = holder == kernelDesignHereFreedByANewInstance ? kernelDesignLock() : engineLock();
        std::string outcome = ranEarly;

        // An instance starting meanwhile anywhere frees the lock on purpose: only early every time counts.
        for (int attempt = 0; attempt < 5 && outcome == ranEarly; ++attempt)
        {
            ASSERT_TRUE (lock.waitFor (2000));

            auto block = std::async (std::launch::async, [&]
                                     { juce::MidiBuffer midi; processor->processBlock (buffer, midi); });
            EXPECT_TRUE (finishes (block, generousWait)) << "a block waited for the lock";   // it has kernels

            auto computation = std::async (std::launch::async, [&]
                                           {
                processor->requestKernelDesign();
                processor->runPendingKernelDesign(); });
            const auto ranWhileHeld = finishes (computation, 100ms);

            // A new instance frees the lock by its unpaired release at construction.
            auto freeing = std::async (std::launch::async, [&]
                                       {
                if (holder == here)
                    lock.release();
                else
                    Processor newInstance; });

            const auto resumed = finishes (computation, generousWait);
            rescue (block);
            rescue (computation);
            rescue (freeing);
            outcome = ranWhileHeld ? ranEarly : resumed ? stalled
                                                        : "never resumed";
        }

        EXPECT_EQ (stalled, outcome);
    }
}

TEST (EngineLocks, DesignsNeverDisturbPlayingInstances)
{
    const auto input = makeNoise (2, 200 * blockSize, 2);
    auto expected = input;
    processInBlocks (*makeConvolvingProcessor (blockSize), expected, blockSize);

    auto changing = makeConvolvingProcessor (blockSize, -0.4f);
    std::atomic<bool> stop { false };
    std::atomic<int> changingBlocks { 0 };

    // This instance now and then changes its rate without being prepared again (a dry block
    // and a computation request), varies its block length and once plays a longer block.
    auto changer = std::async (std::launch::async, [&]
                               {
        const auto noise = makeNoise (2, 2 * blockSize, 10);
        juce::MidiBuffer midi;
        for (int count = 0; ! stop; count = ++changingBlocks)
        {
            changing->setPlayConfigDetails (2, 2, count % 23 == 7 ? 44100.0 : 48000.0, blockSize);
            auto audio = noise;   // fresh input: output fed back would grow without bound
            auto block = blockOf (audio, 0, count == 40 ? 2 * blockSize : blockSize - (count % 5) * 50);
            changing->processBlock (block, midi);
        }
        changing->setPlayConfigDetails (2, 2, 48000.0, blockSize); });

    // Another plays steadily, paced like an audio thread, while the message thread recomputes
    // both instances' kernels; watchdog: a lock taken for 2 s or the stream not done in 10 s.
    // A new instance elsewhere may free a held lock: only a stream wrong every time counts.
    bool stuck = false;
    float difference = 1.0f;

    for (int attempt = 0; attempt < 3 && difference != 0.0f && ! stuck; ++attempt)
    {
        auto steady = makeConvolvingProcessor (blockSize);
        auto played = input;
        auto player = std::async (std::launch::async, [&]
                                  {
            juce::MidiBuffer midi;
            while (changingBlocks <= 40 && ! stop)
                std::this_thread::yield();
            for (int start = 0; start < played.getNumSamples() && ! stop; start += blockSize)
            {
                auto block = blockOf (played, start, blockSize);
                steady->processBlock (block, midi);
                std::this_thread::sleep_for (1ms);
            } });

        for (const auto end = std::chrono::steady_clock::now() + 10s; ! finishes (player, 0ms);)
        {
            stuck = std::chrono::steady_clock::now() > end || ! isFreedWithin (engineLock(), 2000) || ! isFreedWithin (kernelDesignLock(), 2000);
            if (stuck)
                break;   // the rescue below frees the locks for the player
            for (auto* instance : { steady.get(), changing.get() })
            {
                instance->requestKernelDesign();
                instance->runPendingKernelDesign();
            }
            std::this_thread::sleep_for (2ms);   // the lock is not fair: leave the audio threads a chance
        }

        rescue (player);
        difference = maxDifference (expected, played);
    }

    stop = true;
    stuck = ! finishes (changer, generousWait) || stuck;
    rescue (changer);
    ASSERT_FALSE (stuck) << "a lock stayed taken or an audio thread stopped moving";
    EXPECT_EQ (0.0f, difference) << "the steady instance";

    // After one more computation at the final rate the other plays like a fresh instance past
    // the kernel's length (its convolution segments fall elsewhere: only rounding differs).
    changing->requestKernelDesign();
    changing->runPendingKernelDesign();
    auto fresh = makeNoise (2, 40 * blockSize, 20);
    auto changed = fresh;
    processInBlocks (*makeConvolvingProcessor (blockSize, -0.4f), fresh, blockSize);
    processInBlocks (*changing, changed, blockSize);
    EXPECT_LT (maxDifference (fresh, changed, 20 * blockSize), 1.0e-5f) << "the instance that changed its rate";
}
