// SPDX-License-Identifier: GPL-3.0-or-later
#include "Cli.h"
#include "AudioReader.h"
#include "AudioWriter.h"
#include "CliError.h"
#include "Demo.h"
#include "Options.h"
#include "Plot.h"
#include "Progress.h"
#include "Render.h"
#include "Version.h"

#include <cmath>

namespace cli
{
namespace
{
    constexpr double plotSampleRate = 48000.0;

    juce::File resolve (const juce::String& path)
    {
        return juce::File::getCurrentWorkingDirectory().getChildFile (path);
    }

    juce::String decibels (float gain)
    {
        return gain > 0.0f ? juce::String (20.0 * std::log10 ((double) gain), 2) + " dBFS" : juce::String ("-inf dBFS");
    }

    juce::String describeFormat (const OutputFormat& format)
    {
        return (format.bitDepth == 32 ? juce::String ("32-bit float ") : juce::String (format.bitDepth) + "-bit ")
               + format.format->getFormatName();
    }

    /** Refuses to write over the input, or to write two results to one file, before any work. */
    void checkTargets (const juce::File* input, const juce::Array<juce::File>& targets, bool overwrite)
    {
        for (int i = 0; i < targets.size(); ++i)
        {
            if (input != nullptr && isSameFile (*input, targets[i]))
                throw CliError (ExitCode::outputUnwritable, "refusing to write " + quoted (targets[i]) + ": it is the input file");

            for (int j = 0; j < i; ++j)
                if (isSameFile (targets[i], targets[j]))
                    throw CliError (ExitCode::badUsage, quoted (targets[i]) + " is given for two different results");

            if (targets[i].exists() && ! overwrite)
                throw CliError (ExitCode::outputExists, quoted (targets[i]) + " exists; use -y/--overwrite to replace it");
        }
    }

    class Session
    {
    public:
        Session (const Options& optionsToUse, QuendaAudioProcessor& processorToUse, std::ostream& outStream, std::ostream& errStream)
            : options (optionsToUse), processor (processorToUse), out (outStream), err (errStream) {}

        void run()
        {
            if (options.demo)
                return runDemo();

            const auto inputFile = options.input.isNotEmpty() ? resolve (options.input) : juce::File();
            juce::Array<juce::File> targets;

            for (auto* path : { &options.output, &options.plotFile, &options.presetToSave })
                if (path->isNotEmpty())
                    targets.add (resolve (*path));

            checkTargets (options.input.isNotEmpty() ? &inputFile : nullptr, targets, options.overwrite);

            // Settings are fixed before rendering changes the processor's play state.
            juce::MemoryBlock state;
            processor.getStateInformation (state);
            auto sampleRate = plotSampleRate;

            if (options.input.isNotEmpty())
                sampleRate = renderFile (inputFile, resolve (options.output));

            if (options.plotFile.isNotEmpty())
            {
                writeResponsePlot (processor, sampleRate, resolve (options.plotFile), options.overwrite);
                note ("wrote " + resolve (options.plotFile).getFullPathName());
            }

            if (options.presetToSave.isNotEmpty())
            {
                writeFileSafely (resolve (options.presetToSave), state, options.overwrite);
                note ("wrote " + resolve (options.presetToSave).getFullPathName());
            }
        }

    private:
        void note (const juce::String& message)
        {
            if (! options.quiet)
                err << "quenda-render: " << message << "\n";
        }

        void detail (const juce::String& message)
        {
            if (options.verbose && ! options.quiet)
                err << "  " << message << "\n";
        }

        double renderFile (const juce::File& inputFile, const juce::File& outputFile)
        {
            InputAudio input (inputFile);
            const auto format = chooseOutputFormat (outputFile, options.bitDepth, input.bitsPerSample(), input.isFloat());
            const auto sampleRate = input.sampleRate();
            const auto seconds = (double) input.length() / sampleRate;

            detail ("input:    " + inputFile.getFullPathName() + ": " + input.formatName() + ", "
                    + juce::String (sampleRate, 0) + " Hz, " + juce::String (input.numChannels()) + " channel(s), "
                    + (input.isFloat() ? juce::String ("float") : juce::String (input.bitsPerSample()) + "-bit")
                    + ", " + juce::String (seconds, 2) + " s");
            detail ("settings: " + describeSettings (processor));

            PendingFile pending (outputFile, options.overwrite);
            Renderer renderer (processor, input.numChannels(), sampleRate, { options.blockSize, options.latencyCompensation });

            detail ("latency:  " + juce::String (renderer.getLatency()) + " samples, "
                    + (options.latencyCompensation ? "compensated" : "kept (--no-latency-compensation)")
                    + "; block size " + juce::String (options.blockSize));
            detail ("output:   " + outputFile.getFullPathName() + ": " + describeFormat (format)
                    + (format.bitDepth == 16 ? " with TPDF dither" : ""));

            AudioFileWriter writer (pending, format, sampleRate, input.numChannels());
            ProgressBar bar (err, ! options.quiet && seconds > 1.0 && stderrIsTerminal(), sampleRate);

            renderer.run (input.length(),
                          [&] (juce::AudioBuffer<float>& block, juce::int64 position, int count) { input.read (block, position, count); },
                          [&] (const juce::AudioBuffer<float>& block, int start, int count) { writer.write (block, start, count); },
                          [&] (juce::int64 done, juce::int64 total) { bar.update (done, total); });

            bar.finish();
            writer.close();
            input.checkUnchanged();
            pending.commit();

            juce::String summary;
            summary << "wrote " << outputFile.getFullPathName() << " (" << juce::String (seconds, 2) << " s, "
                    << juce::String (sampleRate, 0) << " Hz, " << (input.numChannels() == 1 ? "mono" : "stereo") << ", "
                    << describeFormat (format) << "): peak " << decibels (writer.peak()) << ", "
                    << juce::String (writer.clippedSamples()) << " clipped samples";

            if (writer.clippedSamples() > 0)
                summary << " (lower --trim to avoid clipping)";

            note (summary);
            return sampleRate;
        }

