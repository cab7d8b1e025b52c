// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "ParameterTable.h"

#include <juce_audio_processors/juce_audio_processors.h>
#include <atomic>

/** A float parameter that stores its value in its own unit (dB, dB/oct, Hz), unclamped.

    JUCE 7's AudioParameterFloat clamps in every conversion, which would pin a 150 Hz
    corner to 1.0. Hosts of the VST2 build read and write the plain value through an
    identity normalisation; other wrappers need a 0..1 mapping over the editor range,
    chosen once when the parameter is made.
*/
class PlainFloatParameter : public juce::AudioProcessorParameterWithID
{
public:
    enum class Normalisation
    {
        identity,       // normalised value == plain value, no clamping
        mappedToRange   // 0..1 over the display range, for wrappers that clamp to 0..1
    };

    PlainFloatParameter (const ParameterTable::Entry& entry, Normalisation normalisation);

    /** The value in its own unit, as the audio code and the state use it. */
    float get() const noexcept { return plainValue.load (std::memory_order_relaxed); }
    operator float() const noexcept { return get(); }

    /** Sets the plain value and tells the host. Non-finite values are ignored. */
    void setPlainValueNotifyingHost (float newPlainValue);

    float getDefaultPlainValue() const noexcept { return defaultPlainValue; }
    const juce::NormalisableRange<float>& getDisplayRange() const noexcept { return displayRange; }
    Normalisation getNormalisation() const noexcept { return normalisation; }

    float toNormalised (float plain) const noexcept;
    float fromNormalised (float normalised) const noexcept;

    /** The plain value with the entry's decimals and unit, e.g. "150.0 Hz". */
    juce::String plainText (float plain) const;

    /** Reads the leading number of a typed text; "k" before "Hz" scales by 1000. */
    float plainValueForText (const juce::String& text) const;

    /** Fixed-point text: d decimals, halves away from zero, and a minus sign on any negative
        value, even one that rounds to zero. */
    static juce::String toFixedDecimals (double value, int decimals);

    // AudioProcessorParameter
    float getValue() const override;
    void setValue (float newValue) override;
    float getDefaultValue() const override;
    juce::String getText (float normalisedValue, int maximumStringLength) const override;
    float getValueForText (const juce::String& text) const override;
    int getNumSteps() const override;
    bool isDiscrete() const override { return false; }
    bool isBoolean() const override { return false; }
    bool isAutomatable() const override { return true; }

private:
    const ParameterTable::Entry& entry;
    const float defaultPlainValue;
    const juce::NormalisableRange<float> displayRange;
    const Normalisation normalisation;
    std::atomic<float> plainValue;

    JUCE_DECLARE_NON_COPYABLE_WITH_LEAK_DETECTOR (PlainFloatParameter)
};
