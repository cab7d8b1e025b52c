// SPDX-License-Identifier: GPL-3.0-or-later
#include "PlainParameter.h"

#include <cmath>
#include <cstdio>

namespace
{
juce::String toString (std::string_view text)
{
    return juce::String (text.data(), text.size());
}
}

PlainFloatParameter::PlainFloatParameter (const ParameterTable::Entry& tableEntry, Normalisation mode)
    : juce::AudioProcessorParameterWithID (juce::ParameterID { toString (tableEntry.id), 1 }, toString (tableEntry.name)),
      entry (tableEntry),
      defaultPlainValue (tableEntry.defaultValue),
      displayRange (tableEntry.minimum, tableEntry.maximum, 0.0f, tableEntry.skew),
      normalisation (mode),
      plainValue (tableEntry.defaultValue)
{
}

void PlainFloatParameter::setPlainValueNotifyingHost (float newPlainValue)
{
    if (! std::isfinite (newPlainValue))
        return;

    // Stored as given, not through the 0..1 form, which would move it by a rounding step.
    plainValue.store (newPlainValue, std::memory_order_relaxed);
    sendValueChangedMessageToListeners (toNormalised (newPlainValue));
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

    // Hosts echo the 0..1 value they were last told. Mapping it back would move a plain value
    // such as 97.5 Hz by a rounding step, so saved states would drift with every echo.
    if (normalisation == Normalisation::mappedToRange && newValue == toNormalised (get()))
        return;

    plainValue.store (fromNormalised (newValue), std::memory_order_relaxed);
}

float PlainFloatParameter::getDefaultValue() const
{
    return toNormalised (defaultPlainValue);
}

juce::String PlainFloatParameter::toFixedDecimals (double value, int decimals)
{
    if (! std::isfinite (value))
        return juce::String (value);

    // Rounded by hand: String (double, d) neither rounds halves away from zero nor keeps
    // the sign of a negative value that rounds to zero.
    const auto scaled = std::floor (std::abs (value) * std::pow (10.0, decimals) + 0.5);

    char digits[400];
    std::snprintf (digits, sizeof (digits), "%.0f", scaled);
    auto text = juce::String (digits).paddedLeft ('0', decimals + 1);

    if (decimals > 0)
        text = text.dropLastCharacters (decimals) + "." + text.getLastCharacters (decimals);

    return value < 0.0 ? "-" + text : text;
}

juce::String PlainFloatParameter::plainText (float plain) const
{
    const auto number = toFixedDecimals ((double) plain, entry.decimals);
    return entry.unit.empty() ? number : number + " " + toString (entry.unit);
}

float PlainFloatParameter::plainValueForText (const juce::String& text) const
{
    const auto trimmed = text.trim();
    auto value = trimmed.getFloatValue();

    // Hosts and users type "3k", "3 kHz" or "3kHz" for a corner frequency.
    const auto afterNumber = trimmed.trimCharactersAtStart ("+-0123456789.eE ").toLowerCase();

    if (entry.unit == "Hz" && afterNumber.startsWith ("k"))
        value *= 1000.0f;

    return value;
}

juce::String PlainFloatParameter::getText (float normalisedValue, int maximumStringLength) const
{
    auto text = plainText (fromNormalised (normalisedValue));
    return maximumStringLength > 0 ? text.substring (0, maximumStringLength) : text;
}

float PlainFloatParameter::getValueForText (const juce::String& text) const
{
    return toNormalised (plainValueForText (text));
}

int PlainFloatParameter::getNumSteps() const
{
    return juce::AudioProcessor::getDefaultNumParameterSteps();
}
