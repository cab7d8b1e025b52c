// SPDX-License-Identifier: GPL-3.0-or-later
// Parameters and the saved-state block as the VST2 tests in tests/host cannot see them: IDs,
// the mapped form other formats use, what counts as a switch being on, and the reading rules.

#include "plugin/PluginProcessor.h"

#include <gtest/gtest.h>
#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>

namespace
{
std::unique_ptr<QuendaAudioProcessor> makeFor (juce::AudioProcessor::WrapperType wrapper)
{
    juce::AudioProcessor::setTypeOfNextNewPlugin (wrapper);
    auto processor = std::make_unique<QuendaAudioProcessor>();
    juce::AudioProcessor::setTypeOfNextNewPlugin (juce::AudioProcessor::wrapperType_Undefined);
    return processor;
}

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

TEST (Parameters, FollowTheTable)
{
    QuendaAudioProcessor processor;
    const auto& parameters = processor.getParameters();
    const char* ids[] = { "tilt", "bypass", "lin_phase", "trim", "low", "high", "low_freq", "high_freq" };
    ASSERT_EQ (8, parameters.size());

    for (int i = 0; i < 8; ++i)
    {
        EXPECT_EQ (juce::String (ids[i]), dynamic_cast<juce::AudioProcessorParameterWithID&> (*parameters[i]).paramID);

        if (i == 1 || i == 2)
        {
            // A switch is on from one half.
            parameters[i]->setValue (0.49f);
            EXPECT_EQ (0.0f, processor.getParameterValues()[(size_t) i]) << ids[i];
            parameters[i]->setValue (0.5f);
            EXPECT_EQ (1.0f, processor.getParameterValues()[(size_t) i]) << ids[i];
            continue;
        }

        // A NaN reaching a shelf's feedback path would silence the channel for good.
        const auto before = parameters[i]->getValue();
        for (auto bad : { std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                          -std::numeric_limits<float>::infinity() })
            parameters[i]->setValueNotifyingHost (bad);
        EXPECT_EQ (before, parameters[i]->getValue()) << ids[i];
    }
}

TEST (Parameters, EachWrapperGetsItsOwnHostView)
{
    using P = juce::AudioProcessor;
    const struct
    {
        P::WrapperType wrapper;
        float lowFreqDefault;
        bool named;
        bool hostBypass;
    } cases[] = {
        { P::wrapperType_VST, 150.0f, false, false },
        { P::wrapperType_VST3, std::sqrt ((150.0f - 20.0f) / 280.0f), true, true },
        { P::wrapperType_LV2, std::sqrt ((150.0f - 20.0f) / 280.0f), true, false },
    };
    const struct
    {
        int index;
        const char* typed;
        const char* shown;
    } texts[] = {
        { ParameterTable::highFreqIndex, "6k", "6000.0 Hz" },
        { ParameterTable::highFreqIndex, "3.5 kHz", "3500.0 Hz" },
        { ParameterTable::trimIndex, "-0.004 dB", "-0.00 dB" },
        { ParameterTable::tiltIndex, "0.006", "0.01 dB/oct" },
    };

    for (const auto& c : cases)
    {
        auto processor = makeFor (c.wrapper);
        auto* lowFreq = processor->getParameters()[ParameterTable::lowFreqIndex];
        EXPECT_NEAR (c.lowFreqDefault, lowFreq->getValue(), 1e-6f) << c.wrapper;
        EXPECT_EQ (c.named, processor->getProgramName (0).isNotEmpty()) << c.wrapper;
        EXPECT_EQ (c.hostBypass ? processor->getParameters()[ParameterTable::bypassIndex] : nullptr,
                   processor->getBypassParameter())
            << c.wrapper;

        // The host's 0..1 covers the editor range; the audio code and the state stay plain.
        lowFreq->setValueNotifyingHost (lowFreq->getValueForText ("300 Hz"));
        EXPECT_NEAR (300.0f, processor->getParameterValues()[ParameterTable::lowFreqIndex], 1e-3f) << c.wrapper;
        // Texts read and shown alike in every wrapper; a k means thousands.
        for (const auto& text : texts)
        {
            auto* parameter = processor->getParameters()[text.index];
            EXPECT_EQ (juce::String (text.shown), parameter->getText (parameter->getValueForText (text.typed), 64)) << text.typed;
        }
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

TEST (StateBlock, ReadingFollowsTheRules)
{
    using P = ParameterTable;
    QuendaAudioProcessor processor;
    processor.getParameters()[P::lowFreqIndex]->setValueNotifyingHost (99.0f);

    // In order: what a block leaves out keeps the value the blocks before it set; a block with
    // no expected values must leave the whole state as it was.
    auto eightBytes = blockWithText ("<Params tilt=\"1\"/>");
    eightBytes.setSize (8);
    const struct
    {
        const char* rule;
        juce::MemoryBlock block;
        std::vector<std::pair<int, float>> expected;
    } steps[] = {
        { "only tilt present: the rest stays", blockWithText ("<Params tilt=\"-0.5\"/>"), { { P::tiltIndex, -0.5f }, { P::lowFreqIndex, 99.0f } } },
        { "tag case does not matter; malformed numbers read as 0; switches use the boolean rule",
          blockWithText ("<params trim=\"abc\" low=\"2.5dB\" bypass=\" yes\" lin_phase=\"true\"/>"),
          { { P::trimIndex, 0.0f }, { P::lowIndex, 2.5f }, { P::bypassIndex, 1.0f }, { P::linPhaseIndex, 1.0f } } },
        { "non-finite numbers are ignored", blockWithText ("<Params bypass=\"false\" lin_phase=\"\" low=\"inf\" low_freq=\"nan\"/>"), { { P::lowIndex, 2.5f }, { P::lowFreqIndex, 99.0f }, { P::bypassIndex, 0.0f }, { P::linPhaseIndex, 0.0f } } },
        { "exponents too long for JUCE's number reader: infinite (ignored) or zero",
          blockWithText ("<Params low=\"1e4294967297\" trim=\"5e-4294967297\"/>"),
          { { P::lowIndex, 2.5f }, { P::trimIndex, 0.0f } } },
        { "content inside the element is neither read nor hides the values",
          blockWithText ("<Params tilt=\"0.25\"><?pi?>text</Params>"),
          { { P::tiltIndex, 0.25f } } },
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
