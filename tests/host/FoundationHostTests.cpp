// SPDX-License-Identifier: GPL-3.0-or-later
// What a VST2 host sees of Quenda.so: identity, parameters, programs, latency, chunks, and
// processed audio from the first block.

#include "HostSession.h"

#include <gtest/gtest.h>
#include <cstring>

using vst2host::Instance;

TEST (Vst2Foundation, DescribesItselfAsAStereoEffect)
{
    Instance plugin;
    EXPECT_EQ (8, plugin.effect->numParams);
    EXPECT_EQ (1, plugin.effect->numPrograms);
    EXPECT_EQ (2, plugin.effect->numInputs);
    EXPECT_EQ (2, plugin.effect->numOutputs);
    EXPECT_NE (0, plugin.effect->flags & effFlagsProgramChunks);
    EXPECT_NE (0, plugin.effect->flags & effFlagsCanReplacing);
    EXPECT_EQ (('Q' << 24) | ('n' << 16) | ('d' << 8) | 'a', plugin.effect->uniqueID);
    EXPECT_EQ ("Quenda", plugin.stringFrom (effGetEffectName));
    EXPECT_EQ ("Quenda", plugin.stringFrom (effGetProductString));
    EXPECT_EQ ("Selvane", plugin.stringFrom (effGetVendorString));
    EXPECT_EQ (0, plugin.latency());

    // One program, unnamed, and renaming it changes nothing.
    EXPECT_EQ (0, plugin.dispatch (effGetProgram));
    char name[] = "renamed";
    plugin.dispatch (effSetProgramName, 0, 0, name);
    EXPECT_EQ ("", plugin.stringFrom (effGetProgramName));

    const char* names[] = { "tilt", "Bypass", "linear phase", "trim", "low", "high", "low_freq", "high_freq" };
    const float defaults[] = { 0, 0, 0, 0, 0, 0, 150, 4500 };
    for (int i = 0; i < 8; ++i)
    {
        EXPECT_EQ (names[i], plugin.stringFrom (effGetParamName, i));
        EXPECT_EQ (defaults[i], plugin.getParameter (i)) << names[i];
        EXPECT_EQ ("", plugin.stringFrom (effGetParamLabel, i)) << names[i];
        EXPECT_EQ (1, plugin.dispatch (effCanBeAutomated, i)) << names[i];
    }
}

// Values outside 0..1 on purpose: a normalising or clamping parameter would store something else.
TEST (Vst2Foundation, PlainValuesRoundTripThroughTheChunk)
{
    Instance plugin, restored;
    const std::pair<int, float> writes[] = { { 0, -0.37f }, { 2, 1.0f }, { 6, 0.3f }, { 7, 22000.0f } };
    for (auto [index, value] : writes)
    {
        plugin.setParameter (index, value);
        EXPECT_EQ (value, plugin.getParameter (index)) << index;
    }
    EXPECT_EQ (150.0f, restored.getParameter (6)) << "another instance's edits leaked into this one";

    const auto chunk = plugin.getChunk();
    ASSERT_GT (chunk.size(), 9u);
    const std::string expectedText = "<Params tilt=\"-0.37000000476837158203\" bypass=\"0\" lin_phase=\"1\" "
                                     "trim=\"0\" low=\"0\" high=\"0\" low_freq=\"0.30000001192092895508\" "
                                     "high_freq=\"22000\"/>";
    unsigned char header[8];
    std::memcpy (header, chunk.data(), 8);
    EXPECT_EQ (0x56, header[0]);
    EXPECT_EQ (0x21, header[3]);
    EXPECT_EQ ((unsigned) chunk.size() - 9, (unsigned) (header[4] | header[5] << 8 | header[6] << 16 | header[7] << 24));
    EXPECT_EQ (expectedText, std::string (chunk.data() + 8, chunk.size() - 9));
    EXPECT_EQ (0, chunk.back());

    restored.setChunk (chunk);
    for (auto [index, value] : writes)
        EXPECT_EQ (value, restored.getParameter (index)) << index;
    EXPECT_EQ (chunk, restored.getChunk());
}

// In an ordinary host (not WaveLab) too, the kernels exist from the first block: they are
// designed when the host prepares playback, not requested by the audio thread.
TEST (KernelScheduling, AnOrdinaryHostGetsProcessedBlocksFromTheFirst)
{
    for (float linPhase : { 1.0f, 0.0f })
    {
        Session session (512, { -0.8f, 0, linPhase });
        EXPECT_EQ (linPhase > 0 ? 3249 : 0, session.plugin.latency());

        for (int b = 0; b < 8; ++b)
            session.block (b % 2 == 0 ? 512 : 100, "from the first block");
    }
}
