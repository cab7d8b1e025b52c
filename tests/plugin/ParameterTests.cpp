// SPDX-License-Identifier: GPL-3.0-or-later
// What a host sees of the processor, tested on the shared code (the VST2 build is
// tested through its ABI in tests/host).

#include "processor/PluginProcessor.h"

#include <gtest/gtest.h>
#include <cmath>
#include <limits>

TEST (Parameters, EightInIndexOrderWithHostNamesAndPlainDefaults)
{
    QuendaAudioProcessor processor;
    const auto& parameters = processor.getParameters();
    ASSERT_EQ (8, parameters.size());

    const char* ids[] = { "tilt", "bypass", "lin_phase", "trim", "low", "high", "low_freq", "high_freq" };
    const char* names[] = { "tilt", "Bypass", "linear phase", "trim", "low", "high", "low_freq", "high_freq" };
    const float defaults[] = { 0, 0, 0, 0, 0, 0, 150, 4500 };

    for (int i = 0; i < 8; ++i)
    {
        auto* withId = dynamic_cast<juce::AudioProcessorParameterWithID*> (parameters[i]);
        ASSERT_NE (nullptr, withId);
        EXPECT_EQ (juce::String (ids[i]), withId->getParameterID());
        EXPECT_EQ (juce::String (names[i]), parameters[i]->getName (100));
        EXPECT_EQ (defaults[i], parameters[i]->getValue()) << ids[i];
        EXPECT_EQ (defaults[i], parameters[i]->getDefaultValue()) << ids[i];
        EXPECT_TRUE (parameters[i]->getLabel().isEmpty());
        EXPECT_TRUE (parameters[i]->isAutomatable());
    }

    EXPECT_NE (nullptr, dynamic_cast<juce::AudioParameterBool*> (parameters[1]));
    EXPECT_NE (nullptr, dynamic_cast<juce::AudioParameterBool*> (parameters[2]));
}

TEST (Parameters, ValuesAreStoredPlainAndUnclamped)
{
    QuendaAudioProcessor processor;
    auto* lowFreq = processor.getParameters()[QuendaAudioProcessor::lowFreqIndex];
    auto* tilt = processor.getParameters()[QuendaAudioProcessor::tiltIndex];

    lowFreq->setValue (0.3f);
    EXPECT_EQ (0.3f, lowFreq->getValue());
    lowFreq->setValue (20000.0f);
    EXPECT_EQ (20000.0f, lowFreq->getValue());

    tilt->setValueNotifyingHost (-1.0f);
    EXPECT_EQ (-1.0f, tilt->getValue());
    EXPECT_EQ (-1.0f, processor.getParameterValues()[QuendaAudioProcessor::tiltIndex]);
}

TEST (Parameters, NonFiniteWritesAreIgnored)
{
    QuendaAudioProcessor processor;
    for (int index : { 0, 3, 4, 5, 6, 7 })
    {
        auto* parameter = processor.getParameters()[index];
        const auto before = parameter->getValue();
        parameter->setValue (std::numeric_limits<float>::quiet_NaN());
        parameter->setValue (std::numeric_limits<float>::infinity());
        parameter->setValue (-std::numeric_limits<float>::infinity());
        EXPECT_EQ (before, parameter->getValue()) << index;
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
    // Formats that keep values in 0..1 get a mapping over the editor's range instead.
    PlainFloatParameter freq ("low_freq", "low_freq", 150.0f, { 20.0f, 300.0f, 0.0f, 0.5f },
                              PlainFloatParameter::Normalisation::mappedToRange);
    EXPECT_NEAR (150.0f, freq.get(), 1e-6f);
    EXPECT_NEAR (std::pow ((150.0f - 20.0f) / 280.0f, 0.5f), freq.getDefaultValue(), 1e-6f);
    freq.setValue (1.0f);
    EXPECT_NEAR (300.0f, freq.get(), 1e-3f);
    freq.setValue (0.0f);
    EXPECT_NEAR (20.0f, freq.get(), 1e-3f);
}

TEST (Processor, IdentityAndPrograms)
{
    QuendaAudioProcessor processor;
    EXPECT_EQ (juce::String ("Quenda"), processor.getName());
    EXPECT_EQ (0.0, processor.getTailLengthSeconds());
    EXPECT_FALSE (processor.acceptsMidi());
    EXPECT_FALSE (processor.producesMidi());
    EXPECT_TRUE (processor.hasEditor());
    EXPECT_EQ (1, processor.getNumPrograms());
    EXPECT_EQ (0, processor.getCurrentProgram());
    EXPECT_TRUE (processor.getProgramName (0).isEmpty());
    processor.changeProgramName (0, "renamed");
    processor.setCurrentProgram (3);
    EXPECT_TRUE (processor.getProgramName (0).isEmpty());
    EXPECT_EQ (0, processor.getCurrentProgram());
    EXPECT_EQ (0, processor.getLatencySamples());
    EXPECT_EQ (2, processor.getTotalNumInputChannels());
    EXPECT_EQ (2, processor.getTotalNumOutputChannels());
}
