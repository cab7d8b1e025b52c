// SPDX-License-Identifier: GPL-3.0-or-later
#include "Progress.h"

#include <unistd.h>

namespace cli
{
namespace
{
    double now()
    {
        return juce::Time::getMillisecondCounterHiRes() / 1000.0;
    }

    juce::String minutesAndSeconds (double seconds)
    {
        const auto whole = (int) std::ceil (seconds);
        return juce::String (whole / 60) + ":" + juce::String (whole % 60).paddedLeft ('0', 2);
    }
}

juce::String batchProgressLine (int filesFinished, int numFiles, double fraction, double elapsed)
{
    constexpr int width = 30;
    fraction = juce::jlimit (0.0, 1.0, fraction);
    const auto filled = (int) (fraction * width);

    juce::String line ("[");
    line << juce::String::repeatedString ("#", filled) << juce::String::repeatedString ("-", width - filled) << "] "
         << juce::String ((int) (fraction * 100.0)).paddedLeft (' ', 3) << "%  " << filesFinished << " of " << numFiles << " files";

    if (elapsed > 0.0 && fraction > 0.0)
        line << "  ETA " << minutesAndSeconds (elapsed * (1.0 - fraction) / fraction);

    return line;
}

bool stderrIsTerminal()
{
    return ::isatty (STDERR_FILENO) == 1;
}

ProgressBar::ProgressBar (std::ostream& stream, bool shouldDraw, double rate)
    : out (stream), enabled (shouldDraw), sampleRate (rate), startTime (now())
{
}

ProgressBar::~ProgressBar()
{
    finish();
}

juce::String ProgressBar::format (juce::int64 done, juce::int64 total, double rate, double elapsed)
{
    constexpr int width = 30;
    const auto fraction = total > 0 ? juce::jlimit (0.0, 1.0, (double) done / (double) total) : 1.0;
    const auto filled = (int) (fraction * width);

    juce::String line ("[");
    line << juce::String::repeatedString ("#", filled) << juce::String::repeatedString ("-", width - filled) << "] "
         << juce::String ((int) (fraction * 100.0)).paddedLeft (' ', 3) << "%";

    if (elapsed > 0.0 && done > 0)
    {
        const auto speed = ((double) done / rate) / elapsed;
        const auto remaining = (double) (total - done) / rate / speed;
        line << "  " << juce::String (speed, 1) << "x real time  ETA " << minutesAndSeconds (remaining);
    }

    return line;
}

void ProgressBar::update (juce::int64 done, juce::int64 total)
{
    if (! enabled)
        return;

    const auto time = now();

    // Ten redraws a second are plenty and keep the terminal cheap.
    if (done < total && time - lastDrawn < 0.1)
        return;

    lastDrawn = time;
    out << "\r" << format (done, total, sampleRate, time - startTime) << "\x1b[K" << std::flush;
    drawn = true;
}

void ProgressBar::finish()
{
    if (drawn)
        out << "\r\x1b[K" << std::flush;

    drawn = false;
}
}
