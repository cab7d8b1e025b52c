// SPDX-License-Identifier: GPL-3.0-or-later
// Any bytes a host or a damaged project hands to setStateInformation. Besides the
// sanitizers, a block that restores must save back to the values it restored.

#include "plugin/PluginProcessor.h"

#include <juce_events/juce_events.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace
{
QuendaAudioProcessor& processor()
{
    // Never destroyed: JUCE's shutdown at exit would run after its own statics are gone.
    static auto* juceInitialiser = new juce::ScopedJuceInitialiser_GUI();
    static auto* instance = new QuendaAudioProcessor();
    juce::ignoreUnused (juceInitialiser);
    return *instance;
}

bool sameValue (float a, float b)
{
    return a == b || (a != a && b != b);
}
}

extern "C" int LLVMFuzzerTestOneInput (const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput (const uint8_t* data, size_t size)
{
    auto& quenda = processor();
    const auto before = quenda.getParameterValues();
    const auto restored = StateBlock::read (data, (int) size);

    quenda.setStateInformation (data, (int) size);
    const auto after = quenda.getParameterValues();

    for (size_t i = 0; i < after.size(); ++i)
    {
        // Absent attributes, non-finite values and foreign blocks change nothing.
        const auto& value = restored ? (*restored)[i] : std::optional<float>();
        const auto expected = value && std::isfinite (*value) ? *value : before[i];

        if (! sameValue (expected, after[i]))
            std::abort();
    }

    juce::MemoryBlock saved;
    quenda.getStateInformation (saved);
    const auto reread = StateBlock::read (saved.getData(), (int) saved.getSize());

    if (! reread)
        std::abort();

    for (size_t i = 0; i < after.size(); ++i)
        if (! (*reread)[i] || ! sameValue (*(*reread)[i], ParameterTable::entry (i).isSwitch ? (after[i] >= 0.5f ? 1.0f : 0.0f) : after[i]))
            std::abort();

    return 0;
}
