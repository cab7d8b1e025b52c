// SPDX-License-Identifier: GPL-3.0-or-later
#include "PlainParameter.h"

#include <cmath>

PlainFloatParameter::PlainFloatParameter (const juce::String& parameterID,
                                          const juce::String& parameterName,
                                          float defaultPlain,
                                          juce::NormalisableRange<float> range,
                                          Normalisation mode)
    : juce::AudioProcessorParameterWithID (juce::ParameterID { parameterID, 1 }, parameterName),
      defaultPlainValue (defaultPlain),
      displayRange (range),
      normalisation (mode),
      plainValue (defaultPlain)
{
}

void PlainFloatParameter::setPlainValueNotifyingHost (float newPlainValue)
{
    if (! std::isfinite (newPlainValue))
        return;

    setValueNotifyingHost (toNormalised (newPlainValue));
}

float PlainFloatParameter::toNormalised (float plain) const noexcept
{
    if (normalisation == Normalisation::identity)
        return plain;

    return displayRange.convertTo0to1 (plain);
}

float PlainFloatParameter::fromNormalised (float normalised) const noexcept
{
    if (normalisation == Normalisation::identity)
        return normalised;

    return displayRange.convertFrom0to1 (normalised);
}

float PlainFloatParameter::getValue() const
{
    return toNormalised (get());
}

void PlainFloatParameter::setValue (float newValue)
{
    // A NaN in a shelf's feedback path would silence the channel for the rest of the session.
    if (! std::isfinite (newValue))
        return;

    plainValue.store (fromNormalised (newValue), std::memory_order_relaxed);
}

float PlainFloatParameter::getDefaultValue() const
{
    return toNormalised (defaultPlainValue);
}

juce::String PlainFloatParameter::getText (float normalisedValue, int maximumStringLength) const
{
    auto text = juce::String (fromNormalised (normalisedValue), 2);
    return maximumStringLength > 0 ? text.substring (0, maximumStringLength) : text;
}

float PlainFloatParameter::getValueForText (const juce::String& text) const
{
    return toNormalised (text.getFloatValue());
}

int PlainFloatParameter::getNumSteps() const
{
    return juce::AudioProcessor::getDefaultNumParameterSteps();
}