        void writeBuffer (const juce::AudioBuffer<float>& audio, double sampleRate, const juce::File& target)
        {
            PendingFile pending (target, options.overwrite);
            OutputFormat format;
            format.format = std::make_unique<juce::WavAudioFormat>();
            format.bitDepth = 24;

            AudioFileWriter writer (pending, format, sampleRate, audio.getNumChannels());
            writer.write (audio, 0, audio.getNumSamples());
            writer.close();
            pending.commit();
            note ("wrote " + target.getFullPathName());
        }

        void runDemo()
        {
            const auto folder = resolve (options.demoFolder);

            if (folder.existsAsFile())
                throw CliError (ExitCode::outputUnwritable, "demo folder " + quoted (folder) + " is a file");

            if (! folder.isDirectory() && ! folder.createDirectory().wasOk())
                throw CliError (ExitCode::outputUnwritable, "cannot create the demo folder " + quoted (folder));

            const auto original = folder.getChildFile ("demo-original.wav");
            const auto processed = folder.getChildFile ("demo-processed.wav");
            const auto plot = folder.getChildFile ("response.png");
            checkTargets (nullptr, { original, processed, plot }, options.overwrite);

            // Without settings of the user's own, a full rising tilt: brighter, easy to hear.
            if (options.parameterValues.empty() && options.presetToLoad.isEmpty())
            {
                applySettings (processor, [] {
                    Options demoSettings;
                    demoSettings.parameterValues = { { "tilt", -1.0f }, { "lin_phase", 1.0f } };
                    return demoSettings;
                }());
            }

            constexpr double sampleRate = 48000.0;
            const auto signal = makeDemoSignal (sampleRate);
            auto renderProcessor = cloneProcessor (processor);
            const auto result = renderBuffer (*renderProcessor, signal, sampleRate, { options.blockSize, options.latencyCompensation });

            writeBuffer (signal, sampleRate, original);
            writeBuffer (result, sampleRate, processed);
            writeResponsePlot (processor, sampleRate, plot, options.overwrite);
            note ("wrote " + plot.getFullPathName());

            out << "Demo settings: " << describeSettings (processor) << "\n\n"
                << "Octave band   before     after    change\n";

            const auto before = octaveBandLevels (signal, sampleRate);
            const auto after = octaveBandLevels (result, sampleRate);

            for (size_t i = 0; i < before.size(); ++i)
            {
                const auto centre = before[i].centre;
                const auto label = centre >= 1000.0 ? juce::String (centre / 1000.0) + " kHz" : juce::String (centre) + " Hz";
                out << label.paddedLeft (' ', 9) << juce::String (before[i].levelDb, 1).paddedLeft (' ', 9) << " dB"
                    << juce::String (after[i].levelDb, 1).paddedLeft (' ', 7) << " dB"
                    << ((after[i].levelDb >= before[i].levelDb ? "+" : "") + juce::String (after[i].levelDb - before[i].levelDb, 1)).paddedLeft (' ', 7)
                    << " dB\n";
            }
        }

        const Options& options;
        QuendaAudioProcessor& processor;
        std::ostream& out;
        std::ostream& err;
    };
}

int runCommandLine (const juce::StringArray& args, std::ostream& out, std::ostream& err)
{
    try
    {
        QuendaAudioProcessor processor;
        const auto parameters = describeParameters();
        const auto options = parseOptions (args, parameters);

        if (options.help)
        {
            out << helpText (parameters);
            return 0;
        }

        if (options.version)
        {
            out << versionText();
            return 0;
        }

        if (options.listParameters)
        {
            out << parameterList (parameters, options.json);
            return 0;
        }

        applySettings (processor, options);
        Session (options, processor, out, err).run();
        return 0;
    }
    catch (const CliError& error)
    {
        err << "quenda-render: " << error.what() << "\n";

        if (error.code == ExitCode::badUsage)
            err << "Try 'quenda-render --help'.\n";

        return (int) error.code;
    }
    catch (const std::exception& error)
    {
        err << "quenda-render: internal error: " << error.what() << "\n";
        return (int) ExitCode::internalError;
    }
}

bool isWellFormedUtf8 (const char* bytes, size_t size) noexcept
{
    const auto* text = reinterpret_cast<const unsigned char*> (bytes);

    for (size_t i = 0; i < size;)
    {
        const auto lead = text[i];
        const auto length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xe ? 3 : (lead >> 3) == 0x1e ? 4 : 0;

        if (length == 0 || i + (size_t) length > size)
            return false;

        uint32_t codePoint = length == 1 ? lead : (uint32_t) (lead & (0x7f >> length));

        for (int k = 1; k < length; ++k)
        {
            if ((text[i + (size_t) k] & 0xc0) != 0x80)
                return false;

            codePoint = (codePoint << 6) | (uint32_t) (text[i + (size_t) k] & 0x3f);
        }

        const uint32_t shortest[] = { 0, 0, 0x80, 0x800, 0x10000 };

        if (codePoint < shortest[length] || codePoint > 0x10ffff || (codePoint >= 0xd800 && codePoint <= 0xdfff))
            return false;

        i += (size_t) length;
    }

    return true;
}
}
