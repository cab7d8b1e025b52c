// SPDX-License-Identifier: GPL-3.0-or-later
// Reading and writing the saved-state block; the VST2 chunk tests check its bytes.

#include "processor/PluginProcessor.h"

#include <gtest/gtest.h>
#include <cstdio>
#include <optional>

namespace
{
    juce::MemoryBlock blockWithText (const std::string& text, juce::uint32 magic = 0x21324356,
                                     std::optional<juce::int32> declaredLength = {})
    {
        juce::MemoryBlock block;
        juce::MemoryOutputStream out (block, false);
        out.writeInt ((int) magic);
        out.writeInt (declaredLength.value_or ((juce::int32) text.size()));
        out.write (text.data(), text.size());
        out.writeByte (0);
        out.flush();
        return block;
    }
}

TEST (StateBlock, FloatsAreWrittenWithTwentySignificantDigits)
{
    // As the C library's own %.20g prints them, across magnitudes.
    for (double value : { (double) -0.37f, 150.0, 1e-40, -3.0e-8, 0.5, 1.0 / 3.0, 12345.678, 4.5e15, -1.0e22 })
    {
        char expected[64];
        std::snprintf (expected, sizeof (expected), "%.20g", value);
        EXPECT_EQ (std::string (expected), StateBlock::formatDouble (value).toStdString());
    }
}

TEST (StateBlock, BlocksFollowTheReadingRulesAndForeignOrDamagedOnesChangeNothing)
{
    using P = QuendaAudioProcessor;
    P processor;
    processor.getParameters()[P::lowFreqIndex]->setValueNotifyingHost (99.0f);

    // In order: what a block leaves out keeps the value the blocks before it set; a block with
    // no expected values must leave the whole state as it was.
    auto eightBytes = blockWithText ("<Params tilt=\"1\"/>");
    eightBytes.setSize (8);
    const struct { const char* rule; juce::MemoryBlock block; std::vector<std::pair<int, float>> expected; } steps[] = {
        { "only tilt present: the rest stays", blockWithText ("<Params tilt=\"-0.5\"/>"), { { P::tiltIndex, -0.5f }, { P::lowFreqIndex, 99.0f } } },
        { "tag case does not matter; malformed numbers read as 0; switches use the boolean rule",
          blockWithText ("<params trim=\"abc\" low=\"2.5dB\" bypass=\" yes\" lin_phase=\"true\"/>"),
          { { P::trimIndex, 0.0f }, { P::lowIndex, 2.5f }, { P::bypassIndex, 1.0f }, { P::linPhaseIndex, 1.0f } } },
        { "non-finite numbers are ignored", blockWithText ("<Params bypass=\"false\" lin_phase=\"\" low=\"inf\" low_freq=\"nan\"/>"),
          { { P::lowIndex, 2.5f }, { P::lowFreqIndex, 99.0f }, { P::bypassIndex, 0.0f }, { P::linPhaseIndex, 0.0f } } },
        { "exponents too long for JUCE's number reader: infinite (ignored) or zero",
          blockWithText ("<Params low=\"1e4294967297\" trim=\"5e-4294967297\"/>"), { { P::lowIndex, 2.5f }, { P::trimIndex, 0.0f } } },
        { "content inside the element is neither read nor hides the values",
          blockWithText ("<Params tilt=\"0.25\"><?pi?>text</Params>"), { { P::tiltIndex, 0.25f } } },
        { "a length beyond the block is cut to the block", blockWithText ("<Params high=\"1.5\"/>", 0x21324356, 100000), { { P::highIndex, 1.5f } } },
        { "exactly 8 bytes", eightBytes, {} },
        { "wrong magic", blockWithText ("<Params tilt=\"1\"/>", 0x12345678), {} },
        { "other tag", blockWithText ("<Other tilt=\"1\"/>"), {} },
        { "not XML", blockWithText ("tilt=1, not XML"), {} },
        { "negative length", blockWithText ("<Params tilt=\"1\"/>", 0x21324356, -1), {} },
        { "empty", {}, {} },
    };

    for (const auto& step : steps)
    {
        juce::MemoryBlock before, after;
        processor.getStateInformation (before);
        processor.setStateInformation (step.block.getData(), (int) step.block.getSize());
        processor.getStateInformation (after);
        EXPECT_TRUE (! step.expected.empty() || before == after) << step.rule;

        for (auto [index, value] : step.expected)
            EXPECT_EQ (value, processor.getParameterValues()[(size_t) index]) << step.rule;
    }
}
