// SPDX-License-Identifier: GPL-3.0-or-later
// A second process for the lock tests: takes the engine lock, prints "held <pid>", and frees
// the lock and exits on SIGUSR1. Exits 1 when the lock stays taken for two seconds.

#include "processor/PluginProcessor.h"

#include <csignal>
#include <cstdio>
#include <unistd.h>

int main()
{
    sigset_t freeSignal;
    sigemptyset (&freeSignal);
    sigaddset (&freeSignal, SIGUSR1);
    sigprocmask (SIG_BLOCK, &freeSignal, nullptr);   // before "held": an early signal must wait

    auto& lock = platform::NamedSemaphore::open (QuendaAudioProcessor::engineLockName);
    if (! lock.waitFor (2000))
        return 1;

    dprintf (STDOUT_FILENO, "held %d\n", (int) getpid());

    sigwaitinfo (&freeSignal, nullptr);
    lock.release();
    return 0;
}
