// SPDX-License-Identifier: GPL-3.0-or-later
// Closing Quenda.so as hosts do: effClose returns within milliseconds, on the thread that
// opened the instance or another. JUCE's wrapper closes under the plug-in message thread's
// lock, which that thread only grants between two of its messages.

#include "Vst2Host.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <thread>

using vst2host::Instance;

namespace
{
double millisecondsToRun (const std::function<void()>& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::milli> (std::chrono::steady_clock::now() - start).count();
}

void playOneBlock (Instance& plugin)
{
    plugin.start (48000.0f, 512);
    std::vector<float> left (512, 0.25f), right (512, -0.25f);
    plugin.process (left, right, 0, 512);
}
}

TEST (Vst2Lifecycle, CloseTakesMillisecondsInEveryOrder)
{
    struct Order
    {
        const char* what;
        bool play;
        bool closeElsewhere;
    };
    const Order orders[] {
        { "closed right after opening, as a plug-in scan does", false, false },
        { "closed after playing", true, false },
        { "opened and closed on different threads", true, true },
    };

    for (const auto& order : orders)
    {
        double slowest = 0.0;

        for (int cycle = 0; cycle < 4; ++cycle)
        {
            auto plugin = std::make_unique<Instance>();

            if (order.play)
                playOneBlock (*plugin);

            if (order.closeElsewhere)
                std::thread ([&]
                             { slowest = std::max (slowest, millisecondsToRun ([&]
                                                                               { plugin.reset(); })); })
                    .join();
            else
                slowest = std::max (slowest, millisecondsToRun ([&]
                                                                { plugin.reset(); }));
        }

        EXPECT_LT (slowest, 100.0) << order.what;
    }
}
