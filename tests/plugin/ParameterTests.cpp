// SPDX-License-Identifier: GPL-3.0-or-later
// Parameter behaviour that the VST2 tests in tests/host cannot see: IDs, the mapped form
// other formats will use, and what counts as a switch being on.

#include "processor/PluginProcessor.h"

#include <gtest/gtest.h>
#include <cmath>
#include <limits>

TEST (Parameters, IdsInIndexOrderSwitchPointAndNonFiniteWritesIgnored)
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

namespace
{
    std::unique_ptr<QuendaAudioProcessor> makeFor (juce::AudioProcessor::WrapperType wrapper)
    {
        juce::AudioProcessor::setTypeOfNextNewPlugin (wrapper);
        auto processor = std::make_unique<QuendaAudioProcessor>();
        juce::AudioProcessor::setTypeOfNextNewPlugin (juce::AudioProcessor::wrapperType_Undefined);
        return processor;
    }
}

TEST (Parameters, EachWrapperGetsItsNormalisationProgramNameAndBypass)
{
    using P = juce::AudioProcessor;
    const struct { P::WrapperType wrapper; float lowFreqDefault; bool named; bool hostBypass; } cases[] = {
        { P::wrapperType_VST, 150.0f, false, false },
        { P::wrapperType_VST3, std::sqrt ((150.0f - 20.0f) / 280.0f), true, true },
        { P::wrapperType_LV2, std::sqrt ((150.0f - 20.0f) / 280.0f), true, false },
    };
    const struct { int index; const char* typed; const char* shown; } texts[] = {
        { QuendaAudioProcessor::highFreqIndex, "6k", "6000.0 Hz" }, { QuendaAudioProcessor::highFreqIndex, "3.5 kHz", "3500.0 Hz" },
        { QuendaAudioProcessor::trimIndex, "-0.004 dB", "-0.00 dB" }, { QuendaAudioProcessor::tiltIndex, "0.006", "0.01 dB/oct" },
    };

    for (const auto& c : cases)
    {
        auto processor = makeFor (c.wrapper);
        auto* lowFreq = processor->getParameters()[QuendaAudioProcessor::lowFreqIndex];
        EXPECT_NEAR (c.lowFreqDefault, lowFreq->getValue(), 1e-6f) << c.wrapper;
        EXPECT_EQ (c.named, processor->getProgramName (0).isNotEmpty()) << c.wrapper;
        EXPECT_EQ (c.hostBypass ? processor->getParameters()[QuendaAudioProcessor::bypassIndex] : nullptr,
                   processor->getBypassParameter()) << c.wrapper;

        // The host's 0..1 covers the editor range; the audio code and the state stay plain.
        lowFreq->setValueNotifyingHost (lowFreq->getValueForText ("300 Hz"));
        EXPECT_NEAR (300.0f, processor->getParameterValues()[QuendaAudioProcessor::lowFreqIndex], 1e-3f) << c.wrapper;
        // Texts read and shown alike in every wrapper; a k means thousands.
        for (const auto& text : texts)
        {
            auto* parameter = processor->getParameters()[text.index];
            EXPECT_EQ (juce::String (text.shown), parameter->getText (parameter->getValueForText (text.typed), 64)) << text.typed;
        }
    }
}
