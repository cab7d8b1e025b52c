// SPDX-License-Identifier: GPL-3.0-or-later
// A host session that drives Quenda.so and the reference model side by side.
#pragma once

// The model indexes its vectors with ints throughout; it is kept as written.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsign-conversion"
#include "ReferenceModel.h"
#pragma GCC diagnostic pop
#include "Vst2Host.h"

#include <gtest/gtest.h>
#include <random>

using reference::Block;
using reference::Settings;

namespace
{
    constexpr double sampleRate = 48000.0;

    /** Drives the plug-in and the model side by side, block by block. */
    struct Session
    {
        explicit Session (int blockSize, Settings initial = {}, double rate = sampleRate)
            : declaredBlockSize (blockSize), settings (initial)
        {
            apply();
            plugin.start ((float) rate, declaredBlockSize);
            model.start (rate, declaredBlockSize, settings);
        }

        /** As a host changing the rate: stopped, then started again at the new one. */
        void restart (double rate)
        {
            plugin.stop();
            plugin.start ((float) rate, declaredBlockSize);
            model.start (rate, declaredBlockSize, settings);
        }

        void apply()
        {
            for (int i = 0; i < 8; ++i)
                plugin.setParameter (i, settings[i]);
        }

        /** Runs one block of noise (or silence) and compares the output sample by sample. */
        void block (int n, const char* what, bool silent = false)
        {
            Block input (2, std::vector<float> ((size_t) n));
            for (auto& channel : input)
                for (auto& sample : channel)
                    sample = silent ? 0.0f : noise (random);

            apply();
            const auto expected = model.process (input, settings);

            auto left = input[0], right = input[1];
            plugin.process (left, right, 0, n);
            const std::vector<float>* actual[] = { &left, &right };

            for (size_t c = 0; c < 2; ++c)
            {
                double worst = 0;
                int worstIndex = 0;
                for (int i = 0; i < n; ++i)
                {
                    const auto error = std::abs ((double) (*actual[c])[(size_t) i] - expected[c][(size_t) i]);
                    if (error > worst)
                    {
                        worst = error;
                        worstIndex = i;
                    }
                }

                EXPECT_LT (worst, 2e-5) << what << ", block " << blockCount << ", channel " << c
                                        << ", sample " << worstIndex << ": got " << (*actual[c])[(size_t) worstIndex]
                                        << ", expected " << expected[c][(size_t) worstIndex];
            }

            EXPECT_EQ (model.latency(), plugin.latency()) << what << ", block " << blockCount;
            ++blockCount;
        }

        const int declaredBlockSize;
        vst2host::Instance plugin;
        reference::Model model;
        Settings settings;
        std::mt19937 random { 1300 };
        std::uniform_real_distribution<float> noise { -0.5f, 0.5f };
        int blockCount = 0;
    };
}

