// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/ShelfStage.h"
#include "dsp/DesignLimits.h"

#include <algorithm>

void ShelfStage::prepare (double newSampleRate) noexcept
{
    if (limits::isUsableSampleRate (newSampleRate))
        sampleRate = newSampleRate;
}

void ShelfStage::followSampleRate (double newSampleRate) noexcept
{
    prepare (newSampleRate);

    for (size_t index = 0; index < sections.size(); ++index)
    {
        sections[index].cornerHz = limits::safeCorner (sections[index].cornerHz, sampleRate);
        redesign (index);
    }
}

void ShelfStage::redesign (size_t index) noexcept
{
    auto& section = sections[index];

    section.filter.setCoefficients (index < 2 ? Biquad::lowShelf (section.cornerHz, lowShelfQ, section.gainDb, sampleRate)
                                              : Biquad::highShelf (section.cornerHz, highShelfQ, section.gainDb, sampleRate));
}

void ShelfStage::reset (const Settings& settings) noexcept
{
    for (size_t index = 0; index < sections.size(); ++index)
    {
        const auto isLow = index < 2;
        auto& section = sections[index];
        auto& glide = glides[index];

        glide.target = isLow ? settings.lowGainDb : settings.highGainDb;
        glide.previous = glide.current = glide.target;
        glide.increment = 0.0;

        section.cornerHz = isLow ? settings.lowCornerHz : settings.highCornerHz;
        section.gainDb = (double) glide.target;
        redesign (index);
        section.filter.reset();
    }
}

void ShelfStage::clearState() noexcept
{
    for (auto& section : sections)
        section.filter.reset();
}

void ShelfStage::process (float* const* channels, int numChannelsInBlock, int n, const Settings& settings) noexcept
{
    if (n <= 0)
        return;

    const auto used = std::min (numChannelsInBlock, numChannels);

    if (! settings.bypassed)
    {
        const float targets[] = { settings.lowGainDb, settings.lowGainDb, settings.highGainDb, settings.highGainDb };

        for (size_t k = 0; k < glides.size(); ++k)
        {
            glides[k].target = targets[k];
            glides[k].increment = (double) ((glides[k].target - glides[k].previous) / (float) n);
        }
    }
    else
    {
        // Bypass takes shelf k to 0 dB for k below the channel count: on a mono bus the high
        // shelf keeps its gain, as sessions made on mono buses expect.
        for (int shelf = 0; shelf < used; ++shelf)
        {
            for (int channel = 0; channel < 2; ++channel)
            {
                auto& glide = glides[(size_t) (2 * shelf + channel)];
                glide.target = 0.0f;
                glide.increment = (double) ((0.0f - glide.previous) / (float) n);
            }
        }
    }

    for (size_t channel = 0; channel < (size_t) used; ++channel)
    {
        for (auto index : { channel, 2 + channel })
        {
            const auto corner = index < 2 ? settings.lowCornerHz : settings.highCornerHz;

            if (corner != sections[index].cornerHz)
            {
                sections[index].cornerHz = corner;
                redesign (index);
            }
        }
    }

    const auto allSteady = std::all_of (glides.begin(), glides.end(), [] (const Glide& g)
                                        { return g.target == g.previous; });

    if (allSteady && used == 2)
    {
        // No glide: both channels side by side, low shelf then high shelf.
        for (size_t index = 0; index < sections.size(); ++index)
        {
            glides[index].current = glides[index].target;

            if ((double) glides[index].current != sections[index].gainDb)
            {
                sections[index].gainDb = (double) glides[index].current;
                redesign (index);
            }
        }

        Biquad::processStereoCascade (sections[0].filter, sections[1].filter, sections[2].filter, sections[3].filter,
                                      channels[0], channels[1], n);
    }
    else
    {
        for (int channel = 0; channel < used; ++channel)
        {
            auto* samples = channels[channel];

            for (auto index : { channel, 2 + channel })
            {
                auto& section = sections[(size_t) index];
                auto& glide = glides[(size_t) index];
                const auto steady = glide.target == glide.previous;

                for (int i = 0; i < n; ++i)
                {
                    glide.current = steady ? glide.target : (float) ((double) glide.previous + i * glide.increment);

                    // Redesigned per sample while gliding; the state carries over, so no click.
                    if ((double) glide.current != section.gainDb)
                    {
                        section.gainDb = (double) glide.current;
                        redesign ((size_t) index);
                    }

                    samples[i] = section.filter.process (samples[i]);
                }
            }
        }
    }

    for (auto& glide : glides)
        glide.previous = glide.target;
}
