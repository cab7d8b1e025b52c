// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

/**
    The output trim on every channel. A change of gain ramps linearly over one block, from
    the old gain to one step short of the new one.
*/
class TrimStage
{
public:
    /** A block's setting, already limited; 0 dB when bypassed. */
    struct Settings
    {
        float gainDb = 0.0f;
    };

    /** The next block starts at this setting without a ramp. */
    void reset (const Settings& settings) noexcept { previousGainDb = settings.gainDb; }

    void process (float* const* channels, int numChannels, int n, const Settings& settings) noexcept;

private:
    float previousGainDb = 0.0f;
};
