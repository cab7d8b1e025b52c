// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/TrimStage.h"

#include <cmath>

namespace
{
float gainFor (float gainDb) noexcept
{
    return (float) std::pow (10.0, (double) gainDb / 20.0);
}

void applyGain (float* samples, int n, float gain) noexcept
{
    for (int i = 0; i < n; ++i)
        samples[i] *= gain;
}
}

void TrimStage::process (float* const* channels, int numChannels, int n, const Settings& settings) noexcept
{
    if (settings.gainDb == previousGainDb)
    {
        const auto gain = gainFor (settings.gainDb);

        for (int channel = 0; channel < numChannels; ++channel)
            applyGain (channels[channel], n, gain);
    }
    else
    {
        const auto startGain = gainFor (previousGainDb);
        const auto endGain = gainFor (settings.gainDb);

        for (int channel = 0; channel < numChannels; ++channel)
        {
            auto* samples = channels[channel];

            // Two dB values a hair apart can give one gain: then it is a plain gain.
            if (startGain == endGain)
            {
                if (startGain != 1.0f)
                    applyGain (samples, n, startGain);

                continue;
            }

            const auto increment = (endGain - startGain) / (float) n;
            auto gain = startGain;

            for (int i = 0; i < n; ++i)
            {
                samples[i] *= gain;
                gain += increment;
            }
        }
    }

    previousGainDb = settings.gainDb;
}
