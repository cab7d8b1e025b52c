// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "ParameterTable.h"
#include "PlainParameter.h"
#include "StateBlock.h"

#include <juce_audio_processors/juce_audio_processors.h>

#include <array>

/** The eight parameter objects, made from ParameterTable and owned by the processor's
    parameter list. Everything that reads or sets a parameter by index goes through here. */
class Parameters
{
public:
    /** Adds the parameters to the processor; the wrapper fixes the normalisation. */
    Parameters (juce::AudioProcessor& processor, PlainFloatParameter::Normalisation normalisation);

    /** The current values of all eight, in index order; switches as 0 or 1. */
    StateBlock::Values getValues() const;

    /** Sets a value in its own unit (a switch is on from 0.5) and tells the host. Non-finite
        values leave a float parameter as it was. */
    void setPlainValue (size_t index, float value);

    /** Null for a switch. */
    PlainFloatParameter* getFloat (size_t index) const noexcept { return floats[index]; }

    /** Null for a float parameter. */
    juce::AudioParameterBool* getSwitch (size_t index) const noexcept { return switches[index]; }

    juce::AudioParameterBool& getBypass() const noexcept { return *switches[ParameterTable::bypassIndex]; }
    bool isLinearPhase() const noexcept { return switches[ParameterTable::linPhaseIndex]->get(); }

private:
    // By index, exactly one of the two is set.
    std::array<PlainFloatParameter*, ParameterTable::numParameters> floats {};
    std::array<juce::AudioParameterBool*, ParameterTable::numParameters> switches {};

    JUCE_DECLARE_NON_COPYABLE (Parameters)
};
