// SPDX-License-Identifier: GPL-3.0-or-later
// The text under each knob: fixed decimals, halves away from zero, the sign kept on a
// negative value that rounds to zero, the unit appended and never rescaled.

#include "editor/PluginEditor.h"
#include "processor/PluginProcessor.h"

#include <gtest/gtest.h>

namespace
{
    struct ValueTexts : public ::testing::Test
    {
        juce::String text (int i, double value)
        {
            return dynamic_cast<juce::Slider&> (*editor.getControls().at ((size_t) i)).getTextFromValue (value);
        }

        QuendaAudioProcessor processor;
        QuendaAudioProcessorEditor editor { processor };
    };

    using P = QuendaAudioProcessor;
    juce::String fixed (double v, int d) { return QuendaAudioProcessorEditor::toFixedDecimals (v, d); }
}

TEST_F (ValueTexts, TiltAndGainsReadTwoDecimals)
{
    EXPECT_EQ (juce::String ("0.25"), text (P::tiltIndex, 0.25));
    EXPECT_EQ (juce::String ("-1.00"), text (P::tiltIndex, -1.0));
    EXPECT_EQ (juce::String ("0.01"), text (P::tiltIndex, 0.005));
    EXPECT_EQ (juce::String ("-3.50 dB"), text (P::trimIndex, -3.5));
    EXPECT_EQ (juce::String ("0.00 dB"), text (P::trimIndex, 0.0));
    EXPECT_EQ (juce::String ("-0.00 dB"), text (P::trimIndex, -0.001));
    EXPECT_EQ (juce::String ("6.00 dB"), text (P::lowIndex, 6.0));
    EXPECT_EQ (juce::String ("-2.99 dB"), text (P::highIndex, -2.994));
}

TEST_F (ValueTexts, FrequenciesReadOneDecimalInHertzWithoutKilohertz)
{
    EXPECT_EQ (juce::String ("150.0 Hz"), text (P::lowFreqIndex, 150.0));
    EXPECT_EQ (juce::String ("4500.0 Hz"), text (P::highFreqIndex, 4500.0));
    EXPECT_EQ (juce::String ("15000.0 Hz"), text (P::highFreqIndex, 15000.0));
    EXPECT_EQ (juce::String ("3000.0 Hz"), text (P::highFreqIndex, 3000.0));
    EXPECT_EQ (juce::String ("20.0 Hz"), text (P::lowFreqIndex, 19.96));
}

TEST (FixedDecimals, RoundingSignAndLength)
{
    // Exactly representable halves, so the rule and not binary noise decides.
    EXPECT_EQ (juce::String ("0.13"), fixed (0.125, 2));
    EXPECT_EQ (juce::String ("-0.38"), fixed (-0.375, 2));
    EXPECT_EQ (juce::String ("2.3"), fixed (2.25, 1));
    EXPECT_EQ (juce::String ("-2.3"), fixed (-2.25, 1));
    EXPECT_EQ (juce::String ("0.2"), fixed (0.2499, 1));

    EXPECT_EQ (juce::String ("-0.0"), fixed (-0.04, 1));
    EXPECT_EQ (juce::String ("0.0"), fixed (-0.0, 1));
    EXPECT_EQ (juce::String ("0.07"), fixed (0.07, 2));
    EXPECT_EQ (juce::String ("123456789012.00"), fixed (123456789012.0, 2));
    EXPECT_EQ (juce::String ("10000000000000000000.0"), fixed (1.0e19, 1));
}
