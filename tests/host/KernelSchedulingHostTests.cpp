// SPDX-License-Identifier: GPL-3.0-or-later
// In an ordinary host the kernels are computed on the message thread (the plug-in's own on
// Linux, the host's on Windows); the audio thread only asks for them.

#include "HostSession.h"

#include <chrono>

TEST (KernelScheduling, KernelsArriveFromThePluginsMessageThread)
{
    Settings settings;
    settings.tilt = -0.8f;
    settings.linPhase = 1.0f;
    Session session (512, settings);

    // The first block regrows the buffers and meets the new sample rate: silent, and it
    // reports the linear-phase latency.
    session.block (512, "first block");
    EXPECT_EQ (3249, session.plugin.latency());

    // Silence passes the same whichever kernels are in place while the computation runs.
    for (int b = 0; b < 3; ++b)
        session.block (512, "waiting", true);

    vst2host::runMessageLoopFor (std::chrono::seconds (1));

    // Had the kernels not arrived, the tilt's wet part would be missing here.
    for (int b = 0; b < 12; ++b)
        session.block (512, "after the kernels");
}

TEST (KernelScheduling, ClosingInstancesWithComputationsPendingIsSafe)
{
    for (int i = 0; i < 20; ++i)
    {
        vst2host::Instance plugin;
        plugin.setParameter (0, 0.5f);
        plugin.start (44100.0f + (float) i, 128);
        std::vector<float> left (128, 0.25f), right (128, -0.25f);
        plugin.process (left, right, 0, 128);
        plugin.process (left, right, 0, 128);
    }
}
