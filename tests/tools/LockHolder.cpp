// SPDX-License-Identifier: GPL-3.0-or-later
// Another process of the same user: takes the engine lock by its name, prints "held", and
// frees the lock and exits after the given number of milliseconds (a minute by default).
// Exits 1 when the lock stays taken for two seconds.

#include "platform/NamedSemaphore.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

int main (int argc, char** argv)
{
    const int holdMs = argc > 1 ? std::atoi (argv[1]) : 60000;

    // The name is spelt out here rather than taken from the processor: this is what another
    // instance, in any process of the session, opens.
    auto& lock = platform::NamedSemaphore::open ("Local\\SelvanePQuenda_semaphore");
    if (! lock.waitFor (2000))
        return 1;

    std::printf ("held\n");
    std::fflush (stdout);
    std::this_thread::sleep_for (std::chrono::milliseconds (holdMs));
    lock.release();
    return 0;
}
