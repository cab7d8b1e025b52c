// SPDX-License-Identifier: GPL-3.0-or-later
// Another process of the same user: takes the engine lock by its name, prints "held <pid>",
// and frees the lock and exits after the given number of milliseconds (a minute by default)
// or, outside Windows, at SIGUSR1. Exits 1 when the lock stays taken for two seconds.

#include "platform/NamedSemaphore.h"

#include <cstdio>
#include <cstdlib>

#if defined (_WIN32)
 #include <process.h>
 #include <windows.h>
#else
 #include <csignal>
 #include <ctime>
 #include <unistd.h>
#endif

int main (int argc, char** argv)
{
    const int holdMs = argc > 1 ? std::atoi (argv[1]) : 60000;

   #if ! defined (_WIN32)
    sigset_t freeSignal;
    sigemptyset (&freeSignal);
    sigaddset (&freeSignal, SIGUSR1);
    sigprocmask (SIG_BLOCK, &freeSignal, nullptr);   // before "held": an early signal must wait
   #endif

    // The name is spelt out here rather than taken from the processor: this is what another
    // instance, in any process of the session, opens.
    auto& lock = platform::NamedSemaphore::open ("Local\\SelvanePQuenda_semaphore");
    if (! lock.waitFor (2000))
        return 1;

   #if defined (_WIN32)
    std::printf ("held %d\n", _getpid());
    std::fflush (stdout);
    Sleep ((DWORD) holdMs);
   #else
    std::printf ("held %d\n", (int) getpid());
    std::fflush (stdout);
    const timespec hold { holdMs / 1000, (holdMs % 1000) * 1000000L };
    sigtimedwait (&freeSignal, nullptr, &hold);
   #endif

    lock.release();
    return 0;
}
