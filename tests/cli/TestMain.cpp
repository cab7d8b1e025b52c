// SPDX-License-Identifier: GPL-3.0-or-later
// The processor posts its kernel design to the message thread: make the test thread it.

#include <juce_events/juce_events.h>
#include <gtest/gtest.h>

int main (int argc, char** argv)
{
    juce::ScopedJuceInitialiser_GUI juceInitialiser;
    ::testing::InitGoogleTest (&argc, argv);
    return RUN_ALL_TESTS();
}
