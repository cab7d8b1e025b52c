// SPDX-License-Identifier: GPL-3.0-or-later
// The two locks all instances of the user share, in one process and across processes: they
// keep the tilt stage away from kernels being computed, must never deadlock, and are freed
// by every instance that starts.

#include "tests/support/ReadyProcessor.h"
#include "platform/NamedSemaphore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <future>
#include <optional>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

using namespace quenda_test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace
{
    constexpr int blockSize = 512;

    // Long enough for any "did it finish" question; never reached unless something is stuck.
    constexpr auto generousWait = 3s;

    // How long a blocked call has to stay blocked to count as stalled.
    constexpr auto stallWindow = 100ms;

    platform::NamedSemaphore& engineLock()   { return platform::NamedSemaphore::open (Processor::engineLockName); }
    platform::NamedSemaphore& filtersLock()  { return platform::NamedSemaphore::open (Processor::filtersLockName); }

    /** Processes one block on another thread. */
    std::future<void> processBlockAsync (Processor& processor, juce::AudioBuffer<float>& buffer)
    {
        return std::async (std::launch::async, [&processor, &buffer]
        {
            juce::MidiBuffer midi;
            processor.processBlock (buffer, midi);
        });
    }

    bool isDone (std::future<void>& future, std::chrono::milliseconds within)
    {
        return future.wait_for (within) == std::future_status::ready;
    }

    /** Frees lock until the stuck task finishes, so a failing test ends instead of hanging. */
    void rescue (std::future<void>& future, platform::NamedSemaphore& lock)
    {
        while (! isDone (future, 10ms))
            lock.release();
    }

    constexpr auto stalledThenResumed = "stalled, then resumed";

    /** Runs a block on another thread while the lock is held, then frees it with release. */
    std::string blockWhileHeld (Processor& processor, juce::AudioBuffer<float>& buffer,
                                platform::NamedSemaphore& lock, const std::function<void()>& release)
    {
        auto block = processBlockAsync (processor, buffer);
        const auto ranWhileHeld = isDone (block, stallWindow);
        release();
        const auto resumed = isDone (block, generousWait);
        rescue (block, lock);

        return ranWhileHeld ? "ran while the lock was held" : resumed ? stalledThenResumed : "never resumed";
    }

    /** Any instance that starts meanwhile in another process of the user frees the lock, on
        purpose: a block that ran early only counts when it happens every time. */
    template <typename Attempt>
    std::string outcomeOfUpToThreeTries (Attempt attempt)
    {
        std::string outcome;

        for (int i = 0; i < 3; ++i)
        {
            outcome = attempt();

            if (outcome != "ran while the lock was held")
                break;
        }

        return outcome;
    }

    /** True when the two buffers hold exactly the same samples. */
    ::testing::AssertionResult identical (const juce::AudioBuffer<float>& expected, const juce::AudioBuffer<float>& actual)
    {
        for (int channel = 0; channel < 2; ++channel)
        {
            for (int i = 0; i < expected.getNumSamples(); ++i)
            {
                if (expected.getSample (channel, i) != actual.getSample (channel, i))
                    return ::testing::AssertionFailure() << "channel " << channel << " sample " << i << ": "
                                                         << actual.getSample (channel, i) << " instead of "
                                                         << expected.getSample (channel, i);
            }
        }

        return ::testing::AssertionSuccess();
    }

    /** The quenda-lock-helper program, with its stdin and stdout piped to this process. */
    class HelperProcess
    {
    public:
        explicit HelperProcess (const char* mode)
        {
            // A write to a helper that died must fail, not kill the test program.
            std::signal (SIGPIPE, SIG_IGN);

            int toChild[2], fromChild[2];
            if (pipe2 (toChild, O_CLOEXEC) != 0 || pipe2 (fromChild, O_CLOEXEC) != 0)
                return;

            posix_spawn_file_actions_t actions;
            posix_spawn_file_actions_init (&actions);
            posix_spawn_file_actions_adddup2 (&actions, toChild[0], STDIN_FILENO);
            posix_spawn_file_actions_adddup2 (&actions, fromChild[1], STDOUT_FILENO);

            char* const argv[] = { const_cast<char*> (QUENDA_LOCK_HELPER_PATH), const_cast<char*> (mode), nullptr };

            if (posix_spawn (&pid, QUENDA_LOCK_HELPER_PATH, &actions, nullptr, argv, environ) != 0)
                pid = -1;

            posix_spawn_file_actions_destroy (&actions);
            close (toChild[0]);
            close (fromChild[1]);
            input = toChild[1];
            output = fromChild[0];
        }

        ~HelperProcess()
        {
            if (pid > 0)
                kill();

            close (input);
            close (output);
        }

        bool started() const  { return pid > 0; }

        /** Waits for the helper to print this line. */
        bool saw (const std::string& expected, std::chrono::milliseconds within)
        {
            std::string received;
            const auto deadline = Clock::now() + within;

            while (Clock::now() < deadline)
            {
                pollfd readable { output, POLLIN, 0 };
                if (poll (&readable, 1, 10) <= 0)
                    continue;

                char c = 0;
                if (read (output, &c, 1) != 1)
                    return false;

                if (c == '\n')
                    return received == expected;

                received += c;
            }

            return false;
        }

        void sendLine()       { [[maybe_unused]] auto written = write (input, "\n", 1); }

        void kill()
        {
            ::kill (pid, SIGKILL);
            waitpid (pid, nullptr, 0);
            pid = -1;
        }

        /** The exit code, or nothing if the helper is still running after the given time. */
        std::optional<int> exitCode (std::chrono::milliseconds within)
        {
            const auto deadline = Clock::now() + within;

            do
            {
                int status = 0;

                if (waitpid (pid, &status, WNOHANG) == pid)
                {
                    pid = -1;
                    return WIFEXITED (status) ? WEXITSTATUS (status) : -1;
                }

                std::this_thread::sleep_for (5ms);
            }
            while (Clock::now() < deadline);

            return std::nullopt;
        }

    private:
        pid_t pid = -1;
        int input = -1, output = -1;
    };
}

