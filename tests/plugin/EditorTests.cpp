// SPDX-License-Identifier: GPL-3.0-or-later
// The editor as a host and a user meet it: what the knobs and switches send, what the poll
// shows, and the text under each knob.

#include "plugin/PluginEditor.h"
#include "plugin/PluginProcessor.h"

#include <gtest/gtest.h>

#include <utility>

namespace
{
using P = ParameterTable;

// Logs everything the host hears from the processor as "begin i", "value i v", "end i".
struct EditorTest : public ::testing::Test, public juce::AudioProcessorListener
{
    EditorTest() { processor.addListener (this); }
    ~EditorTest() override { processor.removeListener (this); }

    void audioProcessorParameterChanged (juce::AudioProcessor*, int i, float v) override { heard ("value " + juce::String (i) + " " + juce::String (v)); }
    void audioProcessorParameterChangeGestureBegin (juce::AudioProcessor*, int i) override { heard ("begin " + juce::String (i)); }
    void audioProcessorParameterChangeGestureEnd (juce::AudioProcessor*, int i) override { heard ("end " + juce::String (i)); }
    void audioProcessorChanged (juce::AudioProcessor*, const ChangeDetails&) override {}
    void heard (const juce::String& event) { log << (log.isEmpty() ? "" : ", ") << event; }
    juce::String hostHeard() { return std::exchange (log, {}); }

    juce::AudioProcessorParameter& parameter (int i) { return *processor.getParameters()[i]; }
    juce::Slider& slider (int i) { return dynamic_cast<juce::Slider&> (*editor.getControls().at ((size_t) i)); }
    juce::Button& toggle (int i) { return dynamic_cast<juce::Button&> (*editor.getControls().at ((size_t) i)); }

    juce::String log;
    QuendaAudioProcessor processor;
    QuendaAudioProcessorEditor editor { processor };
};
}

TEST_F (EditorTest, PollShowsHostValuesAndSendsNothingBack)
{
    // Trim and low_freq lie outside their knobs' ranges; bypass sits exactly at the switch point.
    const float values[] = { 0.25f, 0.5f, 0.49f, -40.0f, 5.5f, -2.5f, 0.5f, 9000.0f };
    for (int i = 0; i < 8; ++i)
        parameter (i).setValue (values[i]);

    // The running timer polls; the bound only ends a failing test.
    for (int waited = 0; waited < 2000 && slider (P::highFreqIndex).getValue() != 9000.0; waited += 10)
        juce::MessageManager::getInstance()->runDispatchLoopUntil (10);
    ASSERT_EQ (9000.0, slider (P::highFreqIndex).getValue()) << "the running timer did not poll";
    editor.timerCallback();   // a second poll must not write back what the knobs clipped

    for (int i : { P::tiltIndex, P::lowIndex, P::highIndex, P::highFreqIndex })
        EXPECT_EQ ((double) values[i], slider (i).getValue()) << i;
    EXPECT_TRUE (toggle (P::bypassIndex).getToggleState());
    EXPECT_FALSE (toggle (P::linPhaseIndex).getToggleState());
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ (values[i], parameter (i).getValue()) << i;
    EXPECT_EQ (juce::String(), hostHeard());
}

TEST_F (EditorTest, SliderEditsReachTheParameterAsPlainValuesWithoutGesture)
{
    // Outside 0..1 on purpose: a normalising or clamping parameter would store something else.
    const std::pair<int, double> edits[] = { { P::tiltIndex, -1.0 }, { P::trimIndex, -3.5 }, { P::lowIndex, 2.25 }, { P::highIndex, -2.0 }, { P::lowFreqIndex, 150.0 }, { P::highFreqIndex, 12000.0 } };
    parameter (P::lowFreqIndex).setValue (200.0f);   // so that 150 Hz is a change

    for (auto [i, value] : edits)
    {
        slider (i).setValue (value, juce::sendNotificationSync);
        EXPECT_EQ ((float) value, parameter (i).getValue()) << i;
        EXPECT_EQ ("value " + juce::String (i) + " " + juce::String ((float) value), hostHeard());
    }
}

