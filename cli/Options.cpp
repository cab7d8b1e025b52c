// SPDX-License-Identifier: GPL-3.0-or-later
#include "Options.h"
#include "CliError.h"
#include "plugin/ParameterTable.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace cli
{
namespace
{
    juce::String toString (std::string_view text)
    {
        return juce::String (text.data(), text.size());
    }

    juce::String formatValue (float value)
    {
        return juce::String (value, 2).trimCharactersAtEnd ("0").trimCharactersAtEnd (".");
    }

    std::optional<bool> parseSwitch (const juce::String& text)
    {
        const auto lower = text.trim().toLowerCase();

        if (lower == "1" || lower == "on" || lower == "true" || lower == "yes")
            return true;

        if (lower == "0" || lower == "off" || lower == "false" || lower == "no")
            return false;

        return std::nullopt;
    }

    [[noreturn]] void fail (const juce::String& message)
    {
        throw CliError (ExitCode::badUsage, message);
    }

    const ParameterInfo* findParameter (const std::vector<ParameterInfo>& parameters, const juce::String& id)
    {
        for (auto& parameter : parameters)
            if (parameter.id == id || parameter.id == id.replaceCharacter ('-', '_'))
                return &parameter;

        return nullptr;
    }

    float parameterValue (const ParameterInfo& parameter, const juce::String& text, const juce::String& option)
    {
        if (parameter.isSwitch)
        {
            if (const auto on = parseSwitch (text))
                return *on ? 1.0f : 0.0f;

            fail (option + ": '" + text + "' is not on/off (or 1/0, true/false, yes/no)");
        }

        auto number = parseNumber (text);

        // Frequencies as the editor takes them: "9k", "0.12k", "120 Hz", "9 kHz".
        if (! number && parameter.unit == "Hz")
        {
            auto digits = text.trim();

            if (digits.endsWithIgnoreCase ("hz"))
                digits = digits.dropLastCharacters (2).trimEnd();

            if (digits.endsWithIgnoreCase ("k"))
            {
                if (const auto thousands = parseNumber (digits.dropLastCharacters (1)))
                    number = *thousands * 1000.0;
            }
            else
            {
                number = parseNumber (digits);
            }
        }

        if (! number)
            fail (option + ": '" + text + "' is not a number");

        if (*number < parameter.minimum || *number > parameter.maximum)
            fail (option + ": " + text + " is outside " + formatValue (parameter.minimum) + " .. "
                  + formatValue (parameter.maximum) + (parameter.unit.isEmpty() ? "" : " " + parameter.unit));

        return (float) *number;
    }

    int integerIn (const juce::String& option, const juce::String& text, int minimum, int maximum)
    {
        const auto number = parseNumber (text);

        if (! number || *number != std::floor (*number) || *number < minimum || *number > maximum)
            fail (option + ": '" + text + "' is not a whole number from " + juce::String (minimum)
                  + " to " + juce::String (maximum));

        return (int) *number;
    }

    /** Walks the arguments; options may be given as "--name value" or "--name=value", and
        short ones bundled: "-qy" is "-q -y", "-j4" is "-j 4". */
    class ArgumentReader
    {
    public:
        explicit ArgumentReader (const juce::StringArray& argsToRead)
            : args (argsToRead) {}

        bool atEnd() const { return bundle.isEmpty() && index >= args.size(); }
        juce::String peek() const { return bundle.isNotEmpty() ? bundle : index < args.size() ? args[index]
                                                                                              : juce::String(); }

        juce::String next()
        {
            attached.reset();
            auto arg = bundle.isNotEmpty() ? std::exchange (bundle, {}) : args[index++];

            if (arg.startsWith ("--") && arg.containsChar ('='))
            {
                attached = arg.fromFirstOccurrenceOf ("=", false, false);
                arg = arg.upToFirstOccurrenceOf ("=", false, false);
            }
            else if (arg.length() > 2 && arg[0] == '-' && juce::CharacterFunctions::isLetter (arg[1]))
            {
                const auto rest = arg.substring (2);
                arg = arg.substring (0, 2);

                if (juce::String ("ioj").containsChar (arg[1]))
                    attached = rest;
                else
                    bundle = "-" + rest;
            }

            return arg;
        }

        bool hasAttachedValue() const { return attached.has_value(); }

        /** The option's value; the next argument is taken even if it starts with '-',
            so that "--tilt -0.5" works. */
        juce::String value (const juce::String& option)
        {
            if (attached)
                return *std::exchange (attached, std::nullopt);

            if (index >= args.size())
                fail (option + " needs a value");

            return args[index++];
        }

        void rejectAttachedValue (const juce::String& option) const
        {
            if (attached)
                fail (option + " takes no value");
        }

    private:
        const juce::StringArray& args;
        int index = 0;
        std::optional<juce::String> attached;
        juce::String bundle;   // the rest of "-qy" after "-q"
    };
}

std::optional<double> parseNumber (const juce::String& text)
{
    const auto trimmed = text.trim().toStdString();

    if (trimmed.empty())
        return std::nullopt;

    errno = 0;
    char* end = nullptr;
    const auto value = std::strtod (trimmed.c_str(), &end);

    if (end != trimmed.c_str() + trimmed.size() || errno == ERANGE || ! std::isfinite (value))
        return std::nullopt;

    return value;
}

std::vector<ParameterInfo> describeParameters()
{
    std::vector<ParameterInfo> result;

    for (const auto& entry : ParameterTable::entries)
    {
        ParameterInfo info;
        info.id = toString (entry.id);
        info.name = toString (entry.name);
        info.unit = toString (entry.unit);
        info.isSwitch = entry.isSwitch;
        info.defaultValue = entry.isSwitch ? (entry.isOn (entry.defaultValue) ? 1.0f : 0.0f) : entry.defaultValue;
        info.minimum = entry.minimum;
        info.maximum = entry.maximum;
        result.push_back (info);
    }

    return result;
}

void makeBatch (Options& options, const juce::String& folder, const juce::StringArray& inputs)
{
    options.outputFolder = folder;
    options.input = {};
    options.output = {};
    options.batchInputs = inputs;

    if (options.batchInputs.isEmpty())
        fail ("missing INPUT files for the folder '" + folder + "'");

    if (options.batchInputs.contains ("-") || folder == "-")
        fail ("standard input and output take one file, not a batch");

    if (options.demo || options.presetToSave.isNotEmpty() || options.plotFile.isNotEmpty())
        fail ("a batch takes no --demo, --plot or --save-preset; run them on their own");
}

Options parseOptions (const juce::StringArray& args, const std::vector<ParameterInfo>& parameters)
{
    Options options;
    juce::StringArray positional;
    ArgumentReader reader (args);
    bool optionsEnded = false;

    while (! reader.atEnd())
    {
        if (optionsEnded || ! reader.peek().startsWith ("-") || reader.peek() == "-")
        {
            positional.add (reader.next());
            continue;
        }

        const auto option = reader.next();

        const auto flag = [&] (bool& target)
        {
            reader.rejectAttachedValue (option);
            target = true;
        };

        if (option == "--")
            optionsEnded = true;
        else if (option == "-h" || option == "--help")
            flag (options.help);
        else if (option == "-V" || option == "--version")
            flag (options.version);
        else if (option == "-i" || option == "--input")
            options.input = reader.value (option);
        else if (option == "-o" || option == "--output")
            options.output = reader.value (option);
        else if (option == "--output-dir")
            options.outputFolder = reader.value (option);
        else if (option == "--suffix")
            options.suffix = reader.value (option);
        else if (option == "-j" || option == "--jobs")
            options.jobs = integerIn (option, reader.value (option), 1, 64);
        else if (option == "--analyse" || option == "--analyze")
            flag (options.analyse);
        else if (option == "--match-loudness")
            flag (options.matchLoudness);
        else if (option == "-y" || option == "--overwrite")
            flag (options.overwrite);
        else if (option == "-q" || option == "--quiet")
            flag (options.quiet);
        else if (option == "-v" || option == "--verbose")
            flag (options.verbose);
        else if (option == "--list-params")
            flag (options.listParameters);
        else if (option == "--json")
            flag (options.json);
        else if (option == "--preset")
            options.presetToLoad = reader.value (option);
        else if (option == "--save-preset")
            options.presetToSave = reader.value (option);
        else if (option == "--plot")
            options.plotFile = reader.value (option);
        else if (option == "--no-latency-compensation")
        {
            reader.rejectAttachedValue (option);
            options.latencyCompensation = false;
        }
        else if (option == "--block-size")
        {
            options.blockSize = integerIn (option, reader.value (option), 1, 65536);
        }
        else if (option == "--bit-depth")
        {
            const auto text = reader.value (option);
            const auto bits = parseNumber (text);

            if (! bits || (*bits != 16 && *bits != 24 && *bits != 32))
                fail (option + ": '" + text + "' is not 16, 24 or 32 (32 = float)");

            options.bitDepth = (int) *bits;
        }
        else if (option == "--format")
        {
            const auto text = reader.value (option);
            const auto extension = "." + text.trimCharactersAtStart (".").toLowerCase();

            if (! juce::StringArray { ".wav", ".aif", ".aiff", ".flac" }.contains (extension))
                fail (option + ": '" + text + "' is not wav, aiff or flac");

            options.outputExtension = extension;
        }
        else if (option == "--dither")
        {
            const auto text = reader.value (option);

            if (text != "tpdf" && text != "none")
                fail (option + ": '" + text + "' is not tpdf or none");

            options.dither = text == "tpdf";
        }
        else if (option == "--demo")
        {
            options.demo = true;

            if (reader.hasAttachedValue())
                options.demoFolder = reader.value (option);
            else if (! reader.atEnd() && ! reader.peek().startsWith ("-"))
                options.demoFolder = reader.value (option);
        }
        else if (option == "--param")
        {
            const auto setting = reader.value (option);
            const auto id = setting.upToFirstOccurrenceOf ("=", false, false).trim();

            if (! setting.containsChar ('='))
                fail ("--param: '" + setting + "' is not ID=VALUE");

            const auto* parameter = findParameter (parameters, id);

            if (parameter == nullptr)
                fail ("--param: unknown parameter '" + id + "' (see --list-params)");

            options.parameterValues.emplace_back (parameter->id,
                                                  parameterValue (*parameter, setting.fromFirstOccurrenceOf ("=", false, false),
                                                                  "--param " + id));
        }
        else if (const auto* parameter = option.startsWith ("--") ? findParameter (parameters, option.substring (2)) : nullptr)
        {
            if (parameter->isSwitch && ! reader.hasAttachedValue())
                options.parameterValues.emplace_back (parameter->id, 1.0f);
            else
                options.parameterValues.emplace_back (parameter->id, parameterValue (*parameter, reader.value (option), option));
        }
        else if (const auto* negated = option.startsWith ("--no-") ? findParameter (parameters, option.substring (5)) : nullptr;
                 negated != nullptr && negated->isSwitch)
        {
            reader.rejectAttachedValue (option);
            options.parameterValues.emplace_back (negated->id, 0.0f);
        }
        else
        {
            fail ("unknown option '" + option + "' (see --help)");
        }
    }

    // Several inputs, or an output folder: a batch, every input rendered into the folder.
    if (options.outputFolder.isNotEmpty() || (positional.size() >= 2 && options.output.isNotEmpty()))
    {
        if (options.outputFolder.isNotEmpty() && options.output.isNotEmpty())
            fail ("give either -o/--output or --output-dir, not both");

        if (options.input.isNotEmpty())
            positional.insert (0, options.input);

        options.input = {};
        makeBatch (options, options.outputFolder.isNotEmpty() ? options.outputFolder : options.output, positional);
        return options;
    }

    if (positional.size() > 2)
        fail ("too many file names: '" + positional[2] + "' (for several inputs give -o FOLDER)");

    if (positional.size() >= 1)
    {
        if (options.input.isNotEmpty())
            fail ("INPUT given twice: '" + options.input + "' and '" + positional[0] + "'");

        options.input = positional[0];
    }

    if (positional.size() == 2)
    {
        if (options.output.isNotEmpty())
            fail ("OUTPUT given twice: '" + options.output + "' and '" + positional[1] + "'");

        options.output = positional[1];
    }

    if (options.help || options.version || options.listParameters)
        return options;

    if (options.json)
        fail ("--json goes with --list-params");

    if (options.demo && (options.input.isNotEmpty() || options.output.isNotEmpty()))
        fail ("--demo renders its own signal and takes no INPUT or OUTPUT");

    if (options.input.isNotEmpty() && options.output.isEmpty())
        fail ("missing OUTPUT file after '" + options.input + "'");

    if (options.output.isNotEmpty() && options.input.isEmpty())
        fail ("missing INPUT file for '" + options.output + "'");

    if (options.analyse && options.input.isEmpty())
        fail ("--analyse measures a render: give INPUT and OUTPUT files");

    if (options.matchLoudness && options.input.isEmpty())
        fail ("--match-loudness sets the trim for a render: give INPUT and OUTPUT files");

    if (! options.demo && options.input.isEmpty() && options.plotFile.isEmpty() && options.presetToSave.isEmpty())
        fail ("nothing to do: give INPUT and OUTPUT files, --plot, --save-preset or --demo (see --help)");

    return options;
}

juce::String parameterList (const std::vector<ParameterInfo>& parameters, bool asJson)
{
    if (asJson)
    {
        juce::Array<juce::var> list;

        for (auto& parameter : parameters)
        {
            auto entry = std::make_unique<juce::DynamicObject>();
            entry->setProperty ("id", parameter.id);
            entry->setProperty ("option", parameter.optionName());
            entry->setProperty ("name", parameter.name);
            entry->setProperty ("type", parameter.isSwitch ? "switch" : "float");
            entry->setProperty ("unit", parameter.unit);
            entry->setProperty ("default", parameter.defaultValue);
            entry->setProperty ("min", parameter.minimum);
            entry->setProperty ("max", parameter.maximum);
            list.add (juce::var (entry.release()));
        }

        return juce::JSON::toString (juce::var (list)) + "\n";
    }

    juce::String text;
    text << juce::String ("ID").paddedRight (' ', 11) << juce::String ("OPTION").paddedRight (' ', 14)
         << juce::String ("NAME").paddedRight (' ', 14) << juce::String ("DEFAULT").paddedRight (' ', 9) << "RANGE\n";

    for (auto& parameter : parameters)
    {
        const auto range = parameter.isSwitch ? juce::String ("off/on")
                                              : formatValue (parameter.minimum) + " .. " + formatValue (parameter.maximum)
                                                    + (parameter.unit.isEmpty() ? "" : " " + parameter.unit);
        const auto defaultText = parameter.isSwitch ? juce::String (parameter.defaultValue >= 0.5f ? "on" : "off")
                                                    : formatValue (parameter.defaultValue);

        text << parameter.id.paddedRight (' ', 11) << parameter.optionName().paddedRight (' ', 14)
             << parameter.name.paddedRight (' ', 14) << defaultText.paddedRight (' ', 9) << range << "\n";
    }

    return text;
}

juce::String helpText (const std::vector<ParameterInfo>& parameters)
{
    juce::String text;
    text << "Usage: quenda-render [options] INPUT OUTPUT\n"
            "       quenda-render [options] INPUT... -o FOLDER\n"
            "       quenda-render --demo [FOLDER]\n"
            "       quenda-render --list-params [--json]\n"
            "\n"
            "Runs an audio file through the Quenda equaliser (the plug-in's own processor).\n"
            "WAV, AIFF and FLAC in and out; the OUTPUT's extension picks its format. Mono or stereo.\n"
            "'-' as INPUT reads a WAV or FLAC stream from standard input; as OUTPUT, writes WAV to\n"
            "standard output.\n"
            "\n"
            "Files:\n"
            "  -i, --input FILE          input file (or the first file name)\n"
            "  -o, --output FILE         output file (or the second file name)\n"
            "  -y, --overwrite           replace OUTPUT (and --plot/--save-preset files) if they exist\n"
            "  -o FOLDER, --output-dir FOLDER\n"
            "                            a batch: every INPUT into FOLDER under its own name\n"
            "  --suffix TEXT             added to each name in FOLDER (\"_warm\": mix_warm.wav)\n"
            "  --format wav|aiff|flac    the format of the files in FOLDER (default: each input's)\n"
            "  -j, --jobs N              files rendered at once, 1 .. 64 (default: one per core)\n"
            "  --bit-depth 16|24|32      output sample format; 32 = float; default: as the input\n"
            "                            (16 bits get TPDF dither from a fixed seed)\n"
            "  --dither tpdf|none        dither at 16 bits (default tpdf); samples the settings\n"
            "                            leave on a 16-bit step are written unchanged either way\n"
            "\n"
            "Settings:\n";

    for (auto& parameter : parameters)
    {
        const auto option = parameter.optionName() + (parameter.isSwitch ? "" : " VALUE");

        text << "  " << option.paddedRight (' ', 26) << parameter.name;

        if (parameter.isSwitch)
            text << " (off by default; --no-" << parameter.id.replaceCharacter ('_', '-') << " turns it off)\n";
        else
            text << ", " << formatValue (parameter.minimum) << " .. " << formatValue (parameter.maximum)
                 << (parameter.unit.isEmpty() ? "" : " " + parameter.unit)
                 << ", default " << formatValue (parameter.defaultValue) << "\n";
    }

    text << "                            (tilt +1 falls by 1 dB per octave about 1300 Hz, -1 rises;\n"
            "                            between, that kernel is blended with the dry signal)\n"
            "                            (frequencies also as 0.12k, 9k or 9 kHz)\n"
            "  --param ID=VALUE          any parameter by its ID (see --list-params)\n"
            "  --preset FILE             load a saved state (the plug-in's own state block);\n"
            "                            options given as well override it\n"
            "  --save-preset FILE        write the resulting settings as a state block\n"
            "\n"
            "Processing:\n"
            "  --no-latency-compensation keep the processor's delay (host-like output)\n"
            "                            instead of trimming it and flushing the tail\n"
            "  --block-size N            samples per processing block, 1 .. 65536 (default 512)\n"
            "  --plot FILE.png           draw the magnitude response of the settings\n"
            "  --analyse, --analyze      print the octave band levels and the integrated loudness\n"
            "                            of the input and the output, and their change\n"
            "  --match-loudness          set the trim so that the output's integrated loudness\n"
            "                            (ITU-R BS.1770) equals the input's\n"
            "  --demo [FOLDER]           render a generated demo into FOLDER (default quenda-demo)\n"
            "  --list-params [--json]    list parameter IDs, names, defaults and ranges\n"
            "\n"
            "Messages:\n"
            "  -q, --quiet               errors only\n"
            "  -v, --verbose             also formats, settings and latency\n"
            "  -h, --help                this text\n"
            "  -V, --version             the version (and the build's git hash)\n"
            "\n"
            "Exit status (of a batch: the first file that failed):\n"
            "  0    success\n"
            "  1    internal error\n"
            "  2    bad usage: unknown option, missing or out-of-range value\n"
            "  3    input or preset file missing or unreadable\n"
            "  4    unsupported or corrupt format (not WAV/AIFF/FLAC, truncated, over 2 channels)\n"
            "  5    output cannot be written (folder missing or read-only, disk full, same as input)\n"
            "  6    output exists and --overwrite was not given\n"
            "  130  interrupted; no partial output is left\n";

    return text;
}
}
