// SPDX-License-Identifier: GPL-3.0-or-later
#include "PluginEditor.h"
#include "plugin/PluginProcessor.h"

#include <BinaryData.h>

#include <optional>

namespace
{
const juce::Colour panelColour { 0xff323e44 };

void styleSlider (juce::Slider& slider, const ParameterTable::Entry& parameter, int textBoxHeight)
{
    slider.setRange (parameter.minimum, parameter.maximum, 0.0);

    if (parameter.skew != 1.0f)
        slider.setSkewFactor (parameter.skew);

    slider.setSliderStyle (juce::Slider::RotaryVerticalDrag);
    slider.setTextBoxStyle (juce::Slider::TextBoxBelow, false, 80, textBoxHeight);
}

void styleLabel (juce::Label& label, float fontHeight)
{
    label.setFont (juce::Font (fontHeight, juce::Font::plain).withTypefaceStyle ("Regular"));
    label.setJustificationType (juce::Justification::centredLeft);
    label.setEditable (false, false, false);
    label.setColour (juce::TextEditor::textColourId, juce::Colours::black);
    label.setColour (juce::TextEditor::backgroundColourId, juce::Colour (0x00000000));
}

// The number a typed text starts with, if any; "k" after it scales a frequency by 1000.
std::optional<double> numberInText (const juce::String& text, bool frequency)
{
    auto rest = text.trim();

    while (rest.startsWithChar ('+'))
        rest = rest.substring (1).trimStart();

    const auto number = rest.initialSectionContainingOnly ("0123456789.-");

    if (! number.containsAnyOf ("0123456789"))
        return std::nullopt;

    const auto value = number.getDoubleValue();
    const auto kilo = frequency && rest.substring (number.length()).trimStart().startsWithIgnoreCase ("k");

    return kilo ? value * 1000.0 : value;
}
}

//==============================================================================
juce::String QuendaAudioProcessorEditor::mySlider::getTextFromValue (double value)
{
    return PlainFloatParameter::toFixedDecimals (value, 2) + getTextValueSuffix();
}

juce::String QuendaAudioProcessorEditor::my_freqSlider::getTextFromValue (double value)
{
    return PlainFloatParameter::toFixedDecimals (value, 1) + getTextValueSuffix();
}

// JUCE reads text without a number as 0, which the knob's range turns into its minimum.
double QuendaAudioProcessorEditor::mySlider::getValueFromText (const juce::String& text)
{
    return numberInText (text, false).value_or (getValue());
}

double QuendaAudioProcessorEditor::my_freqSlider::getValueFromText (const juce::String& text)
{
    return numberInText (text, true).value_or (getValue());
}

QuendaAudioProcessorEditor::OtherLookAndFeel::OtherLookAndFeel()
{
    setColour (juce::Slider::thumbColourId, juce::Colour::fromString ("ffff8b00"));
}

//==============================================================================
template <typename SliderType>
std::unique_ptr<SliderType> QuendaAudioProcessorEditor::addKnob (const juce::String& name, size_t parameterIndex,
                                                                 int textBoxHeight)
{
    auto knob = std::make_unique<SliderType> (name);
    addAndMakeVisible (knob.get());
    styleSlider (*knob, ParameterTable::entry (parameterIndex), textBoxHeight);
    knob->addListener (this);
    return knob;
}

void QuendaAudioProcessorEditor::setDefaultAndUnit (juce::Slider& slider, size_t parameterIndex)
{
    const auto& parameter = ParameterTable::entry (parameterIndex);
    slider.setDoubleClickReturnValue (true, parameter.defaultValue);

    // The tilt knob's caption carries its unit.
    if (! parameter.unit.empty() && parameterIndex != ParameterTable::tiltIndex)
        slider.setTextValueSuffix (" " + juce::String (parameter.unit.data(), parameter.unit.size()));
}

std::unique_ptr<juce::Label> QuendaAudioProcessorEditor::addLabel (const juce::String& name, const juce::String& text,
                                                                   float fontHeight)
{
    auto label = std::make_unique<juce::Label> (name, text);
    addAndMakeVisible (label.get());
    styleLabel (*label, fontHeight);
    return label;
}

