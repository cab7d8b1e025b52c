// SPDX-License-Identifier: GPL-3.0-or-later
// Closing Quenda.so as hosts do: effClose returns within milliseconds whatever the plug-in's
// message thread is doing. Here, unlike the "wavelab" program, kernels are designed on that
// thread, as in every ordinary host.

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
    struct Order { const char* what; bool play; bool closeElsewhere; };
    const Order orders[] {
        { "closed right after opening, its first design under way", false, false },
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

            // A new instance asks the plug-in's message thread for kernels at once.
            if (order.closeElsewhere)
                std::thread ([&] { slowest = std::max (slowest, millisecondsToRun ([&] { plugin.reset(); })); }).join();
            else
                slowest = std::max (slowest, millisecondsToRun ([&] { plugin.reset(); }));
        }

        EXPECT_LT (slowest, 100.0) << order.what;
    }
}
