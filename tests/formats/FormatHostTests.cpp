// SPDX-License-Identifier: GPL-3.0-or-later
// The VST3 and LV2 builds as hosts see them, loaded by path through JUCE's own hosting
// classes: parameters and their 0..1 mapping, latency, state that crosses formats, and
// audio that must equal the VST2 build's sample for sample. On Windows (under Wine) only VST3;
// QUENDA_VST3_BUNDLE in the environment points it at an installed bundle instead of the build's.

#include "plugin/ParameterTable.h"
#include "plugin/StateBlock.h"
#include "tests/host/Vst2Host.h"
#include "tests/host/hostile/RealtimeCounters.h"
#include "tests/support/Signals.h"

#include <juce_audio_processors/juce_audio_processors.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <regex>
#include <cstdlib>

#if ! defined(_WIN32)
 #include <dlfcn.h>
#endif

namespace
{
constexpr double sampleRate = 48000.0;
constexpr int blockSize = 256;

// FFTW keeps its planner in its own globals until the process ends. Unloading the last
// bundle would unload FFTW too, planner and all: keep it, as a host does while any of
// its plug-ins uses it.
#if ! defined(_WIN32)
[[maybe_unused]] void* const fftw = dlopen ("libfftw3f.so.3", RTLD_NOW | RTLD_NODELETE);
#endif

juce::String toString (std::string_view text)
{
    return juce::String (text.data(), text.size());
}

// A state every format must carry unchanged: no value is a default, lin_phase is on.
const StateBlock::Values savedValues { -0.37f, 0.0f, 1.0f, 1.25f, -2.5f, 1.75f, 97.5f, 7200.0f };

enum class Format
{
    vst3,
    lv2
};

#if JUCE_PLUGINHOST_LV2
juce::AudioPluginFormat& lv2Format()
{
    static auto* format = []
    {
        // The host also scans the usual folders, and lilv keeps the first copy of a URI it
        // finds: an installed Quenda.lv2 would stand in for the build under test.
        const auto home = juce::File::getSpecialLocation (juce::File::tempDirectory).getChildFile ("quenda-lv2-home");
        home.createDirectory();
        setenv ("HOME", home.getFullPathName().toRawUTF8(), 1);

        for (auto* folder : { "/usr/lib/lv2", "/usr/local/lib/lv2", "/usr/lib64/lv2", "/usr/local/lib64/lv2" })
            if (juce::File (folder).getChildFile ("Quenda.lv2").exists())
                ADD_FAILURE() << "an installed " << folder << "/Quenda.lv2 shadows the build under test";

        // Once: every search makes lilv load all bundles again, and lose memory doing so.
        auto* lv2 = new juce::LV2PluginFormat();
        lv2->searchPathsForPlugins (juce::File (QUENDA_LV2_BUNDLE).getParentDirectory().getFullPathName(), false, false);
        return lv2;
    }();
    return *format;
}
#endif

juce::String vst3Identifier()
{
    // The library's folder is <bundle>/Contents/<arch>-<system>.
    const auto* installed = std::getenv ("QUENDA_VST3_BUNDLE");
    const auto bundle = installed != nullptr ? juce::File (installed)
                                             : juce::File (QUENDA_VST3_LIBRARY_FOLDER).getParentDirectory().getParentDirectory();
#if defined(_WIN32)
    // JUCE 7.0.5's host opens a Windows VST3 by its module file, not by the bundle.
    return bundle.getChildFile ("Contents").getChildFile ("x86_64-win").getChildFile (bundle.getFileName()).getFullPathName();
#else
    return bundle.getFullPathName();
#endif
}

std::unique_ptr<juce::AudioPluginInstance> load (Format format)
{
    static juce::VST3PluginFormat vst3;
#if JUCE_PLUGINHOST_LV2
    auto& host = format == Format::vst3 ? static_cast<juce::AudioPluginFormat&> (vst3) : lv2Format();
#else
    auto& host = vst3;
#endif
    const auto identifier = format == Format::lv2 ? juce::String (QUENDA_LV2_URI) : vst3Identifier();
    juce::OwnedArray<juce::PluginDescription> found;
    host.findAllTypesForFile (found, identifier);

    if (found.isEmpty())
    {
        ADD_FAILURE() << "no plug-in found at " << identifier;
        return {};
    }

    juce::String error;
    auto instance = host.createInstanceFromDescription (*found[0], sampleRate, blockSize, error);
    EXPECT_NE (nullptr, instance) << error;
    if (instance != nullptr)
        instance->prepareToPlay (sampleRate, blockSize);
    return instance;
}

void processSilence (juce::AudioPluginInstance& plugin, int blocks = 1)
{
    juce::AudioBuffer<float> buffer (2, blockSize);
    juce::MidiBuffer midi;

    for (int i = 0; i < blocks; ++i)
    {
        buffer.clear();
        plugin.processBlock (buffer, midi);
    }

    // Hosts learn of a new latency through their message thread.
    juce::MessageManager::getInstance()->runDispatchLoopUntil (20);
}

/** VST3 keeps the processor's order. JUCE's LV2 host sorts by URI and adds the host's own
        bypass (the "enabled" port), so LV2 parameters are found by ID. */
juce::AudioProcessorParameter* parameterFor (Format format, juce::AudioPluginInstance& plugin, size_t index)
{
    if (format == Format::vst3)
        return plugin.getParameters()[(int) index];

    const auto suffix = ":" + toString (ParameterTable::entry (index).id);

    for (auto* parameter : plugin.getParameters())
        if (auto* hosted = dynamic_cast<juce::HostedAudioProcessorParameter*> (parameter))
            if (hosted->getParameterID().endsWith (suffix))
                return parameter;

    ADD_FAILURE() << "no parameter " << suffix;
    return nullptr;
}

/** Where lilv's Turtle keeps the plug-in's state: one base64 string property. */
juce::Range<int> lv2StateText (const juce::String& turtle)
{
    const auto open = turtle.indexOf (juce::jmax (0, turtle.indexOf ("StateString>")), "\"") + 1;
    return { open, juce::jmax (open, turtle.indexOf (open, "\"")) };
}

/** What the plug-in saved inside its host's state: base64 in JUCE's VST3 XML or in lilv's Turtle. */
juce::MemoryBlock pluginState (Format format, juce::AudioPluginInstance& plugin)
{
    juce::MemoryBlock hostState, inner;
    plugin.getStateInformation (hostState);
    const auto turtle = hostState.toString();

    if (format == Format::lv2)
        inner.fromBase64Encoding (turtle.substring (lv2StateText (turtle).getStart(), lv2StateText (turtle).getEnd()));
    else if (auto xml = juce::AudioProcessor::getXmlFromBinary (hostState.getData(), (int) hostState.getSize()))
        if (auto* component = xml->getChildByName ("IComponent"))
            inner.fromBase64Encoding (component->getAllSubText());

    return inner;
}

/** Gives the plug-in a state through its host's wrapper, the rest of the wrapper unchanged. */
void restore (Format format, juce::AudioPluginInstance& plugin, const juce::MemoryBlock& inner)
{
    juce::MemoryBlock hostState;
    plugin.getStateInformation (hostState);

    if (format == Format::vst3)
    {
        juce::XmlElement xml ("VST3PluginState");
        xml.createNewChildElement ("IComponent")->addTextElement (inner.toBase64Encoding());
        juce::AudioProcessor::copyXmlToBinary (xml, hostState);
    }
    else
    {
        // An LV2 host's state also holds its port values, saved with the block: they
        // change with it, as they would in a state the host saved.
        auto turtle = hostState.toString().toStdString();
        const auto values = StateBlock::read (inner.getData(), (int) inner.getSize());

        for (size_t i = 0; values && i < values->size(); ++i)
        {
            const std::regex port ("lv2:symbol \"" + std::string (ParameterTable::entry (i).id) + "\" ;\\s*pset:value ([-+0-9.eE]+)");
            std::smatch found;

            if ((*values)[i] && std::regex_search (turtle, found, port))
                turtle.replace ((size_t) found.position (1), (size_t) found.length (1),
                                StateBlock::formatDouble (*(*values)[i]).toStdString());
        }

        const juce::String replacedPorts (turtle);
        const auto text = lv2StateText (replacedPorts);
        const auto replaced = replacedPorts.replaceSection (text.getStart(), text.getLength(), inner.toBase64Encoding());
        hostState.replaceAll (replaced.toRawUTF8(), replaced.getNumBytesAsUTF8());
    }

    plugin.setStateInformation (hostState.getData(), (int) hostState.getSize());
    processSilence (plugin);
}

float savedValue (Format format, juce::AudioPluginInstance& plugin, size_t index)
{
    const auto inner = pluginState (format, plugin);
    const auto restored = StateBlock::read (inner.getData(), (int) inner.getSize());
    return restored ? (*restored)[index].value_or (NAN) : NAN;
}

/** The 0..1 a host sets for a plain value: over the editor range, with the editor's skew
        in VST3. The LV2 ports are plain over that range, and JUCE's host maps them linearly. */
float hostValueFor (Format format, const ParameterTable::Entry& entry, float plain)
{
    if (entry.isSwitch)
        return plain;

    const auto skew = format == Format::lv2 ? 1.0f : entry.skew;
    return std::pow ((plain - entry.minimum) / (entry.maximum - entry.minimum), skew);
}

class FormatHost : public testing::TestWithParam<Format>
{
};
}

