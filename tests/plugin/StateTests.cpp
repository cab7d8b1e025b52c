// SPDX-License-Identifier: GPL-3.0-or-later
// The saved-state block, checked byte for byte and through the processor.

#include "processor/PluginProcessor.h"

#include <gtest/gtest.h>
#include <clocale>
#include <cstdio>
#include <cstring>

namespace
{
    std::string xmlText (const juce::MemoryBlock& block)
    {
        return std::string (static_cast<const char*> (block.getData()) + 8, block.getSize() - 9);
    }

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

TEST (StateBlock, FreshInstanceSavesTheDefaultsInFixedLayout)
{
    QuendaAudioProcessor processor;
    juce::MemoryBlock block;
    processor.getStateInformation (block);

    const auto* bytes = static_cast<const unsigned char*> (block.getData());
    ASSERT_GT (block.getSize(), 9u);
    EXPECT_EQ (0x56, bytes[0]);
    EXPECT_EQ (0x43, bytes[1]);
    EXPECT_EQ (0x32, bytes[2]);
    EXPECT_EQ (0x21, bytes[3]);

    juce::uint32 length = 0;
    std::memcpy (&length, bytes + 4, 4);
    EXPECT_EQ (block.getSize() - 9, length);
    EXPECT_EQ (0, bytes[block.getSize() - 1]);

    EXPECT_EQ ("<Params tilt=\"0\" bypass=\"0\" lin_phase=\"0\" trim=\"0\" low=\"0\" high=\"0\" "
               "low_freq=\"150\" high_freq=\"4500\"/>",
               xmlText (block));
}

TEST (StateBlock, FloatsAreWrittenWithTwentySignificantDigits)
{
    // The float nearest -0.37, widened to double, printed as C's %.20g prints it.
    EXPECT_EQ ("-0.37000000476837158203", StateBlock::formatDouble ((double) -0.37f).toStdString());
    EXPECT_EQ ("150", StateBlock::formatDouble (150.0).toStdString());
    EXPECT_EQ ("0.10000000149011611938", StateBlock::formatDouble ((double) 0.1f).toStdString());

    // Agrees with the C library's own %.20g across magnitudes.
    for (double value : { 1e-40, -3.0e-8, 0.5, 1.0 / 3.0, 12345.678, 4.5e15, -1.0e22 })
    {
        char expected[64];
        std::snprintf (expected, sizeof (expected), "%.20g", value);
        EXPECT_EQ (std::string (expected), StateBlock::formatDouble (value).toStdString());
    }

    // Independent of the C locale: a comma locale must not leak into the text.
    const auto* previous = std::setlocale (LC_NUMERIC, nullptr);
    const std::string saved = previous != nullptr ? previous : "C";
    if (std::setlocale (LC_NUMERIC, "de_DE.UTF-8") != nullptr)
    {
        EXPECT_EQ ("-0.37000000476837158203", StateBlock::formatDouble ((double) -0.37f).toStdString());
    }
    std::setlocale (LC_NUMERIC, saved.c_str());
}

TEST (StateBlock, RoundTripRestoresEveryParameterExactly)
{
    QuendaAudioProcessor source;
    const float values[] = { -0.37f, 1.0f, 1.0f, 5.123456789f, -6.0f, 2.5f, 0.3f, 14999.9f };
    for (int i = 0; i < 8; ++i)
        source.getParameters()[i]->setValueNotifyingHost (values[i]);

    juce::MemoryBlock block;
    source.getStateInformation (block);

    QuendaAudioProcessor target;
    restore (target, block);

    for (int i = 0; i < 8; ++i)
        EXPECT_EQ (values[i], valueOf (target, i)) << "parameter " << i;

    juce::MemoryBlock again;
    target.getStateInformation (again);
    EXPECT_EQ (block, again);
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

    restore (processor, blockWithText ("<Params bypass=\"false\" lin_phase=\"\"/>"));
    EXPECT_EQ (0.0f, valueOf (processor, QuendaAudioProcessor::bypassIndex));
    EXPECT_EQ (0.0f, valueOf (processor, QuendaAudioProcessor::linPhaseIndex));

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

TEST (StateBlock, NonFiniteRestoredValuesAreIgnored)
{
    QuendaAudioProcessor processor;
    restore (processor, blockWithText ("<Params low=\"inf\" low_freq=\"nan\" high=\"1e999\"/>"));
    EXPECT_EQ (0.0f, valueOf (processor, QuendaAudioProcessor::lowIndex));
    EXPECT_EQ (150.0f, valueOf (processor, QuendaAudioProcessor::lowFreqIndex));
    EXPECT_EQ (0.0f, valueOf (processor, QuendaAudioProcessor::highIndex));
}
