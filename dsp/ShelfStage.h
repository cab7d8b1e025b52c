// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "dsp/Biquad.h"

#include <array>
#include <cstddef>

/**
    The low and the high shelf of two channels: four sections, low then high on each channel.
    A gain change glides linearly over one block, redesigning the section per sample; a corner
    change takes effect at the block's start. Channels past the second pass untouched.
*/
class ShelfStage
{
public:
    static constexpr int numChannels = 2;
    static constexpr double lowShelfQ = 0.35;
    static constexpr double highShelfQ = 0.5;

    /** A block's settings, already limited; bypassed with both gains at 0 dB. */
    struct Settings
    {
        bool bypassed = false;
        float lowGainDb = 0.0f;
        float highGainDb = 0.0f;
        double lowCornerHz = 150.0;
        double highCornerHz = 4500.0;
    };

    /** Takes a new rate for the next reset(); an unusable one keeps the last usable rate. */
    void prepare (double newSampleRate) noexcept;

    /** A rate change without a reset: the corners, limited to the new rate, are redesigned
        at once and the filter state carries over. */
    void followSampleRate (double newSampleRate) noexcept;

    /** The rate the sections are designed at, which limits the corners. */
    double getSampleRate() const noexcept { return sampleRate; }

    /** All four sections at these settings, their state cleared, no glide pending. */
    void reset (const Settings& settings) noexcept;

    /** Silence as the past; the settings are kept. */
    void clearState() noexcept;

    void process (float* const* channels, int numChannelsInBlock, int n, const Settings& settings) noexcept;

private:
    /** A section gain's glide over one block, in dB. */
    struct Glide
    {
        float target = 0.0f;
        float previous = 0.0f;
        float current = 0.0f;
        double increment = 0.0;
    };

    /** A section with the corner and gain it was last designed for. */
    struct Section
    {
        Biquad filter;
        double cornerHz = 0.0;
        double gainDb = 0.0;
    };

    /** Designs a section for its corner and gain at the stage's rate. */
    void redesign (std::size_t index) noexcept;

    // Low shelf of channels 0 and 1, then high shelf of channels 0 and 1.
    std::array<Section, 4> sections;
    std::array<Glide, 4> glides;
    double sampleRate = 44100.0;
};