TEST_F (EditorTest, ToggleClicksSendTheNewValueInsideAGesture)
{
    editor.stopTimer();   // a poll between setting up and clicking would undo the setup
    auto click = [this] (int i)
    {
        toggle (i).triggerClick();   // delivered through the message loop like a mouse click
        juce::MessageManager::getInstance()->runDispatchLoopUntil (20);
        return hostHeard();
    };

    for (auto i : { P::bypassIndex, P::linPhaseIndex })
    {
        const auto n = juce::String (i);
        EXPECT_EQ ("begin " + n + ", value " + n + " 1, end " + n, click (i));
        EXPECT_EQ ("begin " + n + ", value " + n + " 0, end " + n, click (i));
    }

    // The host switched bypass on while the button still shows it off: the click changes nothing.
    parameter (P::bypassIndex).setValue (1.0f);
    EXPECT_EQ (juce::String ("begin 1, end 1"), click (P::bypassIndex));
}

TEST_F (EditorTest, TypedTextSetsItsNumberAndTextWithoutANumberKeepsTheValue)
{
    editor.stopTimer();
    editor.timerCallback();   // the knobs show the parameters, as after the first poll
    auto type = [this] (int i, const char* text)
    {
        for (auto* child : slider (i).getChildren())
            if (auto* box = dynamic_cast<juce::Label*> (child))
                box->setText (text, juce::sendNotificationSync);   // as the box's editor commits it
    };

    // In order: each line starts from where the previous ones left the knob.
    const struct
    {
        int control;
        const char* text;
        float value;
        const char* shown;
    } typed[] = {
        { P::lowFreqIndex, "abc", 150.0f, "150.0 Hz" },
        { P::lowFreqIndex, "", 150.0f, "150.0 Hz" },
        { P::lowFreqIndex, "- Hz", 150.0f, "150.0 Hz" },
        { P::lowFreqIndex, "0.12k", 120.0f, "120.0 Hz" },
        { P::lowFreqIndex, "kHz", 120.0f, "120.0 Hz" },
        { P::highFreqIndex, "9 kHz", 9000.0f, "9000.0 Hz" },
        { P::highFreqIndex, "4500.5", 4500.5f, "4500.5 Hz" },
        { P::lowIndex, "+2.5 dB", 2.5f, "2.50 dB" },
        { P::lowIndex, "dB", 2.5f, "2.50 dB" },
        { P::tiltIndex, "-0.5", -0.5f, "-0.50" },
        { P::tiltIndex, "flat", -0.5f, "-0.50" },
        { P::trimIndex, "x1", 0.0f, "0.00 dB" },
    };

    for (const auto& t : typed)
    {
        type (t.control, t.text);
        EXPECT_EQ (t.value, parameter (t.control).getValue()) << t.text;
        EXPECT_EQ (juce::String (t.shown), slider (t.control).getTextFromValue (slider (t.control).getValue())) << t.text;
    }

    EXPECT_EQ (juce::String ("value 6 120, value 7 9000, value 7 4500.5, value 4 2.5, value 0 -0.5"), hostHeard());
}

TEST_F (EditorTest, KnobTextsUseFixedDecimals)
{
    const struct
    {
        int control;
        double value;
        const char* text;
    } examples[] = {
        { P::tiltIndex, 0.25, "0.25" },
        { P::tiltIndex, -1.0, "-1.00" },
        { P::tiltIndex, 0.125, "0.13" },
        { P::tiltIndex, -0.375, "-0.38" },
        { P::tiltIndex, 0.005, "0.01" },
        { P::trimIndex, 0.0, "0.00 dB" },
        { P::trimIndex, -0.001, "-0.00 dB" },
        { P::lowIndex, 6.0, "6.00 dB" },
        { P::highIndex, -2.994, "-2.99 dB" },
        { P::lowFreqIndex, 150.0, "150.0 Hz" },
        { P::lowFreqIndex, 19.96, "20.0 Hz" },
        { P::highFreqIndex, 15000.0, "15000.0 Hz" },
        { P::lowFreqIndex, -0.0, "0.0 Hz" },
        { P::lowFreqIndex, 2.25, "2.3 Hz" },
        { P::highFreqIndex, 1.0e19, "10000000000000000000.0 Hz" },
    };

    for (const auto& example : examples)
        EXPECT_EQ (juce::String (example.text), slider (example.control).getTextFromValue (example.value)) << example.value;
}
