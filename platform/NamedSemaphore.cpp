// SPDX-License-Identifier: GPL-3.0-or-later
#include "NamedSemaphore.h"

#include <mutex>
#include <new>

#if defined(_WIN32)
 #include <windows.h>
#else
 #include <atomic>
 #include <cerrno>
 #include <chrono>
 #include <climits>
 #include <csignal>
 #include <ctime>
 #include <fcntl.h>
 #include <linux/futex.h>
 #include <sys/file.h>
 #include <sys/mman.h>
 #include <sys/stat.h>
 #include <sys/syscall.h>
 #include <unistd.h>
#endif

namespace platform
{

NamedSemaphore& NamedSemaphore::open (const std::string& name)
{
    // One object per name for the life of the process, like a handle that is never closed.
    // They and their lock sit in static storage and are never destroyed: instances destroyed
    // during static destruction can still use them, and a plug-in module that is unloaded
    // leaves nothing behind on the heap.
    struct Slot
    {
        char name[128];
        alignas (NamedSemaphore) unsigned char object[sizeof (NamedSemaphore)];
        bool used;
    };

    alignas (std::mutex) static unsigned char lockStorage[sizeof (std::mutex)];
    static auto& registryLock = *new (lockStorage) std::mutex();
    static Slot slots[16];
    static NamedSemaphore unavailable;

    const std::lock_guard<std::mutex> lock (registryLock);

    if (name.size() >= sizeof (Slot::name))
        return unavailable;

    for (auto& slot : slots)
    {
        if (slot.used && name == slot.name)
            return *std::launder (reinterpret_cast<NamedSemaphore*> (slot.object));

        if (! slot.used)
        {
            name.copy (slot.name, name.size());
            slot.name[name.size()] = 0;
            slot.used = true;
            return *new (slot.object) NamedSemaphore (name);
        }
    }

    return unavailable;
}

#if defined(_WIN32)

NamedSemaphore::NamedSemaphore (const std::string& name)
    : handle (CreateSemaphoreA (nullptr, 1, 1, name.c_str()))
{
}

bool NamedSemaphore::isValid() const noexcept
{
    return handle != nullptr;
}
void NamedSemaphore::wait() noexcept
{
    WaitForSingleObject (handle, INFINITE);
}
void NamedSemaphore::release() noexcept
{
    ReleaseSemaphore (handle, 1, nullptr);
}

bool NamedSemaphore::waitFor (int milliseconds) noexcept
{
    return WaitForSingleObject (handle, (DWORD) milliseconds) == WAIT_OBJECT_0;
}

bool NamedSemaphore::tryTake() noexcept
{
    return waitFor (0);
}
void NamedSemaphore::takeOverFromDeadHolder() noexcept {}

#else

/** The shared word is the process id of the holder, 0 when the semaphore is free (count 1).
    Keeping the holder in the word itself means taking the lock and recording who took it is
    one atomic step, so a process can never die between the two. */
struct NamedSemaphore::Shared
{
    std::atomic<int32_t> holder;
};

static_assert (sizeof (std::atomic<int32_t>) == sizeof (int32_t), "the futex word must be a plain int");

namespace
{
    constexpr int deadHolderPollMs = 100;

    std::string sharedObjectName (const std::string& name)
    {
        // "Local\Name" becomes "/Local.Name.uid1000": one object per user, as Windows
        // scopes "Local\" to the logon session.
        std::string result = "/";

        for (auto c : name)
            result += (c == '\\' || c == '/') ? '.' : c;

        return result + ".uid" + std::to_string (getuid());
    }

    long futex (std::atomic<int32_t>& word, int operation, int32_t value, const timespec* timeout) noexcept
    {
        return syscall (SYS_futex, reinterpret_cast<int32_t*> (&word), operation, value, timeout, nullptr, 0);
    }

    bool processIsGone (int32_t pid) noexcept
    {
        return pid > 0 && kill (pid, 0) == -1 && errno == ESRCH;
    }
}

NamedSemaphore::NamedSemaphore (const std::string& name)
{
    const auto objectName = sharedObjectName (name);
    const int fd = shm_open (objectName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);

    if (fd < 0)
        return;

    // Every process keeps a shared lock on the object while it lives. Whoever gets it
    // exclusively is alone: a lock left taken by a process that has since died is reset.
    const bool alone = flock (fd, LOCK_EX | LOCK_NB) == 0;

    // Otherwise this blocks only while another process is initialising the object.
    if (! alone)
        flock (fd, LOCK_SH);

    struct stat info
    {
    };
    const bool usable = fstat (fd, &info) == 0 && info.st_uid == getuid()
                        && (alone ? ftruncate (fd, sizeof (Shared)) == 0 : (size_t) info.st_size >= sizeof (Shared));
    auto* mapping = usable ? mmap (nullptr, sizeof (Shared), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0) : MAP_FAILED;

    if (mapping == MAP_FAILED)
    {
        close (fd);
        return;
    }

    shared = static_cast<Shared*> (mapping);

    if (alone)
    {
        new (mapping) Shared();
        shared->holder.store (0);
        flock (fd, LOCK_SH);
    }

    // fd stays open, and the shared lock held, until the process ends.
}

bool NamedSemaphore::isValid() const noexcept
{
    return shared != nullptr;
}

bool NamedSemaphore::tryTake() noexcept
{
    int32_t expected = 0;
    return shared->holder.compare_exchange_strong (expected, (int32_t) getpid());
}

void NamedSemaphore::takeOverFromDeadHolder() noexcept
{
    auto holder = shared->holder.load();

    if (processIsGone (holder) && shared->holder.compare_exchange_strong (holder, 0))
        futex (shared->holder, FUTEX_WAKE, INT_MAX, nullptr);
}

bool NamedSemaphore::waitFor (int milliseconds) noexcept
{
    if (shared == nullptr)
        return true;

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds (milliseconds);

    for (;;)
    {
        if (tryTake())
            return true;

        const auto left = std::chrono::duration_cast<std::chrono::milliseconds> (deadline - std::chrono::steady_clock::now()).count();

        if (left <= 0)
            return false;

        const auto slice = (long) std::min<long long> (left, deadHolderPollMs);
        const timespec timeout { slice / 1000, (slice % 1000) * 1000000L };
        const auto observed = shared->holder.load();

        if (observed != 0)
            futex (shared->holder, FUTEX_WAIT, observed, &timeout);

        takeOverFromDeadHolder();
    }
}

void NamedSemaphore::wait() noexcept
{
    if (shared == nullptr)
        return;

    while (! waitFor (INT_MAX / 2))
    {
    }
}

void NamedSemaphore::release() noexcept
{
    if (shared == nullptr)
        return;

    // At count 1 (no holder) this changes nothing.
    if (shared->holder.exchange (0) != 0)
        futex (shared->holder, FUTEX_WAKE, 1, nullptr);
}

#endif

}
