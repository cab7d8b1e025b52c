// SPDX-License-Identifier: GPL-3.0-or-later
#include "Plot.h"
#include "PendingFile.h"
#include "CliError.h"
#include "Render.h"

#include <cmath>
#include <complex>

namespace cli
{
namespace
{
    constexpr double lowestFrequency = 20.0;
    constexpr double highestFrequency = 20000.0;

    double magnitudeDbAt (const float* response, int length, double frequency, double sampleRate)
    {
        // One DFT bin at an arbitrary frequency, by a rotating phasor.
        const auto omega = juce::MathConstants<double>::twoPi * frequency / sampleRate;
        const std::complex<double> step (std::cos (omega), -std::sin (omega));
        std::complex<double> phasor (1.0, 0.0), sum (0.0, 0.0);

        for (int i = 0; i < length; ++i)
        {
            sum += (double) response[i] * phasor;
            phasor *= step;
        }

        return 20.0 * std::log10 (std::max (std::abs (sum), 1.0e-12));
    }

    juce::String frequencyLabel (double frequency)
    {
        return frequency >= 1000.0 ? juce::String (frequency / 1000.0) + "k" : juce::String ((int) frequency);
    }
}

ResponseCurve measureResponse (QuendaAudioProcessor& processor, double sampleRate, int numPoints)
{
    auto copy = cloneProcessor (processor);

    // About a second: the kernel and the shelves' tails fit with room to spare. The
    // impulse sits past the linear-phase kernel's centre so that no pre-ringing is cut.
    const auto length = juce::nextPowerOfTwo ((int) sampleRate);
    const auto impulsePosition = 2 * QuendaAudioProcessor::linearPhaseLatency;

    juce::AudioBuffer<float> impulse (1, length);
    impulse.clear();
    impulse.setSample (0, impulsePosition, 1.0f);

    const auto response = renderBuffer (*copy, impulse, sampleRate);

    ResponseCurve curve;
    const auto top = std::min (highestFrequency, 0.49 * sampleRate);

    for (int i = 0; i < numPoints; ++i)
    {
        const auto frequency = lowestFrequency * std::pow (top / lowestFrequency, (double) i / (numPoints - 1));
        curve.frequencies.push_back (frequency);
        curve.magnitudesDb.push_back (magnitudeDbAt (response.getReadPointer (0), length, frequency, sampleRate));
    }

    return curve;
}

juce::String describeSettings (QuendaAudioProcessor& processor)
{
    const auto values = processor.getParameterValues();
    const auto on = [] (float value)
    { return value >= 0.5f; };

    const auto tilt = values[ParameterTable::tiltIndex];

    // Between the ends the tilt is a cross-fade of the 1 dB/oct kernel with the dry signal,
    // not a shallower slope: say so rather than print a slope it does not have.
    const auto magnitude = std::abs (tilt);
    const auto direction = juce::String (tilt > 0.0f ? "falling" : "rising");
    const auto percent = (int) std::round (magnitude * 100.0f);

    juce::String text;
    text << "tilt " << juce::String (tilt, 2) << " (";

    if (magnitude == 0.0f)
        text << "off)";
    else if (magnitude == 1.0f)
        text << direction << " 1 dB/oct)";
    else
        text << percent << " % " << direction << " 1 dB/oct blended with " << (100 - percent) << " % dry)";

    text << ", low " << juce::String (values[ParameterTable::lowIndex], 1) << " dB @ "
         << juce::String (values[ParameterTable::lowFreqIndex], 0) << " Hz"
         << ", high " << juce::String (values[ParameterTable::highIndex], 1) << " dB @ "
         << juce::String (values[ParameterTable::highFreqIndex], 0) << " Hz"
         << ", trim " << juce::String (values[ParameterTable::trimIndex], 1) << " dB"
         << (on (values[ParameterTable::linPhaseIndex]) ? ", linear phase" : ", minimum phase")
         << (on (values[ParameterTable::bypassIndex]) ? ", bypassed" : "");
    return text;
}

juce::Image drawResponse (const ResponseCurve& curve, const juce::String& caption, int width, int height)
{
    juce::Image image (juce::Image::ARGB, width, height, true);
    juce::Graphics g (image);

    const juce::Colour background (0xff15191e), grid (0xff2c333b), gridStrong (0xff46505b),
        text (0xffb8c2cc), trace (0xfff2a93b);

    g.fillAll (background);

    const auto area = juce::Rectangle<float> (60.0f, 40.0f, (float) width - 84.0f, (float) height - 84.0f);

    // Symmetric dB range that holds the curve, from a few fixed scales.
    double largest = 0.0;
    for (auto value : curve.magnitudesDb)
        largest = std::max (largest, std::abs (value));

    double range = 48.0, step = 8.0;
    for (auto [candidate, candidateStep] : { std::pair { 3.0, 0.5 }, { 6.0, 1.0 }, { 12.0, 2.0 }, { 18.0, 3.0 }, { 24.0, 4.0 }, { 36.0, 6.0 }, { 48.0, 8.0 } })
    {
        if (largest + 0.5 <= candidate)
        {
            range = candidate;
            step = candidateStep;
            break;
        }
    }

    const auto xFor = [&] (double frequency)
    {
        return area.getX() + area.getWidth() * (float) (std::log (frequency / lowestFrequency) / std::log (highestFrequency / lowestFrequency));
    };

    const auto yFor = [&] (double db)
    {
        return area.getCentreY() - area.getHeight() * 0.5f * (float) (juce::jlimit (-range, range, db) / range);
    };

    g.setFont (juce::Font (13.0f));

    for (double decade = 10.0; decade <= 10000.0; decade *= 10.0)
    {
        for (int multiple = 1; multiple < 10; ++multiple)
        {
            const auto frequency = decade * multiple;

            if (frequency < lowestFrequency || frequency > highestFrequency)
                continue;

            const auto x = xFor (frequency);
            const auto labelled = multiple == 1 || multiple == 2 || multiple == 5;
            g.setColour (labelled ? gridStrong : grid);
            g.drawVerticalLine ((int) std::round (x), area.getY(), area.getBottom());

            if (labelled)
            {
                g.setColour (text);
                g.drawText (frequencyLabel (frequency), juce::Rectangle<float> (x - 30.0f, area.getBottom() + 6.0f, 60.0f, 16.0f),
                            juce::Justification::centred);
            }
        }
    }

    g.setColour (gridStrong);
    g.drawVerticalLine ((int) std::round (xFor (highestFrequency)), area.getY(), area.getBottom());

    for (auto db = -range; db <= range + 1.0e-9; db += step)
    {
        const auto y = yFor (db);
        g.setColour (std::abs (db) < 1.0e-9 ? text.withAlpha (0.6f) : gridStrong);
        g.drawHorizontalLine ((int) std::round (y), area.getX(), area.getRight());
        g.setColour (text);
        g.drawText ((db > 0 ? "+" : "") + juce::String (db, step < 1.0 ? 1 : 0),
                    juce::Rectangle<float> (4.0f, y - 8.0f, area.getX() - 10.0f, 16.0f), juce::Justification::centredRight);
    }

    g.setColour (text);
    g.drawText ("Hz", juce::Rectangle<float> (area.getRight() - 40.0f, area.getBottom() + 22.0f, 40.0f, 16.0f),
                juce::Justification::centredRight);
    g.drawText ("dB", juce::Rectangle<float> (4.0f, area.getY() - 28.0f, area.getX() - 10.0f, 16.0f),
                juce::Justification::centredRight);
    g.setFont (juce::Font (15.0f, juce::Font::bold));
    g.drawText (caption, juce::Rectangle<float> (area.getX(), 8.0f, area.getWidth(), 22.0f), juce::Justification::centredLeft);

    juce::Path path;

    for (size_t i = 0; i < curve.frequencies.size(); ++i)
    {
        const juce::Point<float> point (xFor (curve.frequencies[i]), yFor (curve.magnitudesDb[i]));

        if (i == 0)
            path.startNewSubPath (point);
        else
            path.lineTo (point);
    }

    g.setColour (trace);
    g.strokePath (path, juce::PathStrokeType (2.5f, juce::PathStrokeType::curved, juce::PathStrokeType::rounded));

    return image;
}

juce::StringArray writeResponsePlot (QuendaAudioProcessor& processor, double sampleRate, const juce::File& target, bool overwrite)
{
    const auto image = drawResponse (measureResponse (processor, sampleRate), "Quenda: " + describeSettings (processor));

    juce::MemoryOutputStream png;

    if (! juce::PNGImageFormat().writeImageToStream (image, png))
        throw CliError (ExitCode::internalError, "could not encode the response plot as PNG");

    return writeFileSafely (target, png.getMemoryBlock(), overwrite);
}
}