QuendaAudioProcessorEditor::QuendaAudioProcessorEditor (QuendaAudioProcessor& p)
    : juce::AudioProcessorEditor (p), parameters (p.getParameterSet())
{
    backgroundImage = juce::ImageCache::getFromMemory (BinaryData::background_png,
                                                       BinaryData::background_pngSize);

    titleGroup = std::make_unique<juce::GroupComponent> ("new group", TRANS ("Linear Quenda"));
    addAndMakeVisible (titleGroup.get());

    trimGroup = std::make_unique<juce::GroupComponent> ("new group", TRANS ("Trim"));
    addAndMakeVisible (trimGroup.get());

    tiltSlider = addKnob<mySlider> ("tilt_slider", ParameterTable::tiltIndex, 20);
    tiltSlider->setTooltip (TRANS ("Tilt\n"));

    makerLabel = addLabel ("dffd", TRANS ("Selvane\n"), 15.0f);

    // The button text is its name and stays untranslated.
    bypassButton = std::make_unique<juce::ToggleButton> ("bypass");
    addAndMakeVisible (bypassButton.get());
    bypassButton->addListener (this);

    lowGainCaption = addLabel ("new label", TRANS ("low\n"), 11.0f);
    lowGainCaption->setColour (juce::Label::textColourId, juce::Colours::white);

    tiltLowCaption = addLabel ("new label", TRANS ("Low\n"), 11.0f);
    tiltLowCaption->setColour (juce::Label::textColourId, juce::Colour (0xffa6a6a6));

    tiltHighCaption = addLabel ("new label", TRANS ("High\n"), 11.0f);
    tiltHighCaption->setColour (juce::Label::textColourId, juce::Colour (0xffa6a6a6));

    linPhaseButton = std::make_unique<juce::ToggleButton> ("lin_phase");
    addAndMakeVisible (linPhaseButton.get());
    linPhaseButton->setButtonText (TRANS ("linear phase"));
    linPhaseButton->addListener (this);

    dashCaption = addLabel ("new label", TRANS ("-\n"), 15.0f);

    trimSlider = addKnob<mySlider> ("trim_slider", ParameterTable::trimIndex, 20);

    lowSlider = addKnob<mySlider> ("slider_low", ParameterTable::lowIndex, 16);

    highSlider = addKnob<mySlider> ("slider_high", ParameterTable::highIndex, 16);

    tiltUnitCaption = addLabel ("new label", TRANS ("linear tilt [dB /oct.]\n"), 12.0f);

    highGainCaption = addLabel ("new label", TRANS ("high\n"), 11.0f);

    lowFreqSlider = addKnob<my_freqSlider> ("low_freq_slider", ParameterTable::lowFreqIndex, 16);

    highFreqSlider = addKnob<my_freqSlider> ("high_freq_slider", ParameterTable::highFreqIndex, 16);

    lowFreqCaption = addLabel ("new label", TRANS ("low freq\n"), 11.0f);
    lowFreqCaption->setColour (juce::Label::textColourId, juce::Colours::white);

    highFreqCaption = addLabel ("new label", TRANS ("high freq"), 11.0f);

    // The editor has no look-and-feel of its own, so this greys the thumbs of every knob
    // that uses the shared default; the tilt knob gets its own below.
    getLookAndFeel().setColour (juce::Slider::thumbColourId, juce::Colour::fromString ("FF7B7B7B"));
    tiltSlider->setLookAndFeel (&otherLookAndFeel);

    controls.push_back (tiltSlider.get());
    controls.push_back (bypassButton.get());
    controls.push_back (linPhaseButton.get());

    setSize (600, 400);
    setSize (700, 193);

    setDefaultAndUnit (*tiltSlider, ParameterTable::tiltIndex);
    setDefaultAndUnit (*trimSlider, ParameterTable::trimIndex);
    setDefaultAndUnit (*lowSlider, ParameterTable::lowIndex);
    setDefaultAndUnit (*highSlider, ParameterTable::highIndex);
    setDefaultAndUnit (*lowFreqSlider, ParameterTable::lowFreqIndex);
    setDefaultAndUnit (*highFreqSlider, ParameterTable::highFreqIndex);

    controls.push_back (trimSlider.get());
    controls.push_back (lowSlider.get());
    controls.push_back (highSlider.get());
    controls.push_back (lowFreqSlider.get());
    controls.push_back (highFreqSlider.get());

    startTimer (50);
}

