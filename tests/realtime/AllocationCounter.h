// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <utility>

/** Counts calls of the global operator new (every form) made by the calling thread. */
namespace allocation_counter
{
    void start() noexcept;
    long stop() noexcept;

    template <typename Function>
    long countDuring (Function&& function)
    {
        start();
        std::forward<Function> (function)();
        return stop();
    }
}