TEST (EngineLocks, EitherLockHeldElsewhereStallsTheBlockUntilItIsFreed)
{
    for (auto linearPhase : { true, false })
    {
        auto processor = makeConvolvingProcessor (blockSize);
        setParameter (*processor, Processor::linPhaseIndex, linearPhase ? 1.0f : 0.0f);
        auto buffer = makeNoise (blockSize, 1);

        for (auto* lock : { &engineLock(), &filtersLock() })
        {
            SCOPED_TRACE (std::string (lock == &engineLock() ? "engine" : "filters") + " lock, linear phase "
                          + (linearPhase ? "on" : "off"));

            EXPECT_EQ (stalledThenResumed, outcomeOfUpToThreeTries ([&]
            {
                EXPECT_TRUE (lock->waitFor (2000));
                return blockWhileHeld (*processor, buffer, *lock, [lock] { lock->release(); });
            }));
        }
    }
}

TEST (EngineLocks, ComputationsWhileOtherBlocksRunLeaveEveryInstanceWithTheRightKernels)
{
    constexpr int numBlocks = 150;
    const auto input = makeNoise (numBlocks * blockSize, 2);

    // The same signal through an instance nothing else disturbs.
    auto expected = input;
    processInBlocks (*makeConvolvingProcessor (blockSize), expected, blockSize);

    auto computing = makeConvolvingProcessor (blockSize);
    auto playing = makeConvolvingProcessor (blockSize);
    auto playedOutput = input;
    std::atomic<bool> playingDone { false };

    // Paced like an audio thread, so the computations below overlap many of its blocks.
    auto player = std::async (std::launch::async, [&]
    {
        juce::MidiBuffer midi;

        for (int start = 0; start < playedOutput.getNumSamples(); start += blockSize)
        {
            auto block = blockOf (playedOutput, start, blockSize);
            playing->processBlock (block, midi);
            std::this_thread::sleep_for (1ms);
        }

        playingDone = true;
    });

    // Meanwhile the message thread recomputes the playing instance's own kernels, and the
    // other instance's at a different rate and back.
    auto scratch = makeNoise (blockSize, 3);
    juce::MidiBuffer midi;
    int rounds = 0;

    while (! playingDone)
    {
        playing->triggerAsyncUpdate();
        playing->handleUpdateNowIfNeeded();

        for (auto rate : { 44100.0, 48000.0 })
        {
            computing->setPlayConfigDetails (2, 2, rate, blockSize);
            computing->processBlock (scratch, midi);
            computing->handleUpdateNowIfNeeded();
        }

        ++rounds;

        // The lock is not fair: without a pause the player would hardly ever get it.
        std::this_thread::sleep_for (2ms);
    }

    ASSERT_TRUE (isDone (player, generousWait));
    EXPECT_GT (rounds, 2) << "the computations hardly overlapped the blocks";
    EXPECT_TRUE (identical (expected, playedOutput)) << "instance playing during the computations";

    auto computedOutput = input;
    processInBlocks (*computing, computedOutput, blockSize);
    EXPECT_TRUE (identical (expected, computedOutput)) << "instance that recomputed its kernels";
}

