// SPDX-License-Identifier: GPL-3.0-or-later
#include "Cli.h"
#include "AudioReader.h"
#include "AudioWriter.h"
#include "CliError.h"
#include "Demo.h"
#include "Loudness.h"
#include "Options.h"
#include "Pipes.h"
#include "Plot.h"
#include "Progress.h"
#include "Render.h"
#include "Version.h"

#include <atomic>
#include <cmath>
#include <sstream>
#include <thread>

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

    /** m:ss.mmm, or h:mm:ss.mmm, as players show a position. */
    juce::String timeOf (juce::int64 position, double sampleRate)
    {
        const auto millis = (juce::int64) std::floor ((double) position * 1000.0 / sampleRate);
        const auto seconds = millis / 1000, minutes = seconds / 60, hours = minutes / 60;
        const auto two = [] (juce::int64 n)
        { return juce::String (n).paddedLeft ('0', 2); };
        auto text = hours > 0 ? juce::String (hours) + ":" + two (minutes % 60) : juce::String (minutes);
        return text + ":" + two (seconds % 60) + "." + juce::String (millis % 1000).paddedLeft ('0', 3);
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

            refuseToReplace (targets[i], overwrite);
        }
    }

    /** --analyse: loudness and octave bands of what goes into the processor and what comes out. */
    struct Analysis
    {
        struct Meters
        {
            Meters (int numChannels, double sampleRate)
                : bands (numChannels, sampleRate), loudness (numChannels, sampleRate) {}

            void add (const juce::AudioBuffer<float>& block, int start, int numSamples)
            {
                bands.add (block, start, numSamples);
                loudness.add (block, start, numSamples);
            }

            OctaveBandMeter bands;
            LoudnessMeter loudness;
        };

        Analysis (int numChannels, double sampleRate)
            : before (numChannels, sampleRate), after (numChannels, sampleRate) {}

        juce::String report() const
        {
            const auto lufs = [] (double value)
            { return std::isfinite (value) ? juce::String (value, 1) + " LUFS" : juce::String ("-inf LUFS"); };
            return "Integrated loudness: " + lufs (before.loudness.integrated()) + " before, " + lufs (after.loudness.integrated())
                   + " after\n\n" + bandTable (before.bands.levels(), after.bands.levels());
        }

        Meters before, after;
    };

    /** What one file's render gives the batch's summary. */
    struct FileResult
    {
        double seconds = 0.0;
        float peak = 0.0f;
        juce::int64 clipped = 0;
        juce::String summary;
    };

    class Session
    {
    public:
        Session (const Options& optionsToUse, QuendaAudioProcessor& processorToUse, std::ostream& outStream, std::ostream& errStream)
            : options (optionsToUse), processor (processorToUse), out (outStream), err (errStream) {}

        int run()
        {
            if (options.demo)
            {
                runDemo();
                return 0;
            }

            if (options.isBatch())
                return runBatch();

            const auto fromStdin = options.input == "-";
            toStdout = options.output == "-";

            if (toStdout)
                refuseTerminalOutput();

            // The readers seek, so a piped input is kept in a temporary file first.
            std::unique_ptr<StdinSpool> spool;

            if (fromStdin)
                spool = std::make_unique<StdinSpool>();

            const auto inputFile = fromStdin ? spool->file() : options.input.isNotEmpty() ? resolve (options.input)
                                                                                          : juce::File();
            juce::Array<juce::File> targets;

            for (auto* path : { &options.output, &options.plotFile, &options.presetToSave })
                if (path->isNotEmpty() && *path != "-")
                    targets.add (resolve (*path));

            // A missing or damaged input is the first thing to hear about, before any output question.
            const auto renamed = [&] (const CliError& error)
            {
                return spool == nullptr ? error : CliError (error.code, spool->rename (error.what()));
            };

            std::unique_ptr<InputAudio> input;

            try
            {
                if (options.input.isNotEmpty())
                    input = std::make_unique<InputAudio> (inputFile);
            }
            catch (const CliError& error)
            {
                throw renamed (error);
            }

            checkTargets (options.input.isNotEmpty() && ! fromStdin ? &inputFile : nullptr, targets, options.overwrite);

            // Settings are fixed before rendering changes the processor's play state.
            juce::MemoryBlock state;
            processor.getStateInformation (state);
            auto sampleRate = plotSampleRate;

            if (input != nullptr)
            {
                try
                {
                    const auto result = renderFile (*input, toStdout ? stdoutSpoolTarget() : resolve (options.output));
                    sampleRate = result.sampleRate;
                }
                catch (const CliError& error)
                {
                    throw renamed (error);
                }
            }

            if (options.plotFile.isNotEmpty())
            {
                notes (writeResponsePlot (processor, sampleRate, resolve (options.plotFile), options.overwrite));
                note ("wrote " + resolve (options.plotFile).getFullPathName());
            }

            if (options.presetToSave.isNotEmpty())
            {
                notes (writeFileSafely (resolve (options.presetToSave), state, options.overwrite));
                note ("wrote " + resolve (options.presetToSave).getFullPathName());
            }

            return 0;
        }

    private:
        /** Set for a batch's files: progress goes here instead of a bar of their own, and the
            summary line is returned rather than printed. */
        Renderer::Progress batchProgress;

        struct Rendered : FileResult
        {
            double sampleRate = 0.0;
        };

        bool toStdout = false;

        void note (const juce::String& message)
        {
            if (! options.quiet)
                err << "quenda-render: " << message << "\n";
        }

        void notes (const juce::StringArray& messages)
        {
            for (const auto& message : messages)
                note (message);
        }

        void warn (const juce::String& message)
        {
            if (! options.quiet)
                err << "quenda-render: warning: " << message << "\n";
        }

        void detail (const juce::String& message)
        {
            if (options.verbose && ! options.quiet)
                err << "  " << message << "\n";
        }

        Rendered renderFile (const juce::File& inputFile, const juce::File& outputFile)
        {
            InputAudio input (inputFile);
            return renderFile (input, outputFile);
        }

        Rendered renderFile (InputAudio& input, const juce::File& outputFile)
        {
            const auto& inputFile = input.file;

            for (const auto& repair : input.warnings())
                warn (repair);

            auto format = chooseOutputFormat (outputFile, options.bitDepth, input.bitsPerSample(), input.isFloat());
            format.dither = options.dither;

            if (input.bitsPerSample() > 32 && format.bitDepth == 32 && options.bitDepth == 0)
                note (juce::String (input.bitsPerSample()) + "-bit float input: the output is 32-bit float, the precision Quenda processes at");

            const auto sampleRate = input.sampleRate();
            const auto seconds = (double) input.length() / sampleRate;
            const auto inputName = options.input == "-" ? juce::String ("standard input") : inputFile.getFullPathName();
            const auto outputName = toStdout ? juce::String ("standard output") : outputFile.getFullPathName();

            detail ("input:    " + inputName + ": " + input.formatName() + ", "
                    + juce::String (sampleRate, 0) + " Hz, " + juce::String (input.numChannels()) + " channel(s), "
                    + (input.isFloat() ? juce::String ("float") : juce::String (input.bitsPerSample()) + "-bit")
                    + ", " + juce::String (seconds, 2) + " s");
            warnAboutCorners (sampleRate);

            if (options.matchLoudness)
                matchLoudness (input);

            detail ("settings: " + describeSettings (processor));

            PendingFile pending (outputFile, options.overwrite || toStdout);
            Renderer renderer (processor, input.numChannels(), sampleRate, { options.blockSize, options.latencyCompensation });

            detail ("latency:  " + juce::String (renderer.getLatency()) + " samples, "
                    + (options.latencyCompensation ? "compensated" : "kept (--no-latency-compensation)")
                    + "; block size " + juce::String (options.blockSize));
            detail ("output:   " + outputName + ": " + describeFormat (format)
                    + (format.bitDepth == 16 && format.dither ? " with TPDF dither" : ""));

            AudioFileWriter writer (pending, format, sampleRate, input.numChannels());
            ProgressBar bar (err, ! options.quiet && ! toStdout && ! batchProgress && seconds > 1.0 && stderrIsTerminal(), sampleRate);

            auto analysis = options.analyse ? std::make_unique<Analysis> (input.numChannels(), sampleRate) : nullptr;

            renderer.run (
                input.length(),
                [&] (juce::AudioBuffer<float>& block, juce::int64 position, int count)
                {
                    input.read (block, position, count);

                    if (analysis != nullptr)
                        analysis->before.add (block, 0, count);
                },
                [&] (const juce::AudioBuffer<float>& block, int start, int count)
                {
                    writer.write (block, start, count);

                    if (analysis != nullptr)
                        analysis->after.add (block, start, count);
                },
                [&] (juce::int64 done, juce::int64 total)
                {
                    if (batchProgress)
                        batchProgress (done, total);
                    else
                        bar.update (done, total);
                });

            bar.finish();
            writer.close();
            input.checkUnchanged();

            if (toStdout)
                copyToStdout (pending.temporary());
            else
                pending.commit();

            notes (pending.notices());

            if (const auto& bad = input.nonFinite(); bad.count > 0)
                warn (juce::String (bad.count) + " non-finite sample" + (bad.count == 1 ? "" : "s") + " replaced by silence, first at "
                      + timeOf (bad.firstPosition, sampleRate)
                      + (input.numChannels() == 2 ? (bad.firstChannel == 0 ? " (left)" : " (right)") : ""));

            juce::String summary;
            summary << "wrote " << outputName << " (" << juce::String (seconds, 2) << " s, "
                    << juce::String (sampleRate, 0) << " Hz, " << (input.numChannels() == 1 ? "mono" : "stereo") << ", "
                    << describeFormat (format) << "): peak " << decibels (writer.peak()) << ", ";

            // A float file keeps what lies beyond full scale; only an integer format clips.
            if (format.bitDepth == 32)
                summary << juce::String (writer.samplesOverFullScale()) << " samples over 0 dBFS";
            else
                summary << juce::String (writer.clippedSamples()) << " clipped samples";

            if (writer.clippedSamples() > 0)
                summary << " (lower --trim to avoid clipping)";

            if (! batchProgress)
                note (summary);

            Rendered result;
            result.sampleRate = sampleRate;
            result.seconds = seconds;
            result.peak = writer.peak();
            result.clipped = writer.clippedSamples();
            result.summary = summary;

            // Standard output may be the audio itself.
            if (analysis != nullptr)
                (toStdout ? err : out) << "Analysis of " << inputName << "\n"
                                       << "Settings: " << describeSettings (processor) << "\n"
                                       << analysis->report();

            return result;
        }

        /** The shelves' corners are limited below the file's Nyquist frequency. */
        void warnAboutCorners (double sampleRate)
        {
            const auto values = processor.getParameterValues();
            const auto limit = 0.49 * sampleRate;

            for (auto [corner, gain, option] : { std::tuple { ParameterTable::lowFreqIndex, ParameterTable::lowIndex, "--low-freq" },
                                                 std::tuple { ParameterTable::highFreqIndex, ParameterTable::highIndex, "--high-freq" } })
            {
                if (values[corner] > limit && values[gain] != 0.0f)
                    note ("warning: " + juce::String (option) + " " + juce::String (values[corner], 0) + " Hz is above what "
                          + juce::String (sampleRate, 0) + " Hz audio holds (Nyquist " + juce::String (sampleRate / 2.0, 0)
                          + " Hz); the shelf is set at " + juce::String (limit, 0) + " Hz instead");
            }
        }

        /** A render measured but not written, to find the trim that gives the output the
            input's integrated loudness; the trim is a plain gain after everything else. */
        void matchLoudness (InputAudio& input)
        {
            const auto values = processor.getParameterValues();

            if (values[ParameterTable::bypassIndex] >= 0.5f)
            {
                note ("--match-loudness: bypassed, so the output keeps the input's loudness");
                return;
            }

            LoudnessMeter before (input.numChannels(), input.sampleRate()), after (input.numChannels(), input.sampleRate());
            Renderer renderer (processor, input.numChannels(), input.sampleRate(), { options.blockSize, options.latencyCompensation });

            renderer.run (
                input.length(),
                [&] (juce::AudioBuffer<float>& block, juce::int64 position, int count)
                {
                    input.read (block, position, count);
                    before.add (block, 0, count);
                },
                [&] (const juce::AudioBuffer<float>& block, int start, int count)
                { after.add (block, start, count); });

            const auto target = before.integrated(), measured = after.integrated();

            if (! std::isfinite (target) || ! std::isfinite (measured))
            {
                note ("warning: --match-loudness: the audio is too short or quiet to measure (under 0.4 s or"
                      " below -70 LUFS); the trim stays at "
                      + juce::String (values[ParameterTable::trimIndex], 2) + " dB");
                return;
            }

            const auto trim = values[ParameterTable::trimIndex] + (float) (target - measured);
            Options trimOnly;
            trimOnly.parameterValues = { { "trim", trim } };
            applySettings (processor, trimOnly);

            note ("--match-loudness: input " + juce::String (target, 1) + " LUFS; trim set to "
                  + juce::String (trim, 2) + " dB" + (std::abs (trim) > 6.0f ? " (beyond the editor's -6 .. 6 dB)" : ""));
        }

        /** Every input into the output folder under its own name, several at once, each
            through renderFile with a processor of its own. */
        int runBatch()
        {
            const auto folder = resolve (options.outputFolder);

            std::vector<juce::File> inputs, outputs;

            for (auto& name : options.batchInputs)
            {
                const auto input = resolve (name);
                const auto extension = options.outputExtension.isNotEmpty() ? options.outputExtension : input.getFileExtension().toLowerCase();
                inputs.push_back (input);
                outputs.push_back (folder.getChildFile (input.getFileNameWithoutExtension() + options.suffix + extension));
            }

            // Results that would land on an input or on each other are refused before any work.
            for (size_t i = 0; i < outputs.size(); ++i)
            {
                for (auto& input : inputs)
                    if (input.existsAsFile() && isSameFile (input, outputs[i]))
                        throw CliError (ExitCode::outputUnwritable, "refusing to write " + quoted (outputs[i])
                                                                        + ": it is an input file (use --suffix or another folder)");

                for (size_t j = 0; j < i; ++j)
                    if (isSameFile (outputs[i], outputs[j]))
                        throw CliError (ExitCode::badUsage, quoted (inputs[j]) + " and " + quoted (inputs[i])
                                                                + " would both be written to " + quoted (outputs[i]));
            }

            if (folder.existsAsFile())
                throw CliError (ExitCode::outputUnwritable, "output folder " + quoted (folder) + " is a file");

            // "a.wav b.wav -o mix.wav" is more likely a slip than a wish for a folder of that name.
            if (! folder.exists() && juce::StringArray { ".wav", ".wave", ".aif", ".aiff", ".flac" }.contains (folder.getFileExtension().toLowerCase()))
                throw CliError (ExitCode::badUsage, "several inputs go into a folder, and " + quoted (folder)
                                                        + " looks like a file name; give a folder (it is created)");

            if (! folder.isDirectory() && ! folder.createDirectory().wasOk())
                throw CliError (ExitCode::outputUnwritable, "cannot create the output folder " + quoted (folder));

            const auto numFiles = (int) inputs.size();
            const auto numJobs = std::min (numFiles, options.jobs > 0 ? options.jobs : std::min (64, juce::SystemStats::getNumCpus()));

            // Made here, on the message thread, so that they are also deleted here.
            std::vector<std::unique_ptr<QuendaAudioProcessor>> processors;

            for (int j = 0; j < numJobs; ++j)
                processors.push_back (cloneProcessor (processor));

            struct Outcome
            {
                FileResult result;
                int code = 0;
                juce::String error, messages, report;
            };

            std::vector<Outcome> outcomes ((size_t) numFiles);
            std::unique_ptr<std::atomic<float>[]> fractions (new std::atomic<float>[(size_t) numFiles]);
            std::atomic<int> nextFile { 0 }, finished { 0 };

            for (int i = 0; i < numFiles; ++i)
                fractions[(size_t) i] = 0.0f;

            const auto work = [&] (QuendaAudioProcessor& jobProcessor)
            {
                for (int i; (i = nextFile++) < numFiles;)
                {
                    auto& outcome = outcomes[(size_t) i];
                    std::ostringstream jobOut, jobErr;
                    Session job (options, jobProcessor, jobOut, jobErr);
                    job.batchProgress = [&fractions, i] (juce::int64 done, juce::int64 total)
                    {
                        fractions[(size_t) i] = total > 0 ? (float) done / (float) total : 1.0f;
                    };

                    try
                    {
                        outcome.result = job.renderFile (inputs[(size_t) i], outputs[(size_t) i]);
                    }
                    catch (const CliError& error)
                    {
                        outcome.code = (int) error.code;
                        outcome.error = error.what();
                    }
                    catch (const std::exception& error)
                    {
                        outcome.code = (int) ExitCode::internalError;
                        outcome.error = juce::String ("internal error: ") + error.what();
                    }

                    outcome.messages = jobErr.str();
                    outcome.report = jobOut.str();
                    fractions[(size_t) i] = 1.0f;
                    ++finished;
                }
            };

            const auto start = juce::Time::getMillisecondCounterHiRes();
            std::vector<std::thread> threads;

            for (auto& jobProcessor : processors)
                threads.emplace_back (work, std::ref (*jobProcessor));

            const auto drawProgress = ! options.quiet && stderrIsTerminal();

            // Drawn at once, then ten times a second until every file is done.
            for (;;)
            {
                const auto done = finished.load();

                if (drawProgress)
                {
                    double fraction = 0.0;

                    for (int i = 0; i < numFiles; ++i)
                        fraction += (double) fractions[(size_t) i] / numFiles;

                    err << "\r" << batchProgressLine (done, numFiles, fraction, (juce::Time::getMillisecondCounterHiRes() - start) / 1000.0)
                        << "\x1b[K" << std::flush;
                }

                if (done == numFiles)
                    break;

                std::this_thread::sleep_for (std::chrono::milliseconds (100));
            }

            for (auto& thread : threads)
                thread.join();

            if (drawProgress)
                err << "\r\x1b[K" << std::flush;

            // Input order, whatever order they finished in.
            int failed = 0, firstCode = 0;
            const auto nameWidth = juce::jlimit (5, 40, [&]
                                                            {
                int widest = 0;
                for (auto& input : inputs)
                    widest = std::max (widest, input.getFileName().length());
                return widest; }()
                                                            + 2);

            juce::String table;
            table << juce::String ("input").paddedRight (' ', nameWidth) << juce::String ("result").paddedRight (' ', 8)
                  << juce::String ("length").paddedLeft (' ', 10) << juce::String ("peak").paddedLeft (' ', 13) << "  output or error\n";

            for (int i = 0; i < numFiles; ++i)
            {
                const auto& outcome = outcomes[(size_t) i];
                const auto name = inputs[(size_t) i].getFileName();
                juce::String line = name.paddedRight (' ', nameWidth);

                if (outcome.code == 0)
                {
                    line << juce::String ("ok").paddedRight (' ', 8) << (juce::String (outcome.result.seconds, 2) + " s").paddedLeft (' ', 10)
                         << decibels (outcome.result.peak).paddedLeft (' ', 13) << "  " << outputs[(size_t) i].getFullPathName();

                    if (outcome.result.clipped > 0)
                        line << " (" << juce::String (outcome.result.clipped) << " clipped samples)";
                }
                else
                {
                    ++failed;
                    firstCode = firstCode != 0 ? firstCode : outcome.code;
                    line << juce::String ("FAILED").paddedRight (' ', 8) << juce::String().paddedLeft (' ', 23) << "  "
                         << outcome.error << " (exit " << outcome.code << ")";
                }

                // Errors are shown even when quiet.
                if (outcome.code != 0 || ! options.quiet)
                    table << line << "\n";

                for (auto& message : juce::StringArray::fromLines (outcome.messages))
                    if (message.isNotEmpty())
                        table << "    " << name << ": " << (message.startsWith ("quenda-render: ") ? message.substring (15) : message.trim()) << "\n";

                out << outcome.report;
            }

            if (! options.quiet || failed > 0)
                err << table << "quenda-render: " << (numFiles - failed) << " of " << numFiles << " files written to "
                    << folder.getFullPathName() << " (" << numJobs << " at once, "
                    << juce::String ((juce::Time::getMillisecondCounterHiRes() - start) / 1000.0, 1) << " s)"
                    << (failed > 0 ? ", " + juce::String (failed) + " failed" : juce::String()) << "\n";

            return firstCode;
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
            notes (pending.notices());
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
                applySettings (processor, []
                               {
                    Options demoSettings;
                    demoSettings.parameterValues = { { "tilt", -1.0f }, { "lin_phase", 1.0f } };
                    return demoSettings; }());
            }

            constexpr double sampleRate = 48000.0;
            const auto signal = makeDemoSignal (sampleRate);
            auto renderProcessor = cloneProcessor (processor);
            const auto result = renderBuffer (*renderProcessor, signal, sampleRate, { options.blockSize, options.latencyCompensation });

            writeBuffer (signal, sampleRate, original);
            writeBuffer (result, sampleRate, processed);
            notes (writeResponsePlot (processor, sampleRate, plot, options.overwrite));
            note ("wrote " + plot.getFullPathName());

            out << "Demo settings: " << describeSettings (processor) << "\n\n"
                << bandTable (octaveBandLevels (signal, sampleRate), octaveBandLevels (result, sampleRate));
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
        auto options = parseOptions (args, parameters);

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

        // An existing folder as the output takes the input under its own name.
        if (! options.isBatch() && options.input.isNotEmpty() && options.output != "-" && resolve (options.output).isDirectory())
            makeBatch (options, options.output, { options.input });

        if (! options.isBatch() && (options.suffix.isNotEmpty() || options.outputExtension.isNotEmpty()))
            throw CliError (ExitCode::badUsage, "--suffix and --format name the files of a batch: give -o FOLDER or --output-dir");

        applySettings (processor, options);
        return Session (options, processor, out, err).run();
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
        const auto length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2
                                          : (lead >> 4) == 0xe   ? 3
                                          : (lead >> 3) == 0x1e  ? 4
                                                                 : 0;

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
