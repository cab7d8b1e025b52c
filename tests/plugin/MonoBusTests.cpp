// SPDX-License-Identifier: GPL-3.0-or-later
// A one-channel bus: only channel 0 is processed, and bypass leaves the high shelf's gain.

#include "tests/support/ReadyProcessor.h"

#include <gtest/gtest.h>
#include <cmath>

namespace
{
    /** Level in dB of a sine run through the processor, measured over its last block. */
    double sineGainDb (QuendaAudioProcessor& processor, int numChannels, double frequency, int blocks)
    {
        juce::MidiBuffer midi;
        for (int b = 0;; ++b)
        {
            auto buffer = quenda_test::makeSine (numChannels, 512, frequency / 48000.0, 512.0 * b);
            const auto input = buffer.getRMSLevel (0, 0, 512);
            processor.processBlock (buffer, midi);
            processor.handleUpdateNowIfNeeded();
            if (b == blocks - 1)
                return 20.0 * std::log10 (buffer.getRMSLevel (0, 0, 512) / input);
        }
    }
}

TEST (MonoBus, BypassTakesTheLowShelfToNeutralButKeepsTheHighShelf)
{
    for (int numChannels : { 1, 2 })
    {
        QuendaAudioProcessor processor;
        ASSERT_TRUE (processor.setBusesLayout ({ { juce::AudioChannelSet::canonicalChannelSet (numChannels) },
                                                 { juce::AudioChannelSet::canonicalChannelSet (numChannels) } }));
        processor.setRateAndBufferSizeDetails (48000.0, 512);
        quenda_test::setParameter (processor, QuendaAudioProcessor::highIndex, 3.0f);
        quenda_test::setParameter (processor, QuendaAudioProcessor::lowIndex, 6.0f);
        processor.prepareToPlay (48000.0, 512);

        // Well above the high corner and far from the low one.
        EXPECT_NEAR (3.0, sineGainDb (processor, numChannels, 16000.0, 20), 0.3) << numChannels;
        EXPECT_GT (sineGainDb (processor, numChannels, 30.0, 40), 4.5) << numChannels;

        quenda_test::setParameter (processor, QuendaAudioProcessor::bypassIndex, 1.0f);
        EXPECT_NEAR (numChannels == 1 ? 3.0 : 0.0, sineGainDb (processor, numChannels, 16000.0, 20), 0.3) << numChannels;
        EXPECT_NEAR (0.0, sineGainDb (processor, numChannels, 30.0, 40), 0.3) << numChannels;
    }
}
