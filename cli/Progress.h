// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_core/juce_core.h>
#include <ostream>

namespace cli
{
/** A one-line progress bar: percentage, speed as a multiple of real time and the time
        left. Draws nothing when disabled (quiet, short file, or not a terminal). */
class ProgressBar
{
public:
    ProgressBar (std::ostream& stream, bool enabled, double sampleRate);
    ~ProgressBar();

    void update (juce::int64 done, juce::int64 total);

    /** Clears the line so that later messages start on a clean one. */
    void finish();

    /** The line as drawn, for a given state; the bar is 30 characters wide. */
    static juce::String format (juce::int64 done, juce::int64 total, double sampleRate, double elapsedSeconds);

private:
    std::ostream& out;
    const bool enabled;
    const double sampleRate;
    const double startTime;
    double lastDrawn = -1.0;
    bool drawn = false;
};

/** A batch's one line: its bar, files finished and the time left. */
juce::String batchProgressLine (int filesFinished, int numFiles, double fraction, double elapsedSeconds);

/** Whether stderr is an interactive terminal. */
bool stderrIsTerminal();
}
