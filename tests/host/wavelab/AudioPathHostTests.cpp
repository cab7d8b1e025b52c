// SPDX-License-Identifier: GPL-3.0-or-later
// The plug-in's output through the VST2 ABI against the reference model. This program's name
// contains "wavelab", so the plug-in computes its kernels inside the block that asks for
// them and every block is deterministic.

#include "../HostSession.h"
#include "platform/HostInfo.h"

#include <chrono>
#include <cstdio>
#include <tuple>

namespace
{
/** Starts tools/LockHolder (built beside this program) and returns once it holds the
        engine lock; close() returns its exit status. */
struct LockHolderProcess
{
    explicit LockHolderProcess (int holdMs)
    {
        auto program = platform::hostExecutablePath();
        program = program.substr (0, program.find_last_of ("/\\") + 1) + "quenda-lock-holder";
#if defined(_WIN32)
        program += ".exe";   // through cmd.exe, which takes the unquoted path; build folders have no spaces
#else
        program = "exec '" + program + "'";
#endif
        pipe = popen ((program + " " + std::to_string (holdMs)).c_str(), "r");
        char line[16] {};
        holding = pipe != nullptr && std::fgets (line, sizeof (line), pipe) != nullptr && std::string (line).rfind ("held", 0) == 0;
    }

    int close()
    {
        return pclose (pipe);
    }

    FILE* pipe = nullptr;
    bool holding = false;
};
}

TEST (AudioPath, SettingsAndBlockSizesChangingMidStream)
{
    // Each scenario starts a session and changes its settings before every block.
    struct Scenario
    {
        const char* what;
        int declared;
        Settings initial;
        std::vector<int> sizes;
        void (*change) (Settings&, int block);
    };
    const Scenario scenarios[] {
        { "tilt held and gliding through zero, phase mode switching", 256, {}, std::vector<int> (12, 256), [] (Settings& s, int b)
          {
              const float tilts[] = { 0.0f, 0.5f, 0.5f, 1.0f, 1.0f, -0.5f, -0.5f, 0.0f, 0.0f, 0.8f, -1.0f, 0.3f };
              s.tilt = tilts[b];
              s.linPhase = (b >= 3 && b < 9) ? 1.0f : 0.0f;
          } },
        { "shelves, corners and trim", 512, { 0.4f }, std::vector<int> (8, 512), [] (Settings& s, int b)
          {
              struct
              {
                  float low, high, lowFreq, highFreq, trim;
              } const changes[] {
                  { 0, 0, 150, 4500, 0 }, { 6, 0, 150, 4500, 0 }, { 6, -3, 150, 4500, -2 }, { 6, -3, 40, 4500, -2 }, { -4.5f, 3, 300, 12000, 5 }, { -4.5f, 3, 300, 12000, 5 }, { 0, 0, 90, 3000, 0 }, { 2, 1.5f, 0.5f, 20000, 1 }
              };
              const auto& c = changes[b];
              std::tie (s.low, s.high, s.lowFreq, s.highFreq, s.trim) = std::tie (c.low, c.high, c.lowFreq, c.highFreq, c.trim);
          } },
        { "bypass gliding everything to neutral and back", 512, { -0.8f, 0, 1, 3, 4, -2 }, std::vector<int> (9, 512), [] (Settings& s, int b)
          { s.bypass = (b >= 3 && b < 6) ? 1.0f : 0.0f; } },
        { "irregular sizes, single samples", 512, { 0.5f, 0, 0, 0, 3 }, { 512, 100, 1, 37, 512, 1, 1, 300, 511, 64 }, [] (Settings& s, int b)
          { s.tilt = (b % 3 == 0) ? -0.5f : 0.5f; s.linPhase = (b >= 5) ? 1.0f : 0.0f; } },
        { "blocks longer than declared", 256, { 0.6f }, { 256, 256, 1000, 1000, 256, 700 }, [] (Settings&, int) {} },
    };

    for (const auto& scenario : scenarios)
    {
        Session session (scenario.declared, scenario.initial);

        for (int b = 0; b < (int) scenario.sizes.size(); ++b)
        {
            scenario.change (session.settings, b);
            session.block (scenario.sizes[(size_t) b], scenario.what);
        }
    }
}

// A rate change is processed from its first block, even when the kernel computation it needs
// has to wait for another process to let go of the engine lock.
TEST (AudioPath, ARateChangeIsProcessedFromItsFirstBlock)
{
    Session session (512, { -0.7f, 0, 1, 0, 0, 2 });

    for (int b = 0; b < 2; ++b)
        session.block (512, "before");

    // An instance starting meanwhile in any process of the user frees the lock on purpose, so
    // only a computation that runs early every time counts.
    constexpr int holdMs = 2000;
    long long waited = 0;
    for (int attempt = 0; attempt < 3 && waited < holdMs - 300; ++attempt)
    {
        LockHolderProcess holder (holdMs);
        ASSERT_TRUE (holder.holding) << "the lock holder did not start";
        const auto start = std::chrono::steady_clock::now();
        session.restart (attempt % 2 == 0 ? 44100.0 : 48000.0);
        session.block (512, "rate changed while the lock is held elsewhere");
        waited = std::chrono::duration_cast<std::chrono::milliseconds> (std::chrono::steady_clock::now() - start).count();
        EXPECT_EQ (0, holder.close());
    }
    EXPECT_GE (waited, holdMs - 300) << "the kernels were computed while another process held the lock";

    for (int b = 0; b < 4; ++b)
        session.block (512, "after");
}

// Audacity's order: prepared at 44.1 kHz, then 48 kHz and its own block size set while the
// plug-in runs, with no new resume. Every block is as at 48 kHz from the first.
TEST (AudioPath, ARateSetWhileRunningIsFollowedFromTheFirstBlock)
{
    for (float linPhase : { 0.0f, 1.0f })
    {
        Session session (512, { 0.6f, 0, linPhase, -1, 4, -2, 120, 6000 }, 44100.0);
        session.plugin.setRateWhileRunning (48000.0f, 8192);
        session.model.start (48000.0, session.settings);

        for (int n : { 8192, 8192, 1000 })
            session.block (n, linPhase > 0 ? "linear phase, 48 kHz set while running" : "minimum phase, 48 kHz set while running");
    }
}
