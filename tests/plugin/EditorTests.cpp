// SPDX-License-Identifier: GPL-3.0-or-later
// The editor as a user and a host meet it: what the knobs and switches send, what the
// poll shows, and which control is on top where they overlap.

#include "editor/PluginEditor.h"
#include "processor/PluginProcessor.h"

#include <gtest/gtest.h>

namespace
{
    /** Everything the host hears from the processor, as "begin i", "value i v", "end i". */
    struct HostLog : public juce::AudioProcessorListener
    {
        void audioProcessorParameterChanged (juce::AudioProcessor*, int i, float v) override
        {
            log.add ("value " + juce::String (i) + " " + juce::String (v));
        }
        void audioProcessorParameterChangeGestureBegin (juce::AudioProcessor*, int i) override { log.add ("begin " + juce::String (i)); }
        void audioProcessorParameterChangeGestureEnd (juce::AudioProcessor*, int i) override   { log.add ("end " + juce::String (i)); }
        void audioProcessorChanged (juce::AudioProcessor*, const ChangeDetails&) override {}

        juce::String take()
        {
            auto text = log.joinIntoString (", ");
            log.clear();
            return text;
        }

        juce::StringArray log;
    };

    struct EditorTest : public ::testing::Test
    {
        EditorTest()  { processor.addListener (&host); }
        ~EditorTest() override { processor.removeListener (&host); }

        juce::AudioProcessorParameter& parameter (int i) { return *processor.getParameters()[i]; }
        juce::Slider& slider (int i)  { return dynamic_cast<juce::Slider&> (*editor.getControls().at ((size_t) i)); }
        juce::Button& toggle (int i)  { return dynamic_cast<juce::Button&> (*editor.getControls().at ((size_t) i)); }

        /** A user's click, delivered through the message loop like a mouse click. */
        void click (int i)
        {
            toggle (i).triggerClick();
            juce::MessageManager::getInstance()->runDispatchLoopUntil (20);
        }

        QuendaAudioProcessor processor;
        QuendaAudioProcessorEditor editor { processor };
        HostLog host;
    };

    using P = QuendaAudioProcessor;
    const int sliders[] = { P::tiltIndex, P::trimIndex, P::lowIndex, P::highIndex, P::lowFreqIndex, P::highFreqIndex };
}

TEST_F (EditorTest, FixedWindowWithControlsInParameterOrder)
{
    EXPECT_EQ (700, editor.getWidth());
    EXPECT_EQ (193, editor.getHeight());
    EXPECT_EQ (20, editor.getNumChildComponents());

    juce::StringArray names;
    for (auto* control : editor.getControls())
        names.add (control->getName());

    EXPECT_EQ (juce::String ("tilt_slider bypass lin_phase trim_slider slider_low slider_high low_freq_slider high_freq_slider"),
               names.joinIntoString (" "));
}

TEST_F (EditorTest, EachSliderWritesAPlainValueToItsParameterWithoutGesture)
{
    parameter (P::lowFreqIndex).setValue (200.0f);  // so that 150 Hz is a change

    // Outside 0..1 on purpose: a clamping parameter would store 0, 1 or the range ends.
    const double edits[] = { -1.0, -3.5, 2.25, -2.0, 150.0, 12000.0 };

    for (size_t n = 0; n < std::size (sliders); ++n)
    {
        const auto i = sliders[n];
        slider (i).setValue (edits[n], juce::sendNotificationSync);

        EXPECT_EQ ((float) edits[n], parameter (i).getValue()) << i;
        EXPECT_EQ ("value " + juce::String (i) + " " + juce::String ((float) edits[n]), host.take());
    }
}

TEST_F (EditorTest, SliderEditEqualToTheParametersValueSendsNothing)
{
    parameter (P::trimIndex).setValue (2.0f);  // moved by the host, not yet polled

    slider (P::trimIndex).setValue (2.0, juce::sendNotificationSync);

    EXPECT_EQ (juce::String(), host.take());
}