TEST_P (FormatHost, ParametersMapTheEditorRangesOntoPlainValues)
{
    auto plugin = load (GetParam());
    ASSERT_NE (nullptr, plugin);
    const auto& parameters = plugin->getParameters();
    const auto hostBypass = GetParam() == Format::lv2 ? 1 : 0;
    ASSERT_EQ (ParameterTable::numParameters + hostBypass, parameters.size());

    for (size_t i = 0; i < ParameterTable::entries.size(); ++i)
    {
        const auto& expected = ParameterTable::entry (i);
        auto* parameter = parameterFor (GetParam(), *plugin, i);
        ASSERT_NE (nullptr, parameter);
        SCOPED_TRACE (expected.id.data());
        EXPECT_EQ (toString (expected.name), parameter->getName (64));
        EXPECT_TRUE (parameter->isAutomatable());

        if (expected.isSwitch)
        {
            // Hosts draw toggles for these.
            EXPECT_TRUE (parameter->isDiscrete());
            EXPECT_EQ (2, parameter->getNumSteps());
            continue;
        }

        // The host's 0..1 follows the editor's range and reaches the state as the plain value
        // (the texts' mapping is the processor's, checked without a host).
        const auto span = expected.maximum - expected.minimum;
        for (auto plain : { expected.minimum, expected.defaultValue, expected.minimum + 0.3f * span, expected.maximum })
        {
            const auto normalised = hostValueFor (GetParam(), expected, plain);
            parameter->setValueNotifyingHost (normalised);
            processSilence (*plugin);
            EXPECT_NEAR (plain, savedValue (GetParam(), *plugin, i), 1e-4f * span) << plain;
        }
    }
}

