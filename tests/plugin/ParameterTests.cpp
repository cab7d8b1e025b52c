// SPDX-License-Identifier: GPL-3.0-or-later
// Parameter behaviour that the VST2 tests in tests/host cannot see: IDs, the mapped form
// other formats will use, and what counts as a switch being on.

#include "processor/PluginProcessor.h"

#include <gtest/gtest.h>
#include <cmath>
#include <limits>

TEST (Parameters, IdsInIndexOrderAndNonFiniteWritesIgnored)
{
    QuendaAudioProcessor processor;
    const auto& parameters = processor.getParameters();
    const char* ids[] = { "tilt", "bypass", "lin_phase", "trim", "low", "high", "low_freq", "high_freq" };
    ASSERT_EQ (8, parameters.size());

    for (int i = 0; i < 8; ++i)
    {
        EXPECT_EQ (juce::String (ids[i]), dynamic_cast<juce::AudioProcessorParameterWithID&> (*parameters[i]).paramID);

        if (i == 1 || i == 2)
            continue;

        // A NaN reaching a shelf's feedback path would silence the channel for good.
        const auto before = parameters[i]->getValue();
        for (auto bad : { std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                          -std::numeric_limits<float>::infinity() })
            parameters[i]->setValueNotifyingHost (bad);
        EXPECT_EQ (before, parameters[i]->getValue()) << ids[i];
    }
}

TEST (Parameters, SwitchesCountAsOnFromOneHalf)
{
    QuendaAudioProcessor processor;
    auto* bypass = processor.getParameters()[QuendaAudioProcessor::bypassIndex];
    bypass->setValue (0.49f);
    EXPECT_EQ (0.0f, processor.getParameterValues()[QuendaAudioProcessor::bypassIndex]);
    bypass->setValue (0.5f);
    EXPECT_EQ (1.0f, processor.getParameterValues()[QuendaAudioProcessor::bypassIndex]);
}

TEST (Parameters, MappedNormalisationCoversTheDisplayRange)
{
    PlainFloatParameter freq ("low_freq", "low_freq", 150.0f, { 20.0f, 300.0f, 0.0f, 0.5f },
                              PlainFloatParameter::Normalisation::mappedToRange);
    EXPECT_NEAR (std::pow ((150.0f - 20.0f) / 280.0f, 0.5f), freq.getDefaultValue(), 1e-6f);
    freq.setValue (1.0f);
    EXPECT_NEAR (300.0f, freq.get(), 1e-3f);
    freq.setValue (0.0f);
    EXPECT_NEAR (20.0f, freq.get(), 1e-3f);
}
