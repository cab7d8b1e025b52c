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
    QuendaAudioProcessor processor;

    // Only tilt present: the rest stays.
    processor.getParameters()[QuendaAudioProcessor::lowFreqIndex]->setValueNotifyingHost (99.0f);
    restore (processor, blockWithText ("<Params tilt=\"-0.5\"/>"));
    EXPECT_EQ (-0.5f, valueOf (processor, QuendaAudioProcessor::tiltIndex));
    EXPECT_EQ (99.0f, valueOf (processor, QuendaAudioProcessor::lowFreqIndex));

    // Tag case does not matter; malformed numbers read as 0; switches use the boolean rule.
    restore (processor, blockWithText ("<params trim=\"abc\" low=\"2.5dB\" bypass=\" yes\" lin_phase=\"true\"/>"));
    EXPECT_EQ (0.0f, valueOf (processor, QuendaAudioProcessor::trimIndex));
    EXPECT_EQ (2.5f, valueOf (processor, QuendaAudioProcessor::lowIndex));
    EXPECT_EQ (1.0f, valueOf (processor, QuendaAudioProcessor::bypassIndex));
    EXPECT_EQ (1.0f, valueOf (processor, QuendaAudioProcessor::linPhaseIndex));

    restore (processor, blockWithText ("<Params bypass=\"false\" lin_phase=\"\" low=\"inf\" low_freq=\"nan\"/>"));
    EXPECT_EQ (2.5f, valueOf (processor, QuendaAudioProcessor::lowIndex));
    EXPECT_EQ (99.0f, valueOf (processor, QuendaAudioProcessor::lowFreqIndex));
    EXPECT_EQ (0.0f, valueOf (processor, QuendaAudioProcessor::bypassIndex));
    EXPECT_EQ (0.0f, valueOf (processor, QuendaAudioProcessor::linPhaseIndex));

    // Exponents too long for JUCE's number reader: far out of range, so infinite (ignored) or zero.
    restore (processor, blockWithText ("<Params low=\"1e4294967297\" trim=\"5e-4294967297\"/>"));
    EXPECT_EQ (2.5f, valueOf (processor, QuendaAudioProcessor::lowIndex));
    EXPECT_EQ (0.0f, valueOf (processor, QuendaAudioProcessor::trimIndex));

    // Content inside the element is not read: damaged content neither hides the values nor hangs.
    restore (processor, blockWithText ("<Params tilt=\"0.25\"><?pi?>text</Params>"));
    EXPECT_EQ (0.25f, valueOf (processor, QuendaAudioProcessor::tiltIndex));

    // A length beyond the block is cut to the block.
    auto longLength = blockWithText ("<Params high=\"1.5\"/>");
    const juce::uint32 tooLong = 100000;
    std::memcpy (static_cast<char*> (longLength.getData()) + 4, &tooLong, 4);
    restore (processor, longLength);
    EXPECT_EQ (1.5f, valueOf (processor, QuendaAudioProcessor::highIndex));
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

    processor.setStateInformation (nullptr, 0);
    juce::MemoryBlock after;
    processor.getStateInformation (after);
    EXPECT_EQ (before, after);
}
