// SPDX-License-Identifier: GPL-3.0-or-later
#include "Parameters.h"

namespace
{
juce::String toString (std::string_view text)
{
    return juce::String (text.data(), text.size());
}
}

Parameters::Parameters (juce::AudioProcessor& processor, PlainFloatParameter::Normalisation normalisation)
{
    for (size_t i = 0; i < ParameterTable::entries.size(); ++i)
    {
        const auto& entry = ParameterTable::entry (i);

        if (entry.isSwitch)
        {
            switches[i] = new juce::AudioParameterBool (juce::ParameterID { toString (entry.id), 1 },
                                                        toString (entry.name),
                                                        entry.isOn (entry.defaultValue));
            processor.addParameter (switches[i]);
        }
        else
        {
            floats[i] = new PlainFloatParameter (entry, normalisation);
            processor.addParameter (floats[i]);
        }
    }
}

StateBlock::Values Parameters::getValues() const
{
    StateBlock::Values values {};

    for (size_t i = 0; i < values.size(); ++i)
        values[i] = floats[i] != nullptr ? floats[i]->get() : (switches[i]->get() ? 1.0f : 0.0f);

    return values;
}

void Parameters::setPlainValue (size_t index, float value)
{
    if (floats[index] != nullptr)
        floats[index]->setPlainValueNotifyingHost (value);
    else
        switches[index]->setValueNotifyingHost (value);
}