TEST_P (FormatHost, BehavesAsTheVst2Build)
{
    auto plugin = load (GetParam());
    ASSERT_NE (nullptr, plugin);

    // The VST2 build's chunk goes in unchanged and comes back byte for byte; both builds
    // then play from the same settings: the state, one silent block.
    vst2host::Instance vst2;
    vst2.start ((float) sampleRate, blockSize);
    const auto written = StateBlock::write (savedValues);
    vst2.setChunk ({ written.begin(), written.end() });
    const auto bytes = vst2.getChunk();
    const juce::MemoryBlock chunk (bytes.data(), bytes.size());
    ASSERT_EQ (written, chunk);
    std::vector<float> left (blockSize), right (blockSize);
    vst2.process (left, right, 0, blockSize);

    // VST3 appends JUCE's own trailer to the block.
    restore (GetParam(), *plugin, chunk);
    const auto saved = pluginState (GetParam(), *plugin);
    EXPECT_EQ (chunk, juce::MemoryBlock (saved.getData(), juce::jmin (saved.getSize(), chunk.getSize())));
    EXPECT_EQ (3249, plugin->getLatencySamples());

    // Then the same noise through both, well past the tilt's linear-phase latency.
    const auto input = support::makeNoise (2, 40 * blockSize, 3);
    auto output = input;
    left.assign (input.getReadPointer (0), input.getReadPointer (0) + input.getNumSamples());
    right.assign (input.getReadPointer (1), input.getReadPointer (1) + input.getNumSamples());
    juce::MidiBuffer midi;

    for (int start = 0; start < input.getNumSamples(); start += blockSize)
    {
        vst2.process (left, right, start, blockSize);
        juce::AudioBuffer<float> block (output.getArrayOfWritePointers(), 2, start, blockSize);
        plugin->processBlock (block, midi);
    }

    float* const vst2Channels[] = { left.data(), right.data() };
    const juce::AudioBuffer<float> vst2Output (vst2Channels, 2, input.getNumSamples());
    EXPECT_EQ (0.0f, support::maxDifference (vst2Output, output));
    EXPECT_GT (support::maxDifference (input, output), 0.01f) << "the audio was not processed";

    auto* linearPhase = parameterFor (GetParam(), *plugin, ParameterTable::linPhaseIndex);
    ASSERT_NE (nullptr, linearPhase);
    // The plug-in tells a VST3 host from its message thread, a few blocks later at most.
    auto latencyAfterSwitching = [&] (float value)
    {
        linearPhase->setValueNotifyingHost (value);
        for (int round = 0; round < 50 && plugin->getLatencySamples() != (value > 0.5f ? 3249 : 0); ++round)
            processSilence (*plugin, 2);
        return plugin->getLatencySamples();
    };
    EXPECT_EQ (0, latencyAfterSwitching (0.0f));
    EXPECT_EQ (3249, latencyAfterSwitching (1.0f));
}

