// SPDX-License-Identifier: GPL-3.0-or-later
// The cross-instance lock: Windows semaphore semantics across threads and processes, and
// recovery from a holder that died.

#include "platform/NamedSemaphore.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using platform::NamedSemaphore;
using namespace std::chrono_literals;

namespace
{
// Unique per run, so parallel test programs and real plug-ins never share them; removed
// from /dev/shm when the program ends.
struct Names : ::testing::Environment
{
    static std::string of (const std::string& what)
    {
        return "Local\\QuendaTest_" + what + "_" + std::to_string (getpid());
    }

    void TearDown() override
    {
        for (auto what : { "binary", "processes", "stale", "stress" })
            shm_unlink (("/Local.QuendaTest_" + std::string (what) + "_" + std::to_string (getpid())
                         + ".uid" + std::to_string (getuid()))
                            .c_str());
    }
};

const auto* const names = ::testing::AddGlobalTestEnvironment (new Names());

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
}

TEST (NamedSemaphore, CountsOnlyToOne)
{
    auto& semaphore = NamedSemaphore::open (Names::of ("binary"));
    ASSERT_TRUE (semaphore.isValid());
    EXPECT_EQ (&semaphore, &NamedSemaphore::open (Names::of ("binary")));
    EXPECT_FALSE (NamedSemaphore::open (std::string (200, 'x')).isValid());   // too long to keep

    EXPECT_TRUE (semaphore.waitFor (0));
    EXPECT_FALSE (semaphore.waitFor (20));

    // A thread that did not take it may release it, and the waiter is woken, not polled.
    std::atomic<bool> taken { false };
    std::thread waiter ([&]
                        { semaphore.wait(); taken = true; });
    std::this_thread::sleep_for (30ms);
    EXPECT_FALSE (taken.load());
    const auto released = std::chrono::steady_clock::now();
    semaphore.release();
    waiter.join();
    EXPECT_LT (std::chrono::steady_clock::now() - released, 90ms);

    semaphore.release();
    semaphore.release();   // at count 1 already: must not become 2
    EXPECT_TRUE (semaphore.waitFor (0));
    EXPECT_FALSE (semaphore.waitFor (0));
    semaphore.release();
}

TEST (NamedSemaphore, IsSharedBetweenProcessesAndSurvivesHoldersThatDied)
{
    const auto name = Names::of ("processes");
    auto& semaphore = NamedSemaphore::open (name);
    int ready[2];
    ASSERT_EQ (0, pipe (ready));

    // The child takes the lock and holds it until it is killed.
    const auto child = spawn ([&]
                              {
        NamedSemaphore::open (name).wait();
        (void) ! write (ready[1], "x", 1);
        pause();
        return 0; });

    char byte = 0;
    ASSERT_EQ (1, read (ready[0], &byte, 1));
    EXPECT_FALSE (semaphore.waitFor (50));

    kill (child, SIGKILL);
    waitpid (child, nullptr, 0);
    EXPECT_TRUE (semaphore.waitFor (1000));

    // Released here, taken there.
    EXPECT_EQ (0, exitCodeOf (spawn ([&]
                                     { return NamedSemaphore::open (name).waitFor (50) ? 1 : 0; })));
    semaphore.release();
    EXPECT_EQ (0, exitCodeOf (spawn ([&]
                                     { return NamedSemaphore::open (name).waitFor (1000) ? 0 : 1; })));
    close (ready[0]);
    close (ready[1]);

    // A name nobody here opens: each child is its only user, like a host started after a crash.
    const auto stale = Names::of ("stale");
    EXPECT_EQ (0, exitCodeOf (spawn ([&]
                                     { NamedSemaphore::open (stale).wait(); return 0; })));
    EXPECT_EQ (0, exitCodeOf (spawn ([&]
                                     { return NamedSemaphore::open (stale).waitFor (0) ? 0 : 1; })));
}

TEST (NamedSemaphore, ExcludesThreadsAndProcessesUnderLoad)
{
    const auto name = Names::of ("stress");
    auto& semaphore = NamedSemaphore::open (name);

    // Counters shared with the child (zero-filled): inside the lock there is never more than one.
    auto* counters = static_cast<std::atomic<int>*> (mmap (nullptr, 2 * sizeof (std::atomic<int>), PROT_READ | PROT_WRITE,
                                                           MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE (MAP_FAILED, (void*) counters);
    auto& inside = counters[0];
    auto& violations = counters[1];

    const auto hammer = [&] (NamedSemaphore& lock)
    {
        int rounds = 0;
        for (const auto end = std::chrono::steady_clock::now() + 400ms; std::chrono::steady_clock::now() < end; ++rounds)
        {
            if (! lock.waitFor (5000))
                return -1;
            violations += (++inside != 1);
            --inside;
            lock.release();
        }
        return rounds;
    };

    const auto child = spawn ([&]
                              { return hammer (NamedSemaphore::open (name)) > 0 ? 0 : 1; });
    int rounds[2] {};
    std::thread first ([&]
                       { rounds[0] = hammer (semaphore); });
    std::thread second ([&]
                        { rounds[1] = hammer (semaphore); });
    first.join();
    second.join();

    EXPECT_EQ (0, exitCodeOf (child));
    EXPECT_GT (std::min (rounds[0], rounds[1]), 0);
    EXPECT_EQ (0, violations.load());
    munmap (counters, 2 * sizeof (std::atomic<int>));
}
