// SPDX-License-Identifier: GPL-3.0-or-later
// The processor posts its kernel design to the message thread, the editor runs a timer and
// hosted plug-ins talk to their host on it: this main makes the test thread the message thread.

#include <juce_events/juce_events.h>
#include <gtest/gtest.h>

int main (int argc, char** argv)
{
    juce::ScopedJuceInitialiser_GUI juceInitialiser;
    ::testing::InitGoogleTest (&argc, argv);
    return RUN_ALL_TESTS();
}
