// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "plugin/PluginProcessor.h"

#include <juce_graphics/juce_graphics.h>
#include <vector>

namespace cli
{
struct ResponseCurve
{
    std::vector<double> frequencies;   // Hz, log-spaced
    std::vector<double> magnitudesDb;
};

/** Runs an impulse through a copy of the processor (latency compensated) and takes the
        magnitude of its response at log-spaced frequencies from 20 Hz to 20 kHz. */
ResponseCurve measureResponse (QuendaAudioProcessor& processor, double sampleRate, int numPoints = 480);

/** The curve on a log frequency axis with a dB grid; the caption goes on top. */
juce::Image drawResponse (const ResponseCurve& curve, const juce::String& caption,
                          int width = 960, int height = 480);

/** One line describing the processor's settings, for captions and verbose output. */
juce::String describeSettings (QuendaAudioProcessor& processor);

/** Measures, draws and writes the PNG through a temporary file; returns what writing it
        has to tell. Throws CliError. */
juce::StringArray writeResponsePlot (QuendaAudioProcessor& processor, double sampleRate, const juce::File& target, bool overwrite);
}
