// SPDX-License-Identifier: GPL-3.0-or-later
// In an ordinary host (not WaveLab) too, the kernels exist from the first block: they are
// designed when the host prepares playback, not requested by the audio thread.

#include "HostSession.h"

TEST (KernelScheduling, AnOrdinaryHostGetsProcessedBlocksFromTheFirst)
{
    for (float linPhase : { 1.0f, 0.0f })
    {
        Settings settings;
        settings.tilt = -0.8f;
        settings.linPhase = linPhase;
        Session session (512, settings);
        EXPECT_EQ (linPhase > 0 ? 3249 : 0, session.plugin.latency());

        for (int b = 0; b < 8; ++b)
            session.block (b % 2 == 0 ? 512 : 100, "from the first block");
    }
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
