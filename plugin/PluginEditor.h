// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_audio_processors/juce_audio_processors.h>

#include <memory>
#include <vector>

class QuendaAudioProcessor;
class PlainFloatParameter;
class Parameters;

/** The plug-in window: a fixed 700 x 193 panel of knobs, switches and captions over the
    background picture. Controls follow the parameters by a 50 ms poll and write user edits
    straight back; controls and parameters are matched by position in `controls`.
*/
class QuendaAudioProcessorEditor : public juce::AudioProcessorEditor, public juce::Timer, public juce::Slider::Listener, public juce::Button::Listener
{
public:
    explicit QuendaAudioProcessorEditor (QuendaAudioProcessor&);
    ~QuendaAudioProcessorEditor() override;

    void paint (juce::Graphics&) override;
    void resized() override;

    void timerCallback() override;

    void sliderValueChanged (juce::Slider*) override;
    void sliderDragStarted (juce::Slider*) override {}
    void sliderDragEnded (juce::Slider*) override {}
    void buttonClicked (juce::Button*) override;

    /** Two-decimal value text (gains and tilt). Typed text without a number keeps the value. */
    class mySlider : public juce::Slider
    {
    public:
        using juce::Slider::Slider;
        juce::String getTextFromValue (double value) override;
        double getValueFromText (const juce::String& text) override;
    };

    /** One-decimal value text in Hz; never switches to kHz. Typed text may say "3k" or "3 kHz". */
    class my_freqSlider : public juce::Slider
    {
    public:
        using juce::Slider::Slider;
        juce::String getTextFromValue (double value) override;
        double getValueFromText (const juce::String& text) override;
    };

    /** Gives the tilt knob its orange thumb; everything else is the stock V4 look. */
    class OtherLookAndFeel : public juce::LookAndFeel_V4
    {
    public:
        OtherLookAndFeel();
    };

    /** The controls in parameter order: entry i edits and shows parameter i. */
    const std::vector<juce::Component*>& getControls() const noexcept { return controls; }

private:
    /** Creates a child, shows it at once (creation order is stacking order) and styles it. */
    template <typename SliderType>
    std::unique_ptr<SliderType> addKnob (const juce::String& name, size_t parameterIndex, int textBoxHeight);

    /** Double-click value and unit suffix from the parameter table. */
    static void setDefaultAndUnit (juce::Slider&, size_t parameterIndex);
    std::unique_ptr<juce::Label> addLabel (const juce::String& name, const juce::String& text, float fontHeight);

    PlainFloatParameter* floatParameterFor (const juce::Component*) const;
    juce::AudioParameterBool* boolParameterFor (const juce::Component*) const;
    /** The control's parameter index, numParameters for none. */
    size_t indexFor (const juce::Component*) const;

    Parameters& parameters;
    std::vector<juce::Component*> controls;
    OtherLookAndFeel otherLookAndFeel;
    juce::Image backgroundImage;

    // Declaration order is creation, stacking and deletion order. The destructor deletes
    // them first to last, so the tilt slider is gone before otherLookAndFeel.
    std::unique_ptr<juce::GroupComponent> titleGroup;
    std::unique_ptr<juce::GroupComponent> trimGroup;
    std::unique_ptr<mySlider> tiltSlider;
    std::unique_ptr<juce::Label> makerLabel;
    std::unique_ptr<juce::ToggleButton> bypassButton;
    std::unique_ptr<juce::Label> lowGainCaption;
    std::unique_ptr<juce::Label> tiltLowCaption;
    std::unique_ptr<juce::Label> tiltHighCaption;
    std::unique_ptr<juce::ToggleButton> linPhaseButton;
    std::unique_ptr<juce::Label> dashCaption;
    std::unique_ptr<mySlider> trimSlider;
    std::unique_ptr<mySlider> lowSlider;
    std::unique_ptr<mySlider> highSlider;
    std::unique_ptr<juce::Label> tiltUnitCaption;
    std::unique_ptr<juce::Label> highGainCaption;
    std::unique_ptr<my_freqSlider> lowFreqSlider;
    std::unique_ptr<my_freqSlider> highFreqSlider;
    std::unique_ptr<juce::Label> lowFreqCaption;
    std::unique_ptr<juce::Label> highFreqCaption;

    JUCE_DECLARE_NON_COPYABLE_WITH_LEAK_DETECTOR (QuendaAudioProcessorEditor)
};