// A switch of linear phase takes its new latency from its block without a lock or allocation
// of its own: blocks that switch it cost what blocks that move the tilt cost. (The wrappers
// and JUCE's hosting lock and allocate in every block with a parameter change; those count
// alike. The least of three runs, in case the host's latency update lands in one.)
TEST_P (FormatHost, LatencySwitchesAddNoLockOrAllocationToTheirBlocks)
{
    auto plugin = load (GetParam());
    ASSERT_NE (nullptr, plugin);
    if (! counters::available())
        GTEST_SKIP() << "no allocation and lock counters on this system";
    juce::AudioBuffer<float> buffer (2, blockSize);
    juce::MidiBuffer midi;

    auto countsWhileToggling = [&] (size_t index)
    {
        auto* parameter = parameterFor (GetParam(), *plugin, index);
        counters::Counts least { 1 << 30, 1 << 30 };

        for (int run = 0; run < 3; ++run)
        {
            counters::Counts total;

            for (int block = 0; block < 16; ++block)
            {
                parameter->setValueNotifyingHost (block % 2 == 0 ? 1.0f : 0.0f);
                buffer.clear();
                counters::begin();
                plugin->processBlock (buffer, midi);
                const auto counts = counters::end();
                total.allocations += counts.allocations;
                total.locks += counts.locks;
            }

            least.allocations = std::min (least.allocations, total.allocations);
            least.locks = std::min (least.locks, total.locks);
        }

        return least;
    };

    countsWhileToggling (ParameterTable::tiltIndex);   // the first blocks set up what they need
    const auto tilt = countsWhileToggling (ParameterTable::tiltIndex);
    const auto linearPhase = countsWhileToggling (ParameterTable::linPhaseIndex);
    EXPECT_EQ (tilt.allocations, linearPhase.allocations);
    EXPECT_EQ (tilt.locks, linearPhase.locks);
}

// A state this format saves, its values set through the host's own parameters, loads in the
// VST2 build and in the other format with every value.
TEST_P (FormatHost, ItsStateLoadsInEveryOtherFormat)
{
    auto plugin = load (GetParam());
    ASSERT_NE (nullptr, plugin);

    for (size_t i = 0; i < savedValues.size(); ++i)
    {
        const auto& entry = ParameterTable::entry (i);
        auto* parameter = parameterFor (GetParam(), *plugin, i);
        ASSERT_NE (nullptr, parameter);
        parameter->setValueNotifyingHost (hostValueFor (GetParam(), entry, savedValues[i]));
    }

    processSilence (*plugin);
    const auto saved = pluginState (GetParam(), *plugin);

    vst2host::Instance vst2;
    vst2.setChunk ({ static_cast<const char*> (saved.getData()), static_cast<const char*> (saved.getData()) + saved.getSize() });

#if JUCE_PLUGINHOST_LV2
    const auto otherFormat = GetParam() == Format::vst3 ? Format::lv2 : Format::vst3;
    auto other = load (otherFormat);
    ASSERT_NE (nullptr, other);
    restore (otherFormat, *other, saved);
#endif

    for (size_t i = 0; i < savedValues.size(); ++i)
    {
        const auto& entry = ParameterTable::entry (i);
        const auto tolerance = 1e-4f * (entry.maximum - entry.minimum);
        EXPECT_NEAR (savedValues[i], vst2.getParameter ((int) i), tolerance) << entry.id.data() << " in the VST2 build";
#if JUCE_PLUGINHOST_LV2
        EXPECT_NEAR (savedValues[i], savedValue (otherFormat, *other, i), tolerance) << entry.id.data() << " in the other format";
#endif
    }
}

TEST_P (FormatHost, ClosesWithinMilliseconds)
{
    for (int cycle = 0; cycle < 3; ++cycle)
    {
        auto plugin = load (GetParam());
        ASSERT_NE (nullptr, plugin);
        processSilence (*plugin);

        const auto start = juce::Time::getMillisecondCounterHiRes();
        plugin.reset();
        EXPECT_LT (juce::Time::getMillisecondCounterHiRes() - start, 100.0) << "cycle " << cycle;
    }
}

#if JUCE_PLUGINHOST_LV2
 #define QUENDA_HOSTED_FORMATS testing::Values (Format::vst3, Format::lv2)
#else
 #define QUENDA_HOSTED_FORMATS testing::Values (Format::vst3)
#endif

INSTANTIATE_TEST_SUITE_P (Formats, FormatHost, QUENDA_HOSTED_FORMATS,
                          [] (const auto& test)
                          { return std::string (test.param == Format::vst3 ? "Vst3" : "Lv2"); });
