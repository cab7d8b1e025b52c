// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <juce_audio_processors/juce_audio_processors.h>

#include <optional>
#include <utility>
#include <vector>

namespace cli
{
/** What the command line knows about one of the processor's parameters. */
struct ParameterInfo
{
    juce::String id;   // as hosts and saved states name it, e.g. "low_freq"
    juce::String name;
    juce::String unit;
    bool isSwitch = false;
    float defaultValue = 0.0f;
    float minimum = 0.0f;
    float maximum = 1.0f;

    /** "--low-freq" for "low_freq". */
    juce::String optionName() const { return "--" + id.replaceCharacter ('_', '-'); }
};

/** Read from the processor's parameter table, so every parameter becomes an option. */
std::vector<ParameterInfo> describeParameters();

struct Options
{
    juce::String input, output;   // "-" is standard input / output

    // A batch: every input rendered into one folder under its own name.
    juce::StringArray batchInputs;
    juce::String outputFolder;
    juce::String suffix;            // added to each output's name
    juce::String outputExtension;   // ".flac"; empty: each input's own
    int jobs = 0;                   // files at once; 0: one per core

    // In command-line order, applied after the preset so that they override it.
    std::vector<std::pair<juce::String, float>> parameterValues;

    juce::String presetToLoad, presetToSave, plotFile;

    int bitDepth = 0;     // 0: follow the input
    bool dither = true;   // TPDF at 16 bits; false: plain rounding
    int blockSize = 512;
    bool latencyCompensation = true;

    bool overwrite = false;
    bool quiet = false;
    bool verbose = false;

    bool help = false;
    bool version = false;
    bool listParameters = false;
    bool json = false;
    bool demo = false;
    bool analyse = false;
    bool matchLoudness = false;
    juce::String demoFolder = "quenda-demo";

    bool rendersFile() const { return input.isNotEmpty(); }
    bool isBatch() const { return outputFolder.isNotEmpty(); }
};

/** Throws CliError (badUsage) with a one-line message for anything it cannot accept. */
Options parseOptions (const juce::StringArray& args, const std::vector<ParameterInfo>& parameters);

/** Turns the options into a batch of the inputs into the folder; throws CliError
        (badUsage) for what a batch cannot take. */
void makeBatch (Options& options, const juce::String& folder, const juce::StringArray& inputs);

juce::String helpText (const std::vector<ParameterInfo>& parameters);

/** The table --list-params prints, or its JSON form. */
juce::String parameterList (const std::vector<ParameterInfo>& parameters, bool asJson);

/** Strict: the whole text must be a finite number. */
std::optional<double> parseNumber (const juce::String& text);
}
