// SPDX-License-Identifier: GPL-3.0-or-later
#include "Loudness.h"
#include "CliError.h"

#include <ebur128.h>

#include <limits>

namespace cli
{
struct LoudnessMeter::State
{
    ebur128_state* meter = nullptr;
};

LoudnessMeter::LoudnessMeter (int channels, double sampleRate)
    : state (std::make_unique<State>()), numChannels (channels)
{
    state->meter = ebur128_init ((unsigned int) channels, (unsigned long) sampleRate, EBUR128_MODE_I);

    if (state->meter == nullptr)
        throw CliError (ExitCode::internalError, "cannot start the loudness meter at " + juce::String (sampleRate) + " Hz");

    // A mono file is heard from both speakers; BS.1770 counts it as one front channel.
    if (channels == 1)
        ebur128_set_channel (state->meter, 0, EBUR128_DUAL_MONO);
}

LoudnessMeter::~LoudnessMeter()
{
    if (state->meter != nullptr)
        ebur128_destroy (&state->meter);
}

void LoudnessMeter::add (const juce::AudioBuffer<float>& block, int start, int numSamples)
{
    interleaved.resize ((size_t) numSamples * (size_t) numChannels);

    for (int channel = 0; channel < numChannels; ++channel)
    {
        const auto* source = block.getReadPointer (channel, start);

        for (int i = 0; i < numSamples; ++i)
            interleaved[(size_t) (i * numChannels + channel)] = source[i];
    }

    if (ebur128_add_frames_float (state->meter, interleaved.data(), (size_t) numSamples) != EBUR128_SUCCESS)
        throw CliError (ExitCode::internalError, "the loudness meter failed");
}

double LoudnessMeter::integrated() const
{
    double loudness = 0.0;

    if (ebur128_loudness_global (state->meter, &loudness) != EBUR128_SUCCESS)
        return -std::numeric_limits<double>::infinity();

    return loudness;
}
}