QuendaAudioProcessorEditor::~QuendaAudioProcessorEditor()
{
    stopTimer();
    controls.clear();

    titleGroup.reset();
    trimGroup.reset();
    tiltSlider.reset();
    makerLabel.reset();
    bypassButton.reset();
    lowGainCaption.reset();
    tiltLowCaption.reset();
    tiltHighCaption.reset();
    linPhaseButton.reset();
    dashCaption.reset();
    trimSlider.reset();
    lowSlider.reset();
    highSlider.reset();
    tiltUnitCaption.reset();
    highGainCaption.reset();
    lowFreqSlider.reset();
    highFreqSlider.reset();
    lowFreqCaption.reset();
    highFreqCaption.reset();
}

//==============================================================================
void QuendaAudioProcessorEditor::paint (juce::Graphics& g)
{
    g.fillAll (panelColour);

    // The picture carries a few spare pixels right and below; only this corner is shown.
    if (backgroundImage.isValid())
        g.drawImage (backgroundImage, 0, 0, 700, 193, 0, 0, 700, 193);
}

void QuendaAudioProcessorEditor::resized()
{
    titleGroup->setBounds (0, 1, 697, 192);
    trimGroup->setBounds (576, 14, 111, 118);
    tiltSlider->setBounds (14, 19, 391, 136);
    makerLabel->setBounds (572, 167, 120, 24);
    bypassButton->setBounds (8, 27, 104, 24);
    lowGainCaption->setBounds (339, 21, 30, 24);
    tiltLowCaption->setBounds (275, 107, 150, 24);
    tiltHighCaption->setBounds (137, 107, 32, 24);
    linPhaseButton->setBounds (9, 54, 150, 24);
    dashCaption->setBounds (153, 133, 17, 24);
    trimSlider->setBounds (574, 27, 111, 94);
    lowSlider->setBounds (354, 20, 70, 80);
    highSlider->setBounds (467, 20, 70, 80);
    tiltUnitCaption->setBounds (158, 159, 133, 24);
    highGainCaption->setBounds (454, 22, 36, 24);
    lowFreqSlider->setBounds (354, 100, 70, 80);
    highFreqSlider->setBounds (467, 100, 70, 80);
    lowFreqCaption->setBounds (322, 139, 55, 24);
    highFreqCaption->setBounds (430, 138, 57, 24);
}

//==============================================================================
void QuendaAudioProcessorEditor::timerCallback()
{
    for (size_t i = 0; i < controls.size() && i < (size_t) ParameterTable::numParameters; ++i)
    {
        if (auto* slider = dynamic_cast<juce::Slider*> (controls[i]))
        {
            if (auto* plain = parameters.getFloat (i))
                slider->setValue (plain->get(), juce::dontSendNotification);
        }
        else if (auto* button = dynamic_cast<juce::Button*> (controls[i]))
        {
            if (auto* toggle = parameters.getSwitch (i))
                button->setToggleState (toggle->get(), juce::dontSendNotification);
        }
    }
}

void QuendaAudioProcessorEditor::sliderValueChanged (juce::Slider* slider)
{
    auto* parameter = floatParameterFor (slider);

    if (parameter == nullptr)
        return;

    const auto value = (float) slider->getValue();

    if (value == parameter->get())
        return;

    // No gesture: hosts see a plain stream of values while a knob is dragged.
    parameter->setPlainValueNotifyingHost (value);
}

void QuendaAudioProcessorEditor::buttonClicked (juce::Button* button)
{
    if (button != bypassButton.get() && button != linPhaseButton.get())
        return;

    auto* parameter = boolParameterFor (button);

    if (parameter == nullptr)
        return;

    const auto on = button->getToggleState();

    parameter->beginChangeGesture();

    if (parameter->get() != on)
        parameter->setValueNotifyingHost (on ? 1.0f : 0.0f);

    parameter->endChangeGesture();
}

//==============================================================================
size_t QuendaAudioProcessorEditor::indexFor (const juce::Component* control) const
{
    const auto found = std::find (controls.begin(), controls.end(), control);
    return std::min ((size_t) std::distance (controls.begin(), found), (size_t) ParameterTable::numParameters);
}

PlainFloatParameter* QuendaAudioProcessorEditor::floatParameterFor (const juce::Component* control) const
{
    const auto index = indexFor (control);
    return index < ParameterTable::numParameters ? parameters.getFloat (index) : nullptr;
}

juce::AudioParameterBool* QuendaAudioProcessorEditor::boolParameterFor (const juce::Component* control) const
{
    const auto index = indexFor (control);
    return index < ParameterTable::numParameters ? parameters.getSwitch (index) : nullptr;
}