TEST (EngineLocks, EveryNewInstanceFreesBothLocksButNeverCountsAboveOne)
{
    {
        Processor processor;

        // Free before: the unpaired releases leave a single count, so a second take fails.
        for (auto* lock : { &engineLock(), &filtersLock() })
        {
            EXPECT_TRUE (lock->waitFor (0));
            EXPECT_FALSE (lock->waitFor (0));
            lock->release();
        }
    }

    for (auto* lock : { &engineLock(), &filtersLock() })
    {
        SCOPED_TRACE (lock == &engineLock() ? "engine lock" : "filters lock");
        ASSERT_TRUE (lock->waitFor (2000));

        // The engine lock is also taken while the new instance sizes its engine: that only
        // works once the release at construction has freed it.
        auto construction = std::async (std::launch::async, [] { Processor processor; });

        EXPECT_TRUE (isDone (construction, generousWait)) << "the new instance waited for the held lock";
        rescue (construction, *lock);

        EXPECT_TRUE (lock->waitFor (1000)) << "the held lock was not freed";
        lock->release();
    }
}

TEST (EngineLocks, TwoInstancesPlayingWhileKernelsAreRecomputedNeverDeadlock)
{
    constexpr auto duration = 1500ms;
    constexpr auto noProgressLimit = 2000;   // ms

    const float tilts[] = { 0.7f, -0.4f };
    std::unique_ptr<Processor> owners[] = { makeConvolvingProcessor (blockSize, tilts[0]),
                                            makeConvolvingProcessor (blockSize, tilts[1]) };
    Processor* instances[] = { owners[0].get(), owners[1].get() };

    std::atomic<bool> stop { false };
    std::atomic<int> blocksDone[2] = { { 0 }, { 0 } };

    // Each audio thread changes its rate now and then (two dry blocks and a computation
    // request each time) and once plays a longer block, which re-sizes its engine.
    auto play = [&] (int which)
    {
        auto& processor = *instances[which];
        const auto noise = makeNoise (2 * blockSize, 10 + which);
        juce::AudioBuffer<float> audio;
        juce::MidiBuffer midi;

        for (int count = 0; ! stop; ++count)
        {
            const auto rate = count % 23 == 7 ? 44100.0 : 48000.0;
            processor.setPlayConfigDetails (2, 2, rate, blockSize);

            // Fresh input each time: output fed back in would grow without bound.
            audio.makeCopyOf (noise, true);
            auto block = blockOf (audio, 0, count == 40 ? 2 * blockSize : blockSize - (count % 5) * 50);
            processor.processBlock (block, midi);
            ++blocksDone[which];
        }

        processor.setPlayConfigDetails (2, 2, 48000.0, blockSize);
    };

    std::future<void> players[] = { std::async (std::launch::async, play, 0), std::async (std::launch::async, play, 1) };

    const auto end = Clock::now() + duration;
    int lastCounts[2] = { -1, -1 };
    auto lastProgress = Clock::now();
    bool deadlocked = false;

    while (Clock::now() < end && ! deadlocked)
    {
        // Probe with a time-out before the unbounded waits of the computations.
        for (auto* lock : { &engineLock(), &filtersLock() })
        {
            if (! lock->waitFor (noProgressLimit))
                deadlocked = true;
            else
                lock->release();
        }

        if (deadlocked)
            break;

        for (auto* processor : instances)
        {
            processor->triggerAsyncUpdate();
            processor->handleUpdateNowIfNeeded();
        }

        // Leaves the audio threads a chance at the unfair lock, as a real message thread would.
        std::this_thread::sleep_for (1ms);

        if (blocksDone[0] != lastCounts[0] && blocksDone[1] != lastCounts[1])
        {
            lastCounts[0] = blocksDone[0];
            lastCounts[1] = blocksDone[1];
            lastProgress = Clock::now();
        }
        else if (Clock::now() - lastProgress > std::chrono::milliseconds (noProgressLimit))
        {
            deadlocked = true;
        }
    }

    stop = true;
    EXPECT_FALSE (deadlocked) << "a lock stayed taken or an audio thread stopped moving";

    for (auto& player : players)
    {
        if (! isDone (player, generousWait))
        {
            ADD_FAILURE() << "an audio thread did not stop";
            rescue (player, engineLock());
        }
    }

    if (deadlocked)
    {
        engineLock().release();
        filtersLock().release();
        return;
    }

    EXPECT_GT (blocksDone[0] + blocksDone[1], 100);

    // After one more computation at the final rate both instances play like a fresh one
    // (only rounding differs: their convolution segments fall at other places).
    for (int which = 0; which < 2; ++which)
    {
        SCOPED_TRACE ("instance " + std::to_string (which));
        auto& processor = *instances[which];
        processor.triggerAsyncUpdate();
        processor.handleUpdateNowIfNeeded();

        auto fresh = makeConvolvingProcessor (blockSize, tilts[which]);
        auto expected = makeNoise (40 * blockSize, 20);
        auto actual = expected;
        processInBlocks (*fresh, expected, blockSize);
        processInBlocks (processor, actual, blockSize);

        // Past the kernel's length the histories hold the same input.
        for (int channel = 0; channel < 2; ++channel)
            for (int i = 20 * blockSize; i < expected.getNumSamples(); ++i)
                ASSERT_NEAR (expected.getSample (channel, i), actual.getSample (channel, i), 1.0e-5f)
                    << "channel " << channel << " sample " << i;
    }
}

