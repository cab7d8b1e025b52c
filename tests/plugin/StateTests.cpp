// SPDX-License-Identifier: GPL-3.0-or-later
// Reading and writing the saved-state block; the VST2 chunk tests check its bytes.

#include "processor/PluginProcessor.h"

#include <gtest/gtest.h>
#include <cstdio>
#include <cstring>

namespace
{
    juce::MemoryBlock blockWithText (const std::string& text, juce::uint32 magic = 0x21324356)
    {
        juce::MemoryBlock block;
        juce::MemoryOutputStream out (block, false);
        out.writeInt ((int) magic);
        out.writeInt ((int) text.size());
        out.write (text.data(), text.size());
        out.writeByte (0);
        out.flush();
        return block;
    }

    void restore (QuendaAudioProcessor& processor, const juce::MemoryBlock& block)
    {
        processor.setStateInformation (block.getData(), (int) block.getSize());
    }

    float valueOf (QuendaAudioProcessor& processor, int index)
    {
        return processor.getParameterValues()[(size_t) index];
    }
}

TEST (StateBlock, FloatsAreWrittenWithTwentySignificantDigits)
{
    // The float nearest -0.37, widened to double, printed as C's %.20g prints it.
    EXPECT_EQ ("-0.37000000476837158203", StateBlock::formatDouble ((double) -0.37f).toStdString());
    EXPECT_EQ ("150", StateBlock::formatDouble (150.0).toStdString());

    // Agrees with the C library's own %.20g across magnitudes.
    for (double value : { 1e-40, -3.0e-8, 0.5, 1.0 / 3.0, 12345.678, 4.5e15, -1.0e22 })
    {
        char expected[64];
        std::snprintf (expected, sizeof (expected), "%.20g", value);
        EXPECT_EQ (std::string (expected), StateBlock::formatDouble (value).toStdString());
    }
}

TEST (StateBlock, PartialAndLooseBlocksFollowTheReadingRules)
{
    using P = QuendaAudioProcessor;
    P processor;
    processor.getParameters()[P::lowFreqIndex]->setValueNotifyingHost (99.0f);

    // In order: what a block leaves out keeps the value the blocks before it set.
    auto longLength = blockWithText ("<Params high=\"1.5\"/>");
    const juce::uint32 tooLong = 100000;
    std::memcpy (static_cast<char*> (longLength.getData()) + 4, &tooLong, 4);
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
        { "a length beyond the block is cut to the block", longLength, { { P::highIndex, 1.5f } } },
    };

    for (const auto& step : steps)
    {
        restore (processor, step.block);
        for (auto [index, value] : step.expected)
            EXPECT_EQ (value, valueOf (processor, index)) << step.rule;
    }
}

TEST (StateBlock, ForeignOrDamagedBlocksChangeNothing)
{
    QuendaAudioProcessor processor;
    juce::MemoryBlock before;
    processor.getStateInformation (before);

    const auto expectUnchanged = [&] (const juce::MemoryBlock& block, const char* what)
    {
        restore (processor, block);
        juce::MemoryBlock after;
        processor.getStateInformation (after);
        EXPECT_EQ (before, after) << what;
    };

    auto eightBytes = blockWithText ("<Params tilt=\"1\"/>");
    eightBytes.setSize (8);
    expectUnchanged (eightBytes, "exactly 8 bytes");
    expectUnchanged (blockWithText ("<Params tilt=\"1\"/>", 0x12345678), "wrong magic");
    expectUnchanged (blockWithText ("<Other tilt=\"1\"/>"), "other tag");
    expectUnchanged (blockWithText ("tilt=1, not XML"), "not XML");

    auto negativeLength = blockWithText ("<Params tilt=\"1\"/>");
    const juce::int32 minusOne = -1;
    std::memcpy (static_cast<char*> (negativeLength.getData()) + 4, &minusOne, 4);
    expectUnchanged (negativeLength, "negative length");

    expectUnchanged ({}, "empty");
}
