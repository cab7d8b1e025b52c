// SPDX-License-Identifier: GPL-3.0-or-later
// Counts the allocations and mutex locks of the calling thread between begin() and end(),
// inside the plug-in too: the program exports its own malloc and pthread_mutex_lock (or,
// under AddressSanitizer, installs its allocation hook), which the loaded plug-in binds to.
// Linux only; elsewhere available() is false and nothing is counted.
#pragma once

namespace counters
{

struct Counts
{
    long allocations = 0;
    long locks = 0;
};

bool available() noexcept;
void begin() noexcept;
Counts end() noexcept;

}
