// SPDX-License-Identifier: GPL-3.0-or-later
// The cross-instance lock: Windows semaphore semantics, across threads and processes, and
// recovery from a holder that died.

#include "platform/HostInfo.h"
#include "platform/NamedSemaphore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using platform::NamedSemaphore;

namespace
{
    // Unique per test run, so parallel test programs and real plug-ins never share them.
    std::string uniqueName (const std::string& what)
    {
        return "Local\\QuendaTest_" + what + "_" + std::to_string (getpid());
    }

    // Removes this run's shared objects from /dev/shm at the end.
    struct RemoveSharedObjects : ::testing::Environment
    {
        void TearDown() override
        {
            const auto suffix = "_" + std::to_string (getpid()) + ".uid" + std::to_string (getuid());
            for (auto what : { "binary", "wake", "processes", "killed", "stale", "stress" })
                shm_unlink (("/Local.QuendaTest_" + std::string (what) + suffix).c_str());
        }
    };

    const auto* const removeSharedObjects = ::testing::AddGlobalTestEnvironment (new RemoveSharedObjects());

    /** Runs body in a child process and returns its exit status. */
    template <typename Body>
    pid_t spawn (Body body)
    {
        const auto pid = fork();
        if (pid == 0)
            _exit (body());
        return pid;
    }

    int exitCodeOf (pid_t pid)
    {
        int status = 0;
        waitpid (pid, &status, 0);
        return WIFEXITED (status) ? WEXITSTATUS (status) : -1;
    }

    using Clock = std::chrono::steady_clock;
}

TEST (NamedSemaphore, IsABinarySemaphoreWhoseExtraReleaseDoesNothing)
{
    auto& semaphore = NamedSemaphore::open (uniqueName ("binary"));
    ASSERT_TRUE (semaphore.isValid());
    EXPECT_EQ (&semaphore, &NamedSemaphore::open (uniqueName ("binary")));

    EXPECT_TRUE (semaphore.waitFor (0));
    EXPECT_FALSE (semaphore.waitFor (20));

    semaphore.release();
    semaphore.release();   // count is 1 already: must not become 2

    EXPECT_TRUE (semaphore.waitFor (0));
    EXPECT_FALSE (semaphore.waitFor (0));
    semaphore.release();
}

TEST (NamedSemaphore, AnyThreadMayReleaseAndWakesTheWaiter)
{
    auto& semaphore = NamedSemaphore::open (uniqueName ("wake"));
    semaphore.wait();

    std::atomic<bool> taken { false };
    std::thread waiter ([&] { semaphore.wait(); taken = true; });

    std::this_thread::sleep_for (std::chrono::milliseconds (30));
    EXPECT_FALSE (taken.load());

    const auto released = Clock::now();
    semaphore.release();   // released by a thread that did not take it, as a Windows semaphore allows
    waiter.join();
    EXPECT_TRUE (taken.load());
    EXPECT_LT (Clock::now() - released, std::chrono::milliseconds (90));   // woken, not polled
    semaphore.release();
}

TEST (NamedSemaphore, IsSharedBetweenProcesses)
{
    const auto name = uniqueName ("processes");
    auto& semaphore = NamedSemaphore::open (name);
    semaphore.wait();

    // While the parent holds it, the child cannot take it; once released, it can.
    const auto child = spawn ([&]
    {
        auto& inChild = NamedSemaphore::open (name);
        if (inChild.waitFor (50))
            return 1;
        if (! inChild.waitFor (5000))
            return 2;
        inChild.release();
        return 0;
    });

    std::this_thread::sleep_for (std::chrono::milliseconds (200));
    semaphore.release();
    EXPECT_EQ (0, exitCodeOf (child));
    EXPECT_TRUE (semaphore.waitFor (0));
    semaphore.release();
}

TEST (NamedSemaphore, AHolderKilledMidWayDoesNotHangTheOthers)
{
    const auto name = uniqueName ("killed");
    auto& semaphore = NamedSemaphore::open (name);

    int ready[2];
    ASSERT_EQ (0, pipe (ready));

    const auto child = spawn ([&]
    {
        NamedSemaphore::open (name).wait();
        char byte = 1;
        (void) ! write (ready[1], &byte, 1);
        pause();   // holds the lock until killed
        return 0;
    });

    char byte = 0;
    ASSERT_EQ (1, read (ready[0], &byte, 1));
    EXPECT_FALSE (semaphore.waitFor (50));

    kill (child, SIGKILL);
    waitpid (child, nullptr, 0);

    const auto start = Clock::now();
    EXPECT_TRUE (semaphore.waitFor (3000));
    EXPECT_LT (Clock::now() - start, std::chrono::milliseconds (1000));
    semaphore.release();
    close (ready[0]);
    close (ready[1]);
}

TEST (NamedSemaphore, ALockLeftByAnEndedProcessIsFreeForTheNextOne)
{
    // Nobody in this process opens the name, so each child is the only user when it starts,
    // like the next start of a host after a crash.
    const auto name = uniqueName ("stale");

    EXPECT_EQ (0, exitCodeOf (spawn ([&] { NamedSemaphore::open (name).wait(); return 0; })));
    EXPECT_EQ (0, exitCodeOf (spawn ([&] { return NamedSemaphore::open (name).waitFor (0) ? 0 : 1; })));
}

TEST (NamedSemaphore, ExcludesThreadsAndProcessesUnderLoad)
{
    const auto name = uniqueName ("stress");
    auto& semaphore = NamedSemaphore::open (name);

    // A counter in memory shared with the child: inside the lock it must never be above 1.
    auto* shared = static_cast<std::atomic<int>*> (mmap (nullptr, 2 * sizeof (std::atomic<int>),
                                                         PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE (MAP_FAILED, (void*) shared);
    auto& inside = shared[0];
    auto& violations = shared[1];
    inside = 0;
    violations = 0;

    const auto hammer = [&] (NamedSemaphore& lock)
    {
        const auto end = Clock::now() + std::chrono::milliseconds (400);
        int rounds = 0;
        while (Clock::now() < end)
        {
            if (! lock.waitFor (5000))
                return -1;
            if (++inside != 1)
                ++violations;
            --inside;
            lock.release();
            ++rounds;
        }
        return rounds;
    };

    const auto child = spawn ([&] { return hammer (NamedSemaphore::open (name)) > 0 ? 0 : 1; });
    std::vector<int> rounds (2);
    std::thread first ([&] { rounds[0] = hammer (semaphore); });
    std::thread second ([&] { rounds[1] = hammer (semaphore); });
    first.join();
    second.join();

    EXPECT_EQ (0, exitCodeOf (child));
    EXPECT_GT (rounds[0], 0);
    EXPECT_GT (rounds[1], 0);
    EXPECT_EQ (0, violations.load());
    munmap (shared, 2 * sizeof (std::atomic<int>));
}

TEST (HostInfo, ExecutablePathNamesThisProgram)
{
    const auto path = platform::hostExecutablePath();
    ASSERT_FALSE (path.empty());
    EXPECT_EQ ('/', path.front());
    EXPECT_NE (std::string::npos, path.find ("quenda_platform_tests"));
}
