// SPDX-License-Identifier: GPL-3.0-or-later
#include "Interrupt.h"

#include <atomic>
#include <climits>
#include <csignal>
#include <cstring>
#include <unistd.h>

namespace cli::interrupt
{
namespace
{
    // A batch's jobs each hold an output, and --jobs goes up to 64.
    constexpr int maxTracked = 72;

    // Plain arrays and lock-free flags: all the handler may touch. A slot is claimed before
    // its path is written, so that jobs on several threads never share one.
    enum SlotState : int
    {
        freeSlot,
        claimedSlot,
        slotInUseState
    };
    char trackedPaths[maxTracked][PATH_MAX];
    std::atomic<int> slotState[maxTracked];

    static_assert (std::atomic<int>::is_always_lock_free);

    void say (const char* text)
    {
        [[maybe_unused]] const auto written = ::write (STDERR_FILENO, text, std::strlen (text));
    }

    // C linkage for sigaction; declared first, as clang asks of every external function.
    extern "C" void removeTrackedFilesAndRaise (int signalNumber);

    extern "C" void removeTrackedFilesAndRaise (int signalNumber)
    {
        for (int i = 0; i < maxTracked; ++i)
            if (slotState[i].load() == slotInUseState)
                ::unlink (trackedPaths[i]);

        // Only async-signal-safe calls here: fixed texts through write().
        say (signalNumber == SIGINT    ? "quenda-render: interrupted (SIGINT); no partial output left\n"
             : signalNumber == SIGTERM ? "quenda-render: terminated (SIGTERM); no partial output left\n"
                                       : "quenda-render: hung up (SIGHUP); no partial output left\n");

        std::signal (signalNumber, SIG_DFL);
        std::raise (signalNumber);
    }
}

void installHandlers()
{
    struct sigaction action
    {
    };
    action.sa_handler = removeTrackedFilesAndRaise;
    sigemptyset (&action.sa_mask);

    for (auto signalNumber : { SIGINT, SIGTERM, SIGHUP })
    {
        // A signal ignored by whoever started us (nohup, a background job) stays ignored.
        struct sigaction previous
        {
        };
        sigaction (signalNumber, nullptr, &previous);

        if (previous.sa_handler != SIG_IGN)
            sigaction (signalNumber, &action, nullptr);
    }

    // Past a file size limit the write fails with EFBIG and the render stops with an error
    // and removes its file, instead of the process being killed with the file half-written.
    std::signal (SIGXFSZ, SIG_IGN);
}

bool track (const juce::File& file)
{
    const auto path = file.getFullPathName().toStdString();

    if (path.size() >= PATH_MAX)
        return false;

    for (int i = 0; i < maxTracked; ++i)
    {
        auto expected = (int) freeSlot;

        if (slotState[i].compare_exchange_strong (expected, claimedSlot))
        {
            std::memcpy (trackedPaths[i], path.c_str(), path.size() + 1);
            slotState[i].store (slotInUseState);
            return true;
        }
    }

    return false;
}

void untrack (const juce::File& file)
{
    const auto path = file.getFullPathName().toStdString();

    for (int i = 0; i < maxTracked; ++i)
    {
        auto expected = (int) slotInUseState;

        if (slotState[i].load() == slotInUseState && path == trackedPaths[i]
            && slotState[i].compare_exchange_strong (expected, freeSlot))
            break;
    }
}
}