TEST (EngineLocksAcrossProcesses, AHolderInAnotherProcessStallsBlocksUntilItFreesTheLockOrDies)
{
    auto processor = makeConvolvingProcessor (blockSize);
    auto buffer = makeNoise (blockSize, 4);

    for (auto killed : { false, true })
    {
        SCOPED_TRACE (killed ? "the holder is killed" : "the holder frees the lock");

        EXPECT_EQ (stalledThenResumed, outcomeOfUpToThreeTries ([&]
        {
            HelperProcess holder ("hold");
            EXPECT_TRUE (holder.started());
            EXPECT_TRUE (holder.saw ("held", generousWait));

            return blockWhileHeld (*processor, buffer, engineLock(), [&]
            {
                if (killed)
                {
                    holder.kill();
                }
                else
                {
                    holder.sendLine();
                    EXPECT_EQ (0, holder.exitCode (generousWait));
                }
            });
        }));
    }
}

TEST (EngineLocksAcrossProcesses, AnInstanceStartingInAnotherProcessFreesTheHeldEngineLock)
{
    ASSERT_TRUE (engineLock().waitFor (2000));

    HelperProcess starter ("start");
    ASSERT_TRUE (starter.started());

    // The new instance also takes the lock while it sizes its engine, so it only exits if its
    // release at construction freed the lock first.
    const auto exitCode = starter.exitCode (10s);
    EXPECT_EQ (0, exitCode);

    EXPECT_TRUE (engineLock().waitFor (1000)) << "the lock held here is still taken";
    engineLock().release();
}
