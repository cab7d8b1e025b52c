// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>

namespace platform
{

/** A binary semaphore shared by name between all instances of the plug-in of one user, in one
    host process or in several.

    It behaves like a Windows semaphore created with initial and maximum count 1: wait takes
    the count from 1 to 0 (blocking while it is 0), release puts it back to 1, and a release
    while the count is already 1 does nothing. Any thread may release, holder or not.

    On Linux the state lives in a small shared mapping under /dev/shm, private to the user.
    Two things keep a crashed process from hanging everyone else, as the Windows object would
    by vanishing with its last handle: the holder's process id is recorded and a waiter takes
    the lock over when that process has died, and the first process to open the name while no
    other process has it open starts from a free lock.

    Objects are opened once per name and process and live until the process ends. A process
    opens at most 16 names; past that, or with a name of 128 characters or more, open returns
    an object that could not be created.
*/
class NamedSemaphore
{
public:
    /** The process-wide object for this name, created or opened on first use. Never null on
        Linux; on failure the returned object's waits return at once (the engine then runs
        unlocked rather than not at all). */
    static NamedSemaphore& open (const std::string& name);

    /** Waits without a time limit. */
    void wait() noexcept;

    /** Waits at most the given time; true when the semaphore was taken. */
    bool waitFor (int milliseconds) noexcept;

    /** Puts the count back to 1; does nothing when it is 1 already. */
    void release() noexcept;

    /** Whether the shared object could be created or opened. */
    bool isValid() const noexcept;

    NamedSemaphore (const NamedSemaphore&) = delete;
    NamedSemaphore& operator= (const NamedSemaphore&) = delete;

    struct Shared;

private:
    NamedSemaphore() = default;   // one that could not be created
    explicit NamedSemaphore (const std::string& name);
    ~NamedSemaphore() = default;

    bool tryTake() noexcept;
    void takeOverFromDeadHolder() noexcept;

#if defined(_WIN32)
    void* handle = nullptr;   // HANDLE
#else
    Shared* shared = nullptr;   // the shared mapping
#endif
};

}