TEST_F (EditorTest, PollShowsHostValuesAndSendsNothingBack)
{
    // Trim and low_freq lie outside their knobs' ranges; bypass sits exactly at the switch point.
    const float values[] = { 0.4f, 0.5f, 0.49f, -40.0f, 5.5f, -2.5f, 0.5f, 9000.0f };
    for (int i = 0; i < 8; ++i)
        parameter (i).setValue (values[i]);

    editor.timerCallback();
    editor.timerCallback();

    for (int i : { P::tiltIndex, P::lowIndex, P::highIndex, P::highFreqIndex })
        EXPECT_DOUBLE_EQ (values[i], slider (i).getValue()) << i;

    EXPECT_TRUE (toggle (P::bypassIndex).getToggleState());
    EXPECT_FALSE (toggle (P::linPhaseIndex).getToggleState());

    // The knobs stop at their range ends, but that must not be written back.
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ (values[i], parameter (i).getValue()) << i;
    EXPECT_EQ (juce::String(), host.take());
}

TEST_F (EditorTest, RunningTimerFollowsTheHostWithinAPeriod)
{
    // Let work the processor queued at construction run first, so only the poll is timed.
    juce::MessageManager::getInstance()->runDispatchLoopUntil (10);

    parameter (P::highIndex).setValue (1.5f);
    parameter (P::linPhaseIndex).setValue (1.0f);

    const auto deadline = juce::Time::getMillisecondCounter() + 150;  // 50 ms plus slack
    while (slider (P::highIndex).getValue() != 1.5 && juce::Time::getMillisecondCounter() < deadline)
        juce::MessageManager::getInstance()->runDispatchLoopUntil (5);

    EXPECT_EQ (1.5, slider (P::highIndex).getValue());
    EXPECT_TRUE (toggle (P::linPhaseIndex).getToggleState());
    EXPECT_EQ (juce::String(), host.take());
}

TEST_F (EditorTest, ToggleClicksSendTheValueInsideAGesture)
{
    editor.stopTimer();  // a poll between setting up and clicking would undo the setup

    for (int i : { P::bypassIndex, P::linPhaseIndex })
    {
        const auto n = juce::String (i);
        click (i);
        EXPECT_EQ ("begin " + n + ", value " + n + " 1, end " + n, host.take());
        click (i);
        EXPECT_EQ ("begin " + n + ", value " + n + " 0, end " + n, host.take());
        EXPECT_EQ (0.0f, parameter (i).getValue());
    }

    // The host switched bypass on and the button still shows off: the click changes nothing.
    parameter (P::bypassIndex).setValue (1.0f);
    click (P::bypassIndex);
    EXPECT_EQ (juce::String ("begin 1, end 1"), host.take());
}

TEST_F (EditorTest, SwitchesOverTheTiltKnobTakeTheMouse)
{
    editor.setVisible (true);

    for (int i : { P::bypassIndex, P::linPhaseIndex })
        EXPECT_EQ (&toggle (i), editor.getComponentAt (toggle (i).getBounds().getCentre())) << i;
}

TEST_F (EditorTest, OnlyTheTiltKnobHasTheOrangeThumb)
{
    for (int i : sliders)
        EXPECT_EQ (juce::Colour (i == P::tiltIndex ? 0xffff8b00 : 0xff7b7b7b),
                   slider (i).findColour (juce::Slider::thumbColourId)) << i;
}

TEST_F (EditorTest, CaptionsGoThroughTheTranslationTableButTheBypassNameDoesNot)
{
    juce::LocalisedStrings::setCurrentMappings (new juce::LocalisedStrings (
        "\"linear phase\" = \"phase lineaire\"\n\"Linear Quenda\" = \"Quenda lineaire\"\n\"bypass\" = \"contourner\"\n", false));
    QuendaAudioProcessorEditor translated (processor);
    juce::LocalisedStrings::setCurrentMappings (nullptr);

    auto buttonText = [&] (int i) { return dynamic_cast<juce::Button&> (*translated.getControls()[(size_t) i]).getButtonText(); };
    EXPECT_EQ (juce::String ("phase lineaire"), buttonText (P::linPhaseIndex));
    EXPECT_EQ (juce::String ("bypass"), buttonText (P::bypassIndex));
    EXPECT_EQ (juce::String ("Quenda lineaire"), dynamic_cast<juce::GroupComponent&> (*translated.getChildComponent (0)).getText());
}
