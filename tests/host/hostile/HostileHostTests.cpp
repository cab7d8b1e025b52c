// SPDX-License-Identifier: GPL-3.0-or-later
// Quenda.so driven by a careless host, through the raw VST2 ABI: calls out of order, pointers
// and lengths that do not match what was declared, nonsense rates and values. Each case must
// neither crash nor allocate nor lock on the audio thread, and every output sample is finite.

#include "../Vst2Host.h"
#include "RealtimeCounters.h"

#include "tests/support/Signals.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <string>
#include <thread>

namespace
{
std::atomic<int> ioChangedCalls { 0 };

VstIntPtr VSTCALLBACK recordingHost (AEffect*, int opcode, int, VstIntPtr, void*, float)
{
    if (opcode == audioMasterIOChanged)
        ++ioChangedCalls;

    return opcode == audioMasterVersion ? 2400 : 0;
}

AEffect* entryWithRecordingHost (audioMasterCallback)
{
    return vst2host::builtPluginEntry() (recordingHost);
}

constexpr float notANumber = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();

/** One plug-in and the raw calls a host makes, with the audio calls counted. */
struct Host
{
    Host()
        : plugin (entryWithRecordingHost) {}

    /** With the test host's time info, which carries the rate it runs at. */
    explicit Host (vst2host::PluginMain entry)
        : plugin (entry) {}

    VstIntPtr dispatch (int opcode, int index = 0, VstIntPtr value = 0, void* ptr = nullptr, float opt = 0.0f)
    {
        return plugin.dispatch (opcode, index, value, ptr, opt);
    }

    void resume() { dispatch (effMainsChanged, 0, 1); }
    void suspend() { dispatch (effMainsChanged, 0, 0); }

    /** One processReplacing with the given pointers; counts its allocations and locks. */
    void processRaw (float** inputs, float** outputs, int n)
    {
        counters::begin();
        plugin.effect->processReplacing (plugin.effect, inputs, outputs, n);
        const auto counts = counters::end();
        allocations += counts.allocations;
        locks += counts.locks;
    }

    /** n frames of the given input, separate output buffers; returns the outputs. */
    std::vector<std::vector<float>> process (std::vector<std::vector<float>> input)
    {
        const auto n = (int) input[0].size();
        std::vector<std::vector<float>> output (2, std::vector<float> ((size_t) n, 123.0f));
        float* inputs[] = { input[0].data(), input[1].data() };
        float* outputs[] = { output[0].data(), output[1].data() };
        processRaw (inputs, outputs, n);
        return output;
    }

    std::vector<std::vector<float>> processNoise (int n, unsigned seed = 1, float level = 0.5f)
    {
        return process ({ support::noise ((size_t) n, seed, level), support::noise ((size_t) n, seed + 1, level) });
    }

    void expectRealtimeSafe (const char* what)
    {
        if (! counters::available())
            return;

        EXPECT_EQ (0, allocations) << what << ": allocations on the audio thread";
        EXPECT_EQ (0, locks) << what << ": locks on the audio thread";
    }

    vst2host::Instance plugin;
    long allocations = 0, locks = 0;
};

std::vector<float> scaled (std::vector<float> samples, float gain)
{
    for (auto& x : samples)
        x *= gain;
    return samples;
}

std::vector<std::vector<float>> constant (int n, float value)
{
    return { std::vector<float> ((size_t) n, value), std::vector<float> ((size_t) n, value) };
}

bool allFinite (const std::vector<float>& samples)
{
    return std::all_of (samples.begin(), samples.end(), [] (float x)
                        { return std::isfinite (x); });
}

bool allZero (const std::vector<float>& samples)
{
    return std::all_of (samples.begin(), samples.end(), [] (float x)
                        { return x == 0.0f; });
}

float largestDifference (const std::vector<float>& a, const std::vector<float>& b)
{
    float largest = 0.0f;

    for (size_t i = 0; i < a.size(); ++i)
        largest = std::max (largest, std::abs (a[i] - b[i]));

    return largest;
}

/** A well-behaved host's output: prepared at a rate for blocks of `declared`, processing
        the noise as one block of its whole length. */
std::vector<std::vector<float>> referenceOutput (int n, int declared, float tilt, float linearPhase = 0.0f, float rate = 48000.0f)
{
    Host host;
    host.plugin.setParameter (0, tilt);
    host.plugin.setParameter (2, linearPhase);
    host.plugin.start (rate, declared);
    return host.processNoise (n);
}

/** The noise of processNoise (n) in blocks of the given sizes, the outputs joined. */
std::vector<std::vector<float>> processNoiseInBlocks (Host& host, int n, std::initializer_list<int> sizes)
{
    auto input = std::vector<std::vector<float>> { support::noise ((size_t) n, 1, 0.5f), support::noise ((size_t) n, 2, 0.5f) };
    std::vector<std::vector<float>> output (2, std::vector<float> ((size_t) n));
    int start = 0;

    for (const auto size : sizes)
    {
        float* inputs[] = { input[0].data() + start, input[1].data() + start };
        float* outputs[] = { output[0].data() + start, output[1].data() + start };
        host.processRaw (inputs, outputs, size);
        start += size;
    }

    return output;
}

double levelDb (const std::vector<float>& samples, size_t from)
{
    double sum = 0;
    for (auto i = from; i < samples.size(); ++i)
        sum += (double) samples[i] * samples[i];
    return 10.0 * std::log10 (sum / (double) (samples.size() - from));
}
}

TEST (HostileHost, AudioBeforeResumeOrAfterSuspendIsSilentAndPreparesNothing)
{
    {
        Host host;
        host.dispatch (effSetSampleRate, 0, 0, nullptr, 48000.0f);
        host.dispatch (effSetBlockSize, 0, 512);
        const auto out = host.processNoise (512);
        EXPECT_TRUE (allZero (out[0]) && allZero (out[1])) << "processed without a resume";
        host.expectRealtimeSafe ("before a resume");
    }
    {
        Host host;
        host.resume();
        host.processNoise (1);
        host.suspend();
        const auto out = host.processNoise (1);
        EXPECT_TRUE (allZero (out[0]) && allZero (out[1]));
        host.expectRealtimeSafe ("after a suspend");

        // And back: resumed again, it processes.
        host.resume();
        EXPECT_FALSE (allZero (host.processNoise (64)[0]));
    }
}

TEST (HostileHost, PointersAndLengthsTheHostGetsWrongAreProcessedThroughPreparedBuffers)
{
    const auto n = 129;
    const auto expected = referenceOutput (n, 256, 0.7f);

    // Declared 64, then 129 frames: twice the same output buffer, or no right output.
    for (const auto* outputCase : { "aliased", "null", "in place" })
    {
        SCOPED_TRACE (outputCase);
        Host host;
        host.plugin.setParameter (0, 0.7f);
        host.plugin.start (48000.0f, 64);

        auto left = support::noise (n, 1, 0.5f), right = support::noise (n, 2, 0.5f);
        std::vector<float> shared ((size_t) n);
        float* inputs[] = { left.data(), right.data() };
        float* aliased[] = { shared.data(), shared.data() };
        float* missing[] = { shared.data(), nullptr };
        float* inPlace[] = { left.data(), right.data() };
        const std::string which = outputCase;
        host.processRaw (inputs, which == "aliased" ? aliased : which == "null" ? missing
                                                                                : inPlace,
                         n);

        if (which == "aliased")
            EXPECT_LT (largestDifference (shared, expected[1]), 1e-5f);
        else if (which == "null")
            EXPECT_LT (largestDifference (shared, expected[0]), 1e-5f);
        else
            EXPECT_LT (std::max (largestDifference (left, expected[0]), largestDifference (right, expected[1])), 1e-5f);

        host.expectRealtimeSafe (outputCase);
    }

    // Declared sizes no host should send: refused (0, -1) or limited (2^30); the resume
    // returns, and every block length is served.
    for (const VstIntPtr declared : { (VstIntPtr) 0, (VstIntPtr) -1, (VstIntPtr) 1 << 30 })
    {
        SCOPED_TRACE ("declared " + std::to_string (declared));
        Host host;
        host.plugin.setParameter (0, 0.7f);
        host.dispatch (effSetSampleRate, 0, 0, nullptr, 48000.0f);
        host.dispatch (effSetBlockSize, 0, declared);
        host.resume();

        for (const auto length : { n, 70000 })
        {
            const auto out = host.processNoise (length);
            EXPECT_TRUE (allFinite (out[0]) && allFinite (out[1]));
            EXPECT_FALSE (allZero (out[0]));
        }

        host.expectRealtimeSafe ("declared size");
    }
}

TEST (HostileHost, LinearPhaseToggledEveryBlockReportsItsLatencyWithoutLockingOrAllocating)
{
    Host host;
    host.plugin.start (48000.0f, 64);
    host.processNoise (64);
    const auto callsBefore = ioChangedCalls.load();

    for (int block = 0; block < 41; ++block)   // ends in linear phase, a change from the start
    {
        const auto linear = block % 2 == 0;
        host.plugin.setParameter (2, linear ? 1.0f : 0.0f);
        host.processNoise (64, (unsigned) block);
        ASSERT_EQ (linear ? 3249 : 0, host.plugin.latency()) << "block " << block;
    }

    host.expectRealtimeSafe ("linear phase toggled");

    // The host is told from the plug-in's message thread, after the blocks, as its idle
    // calls run the plug-in's pending messages.
    for (int wait = 0; wait < 200 && ioChangedCalls.load() == callsBefore; ++wait)
    {
        host.dispatch (effEditIdle);
#if defined(_WIN32)
        // There the plug-in's messages arrive through the host's own message loop.
        for (MSG message; PeekMessageA (&message, nullptr, 0, 0, PM_REMOVE);)
            DispatchMessageA (&message);
#endif
        std::this_thread::sleep_for (std::chrono::milliseconds (10));
    }

    EXPECT_GT (ioChangedCalls.load(), callsBefore) << "the host was never told of the new latency";
}

TEST (HostileHost, RatesNoFilterCanUseAreRefusedAndEveryUsableRateIsDesignedFor)
{
    const auto n = 2048;
    const auto expected = referenceOutput (n, 512, 0.7f);

    for (const auto rate : { notANumber, 0.0f, -48000.0f, infinity })
    {
        SCOPED_TRACE (rate);
        Host host;
        host.plugin.setParameter (0, 0.7f);
        host.plugin.start (48000.0f, 512);
        host.suspend();
        host.dispatch (effSetSampleRate, 0, 0, nullptr, rate);
        host.resume();

        // The last valid rate stays: the same output as a host that never sent this one.
        const auto out = host.processNoise (n);
        EXPECT_EQ (0.0f, std::max (largestDifference (out[0], expected[0]), largestDifference (out[1], expected[1])));
        EXPECT_EQ (0, host.dispatch (effGetTailSize));
        host.expectRealtimeSafe ("refused rate");
    }

    // The shelves follow every rate up to 384 kHz: a +20 dB low shelf at 150 Hz and a +3 dB
    // high shelf at 4500 Hz raise a 1 kHz and a 10 kHz sine as much as at 192 kHz.
    auto shelfGainDb = [] (float rate, float frequency)
    {
        Host host;
        host.plugin.setParameter (4, 20.0f);
        host.plugin.setParameter (5, 3.0f);
        host.plugin.start (rate, 4096);
        const auto length = (int) rate / 2;
        std::vector<float> sine ((size_t) length);
        for (size_t i = 0; i < sine.size(); ++i)
            sine[i] = 0.1f * (float) std::sin (2.0 * 3.14159265358979323846 * frequency * (double) i / rate);
        const auto out = host.process ({ sine, sine });
        return levelDb (out[0], (size_t) length / 2) - levelDb (sine, (size_t) length / 2);
    };

    for (const auto frequency : { 1000.0f, 10000.0f })
        EXPECT_NEAR (shelfGainDb (192000.0f, frequency), shelfGainDb (384000.0f, frequency), 0.1) << frequency << " Hz";
}

TEST (HostileHost, NonFiniteValuesAreIgnoredAndStatesRoundTripByteForByte)
{
    Host host;

    for (const auto index : { 1, 2 })
    {
        for (const auto value : { notANumber, infinity, -infinity })
        {
            host.plugin.setParameter (index, 1.0f);
            host.plugin.setParameter (index, value);
            EXPECT_EQ (1.0f, host.plugin.getParameter (index)) << "switch " << index << " took " << value;
        }
    }

    // A negative zero comes back as it went in (from 1: the wrapper skips a write equal to the value).
    host.plugin.setParameter (4, 1.0f);
    host.plugin.setParameter (4, -0.0f);
    const auto saved = host.plugin.getChunk();
    Host restored;
    restored.plugin.setChunk (saved);
    EXPECT_EQ (saved, restored.plugin.getChunk());
    EXPECT_TRUE (std::signbit (restored.plugin.getParameter (4)));
}

TEST (HostileHost, NonFiniteAndHugeInputComesOutFiniteWithOrWithoutHostBypass)
{
    for (const auto hostBypass : { 1, 0 })
    {
        Host host;
        host.plugin.setParameter (0, 0.5f);
        host.plugin.setParameter (2, 1.0f);
        host.plugin.start (48000.0f, 64);
        host.dispatch (effSetBypass, 0, hostBypass);

        auto input = support::noise (64, 9, 0.5f);
        input[17] = notANumber;
        const std::vector<std::vector<float>> blocks[] = {
            host.process ({ input, input }),
            host.process (constant (64, notANumber)),
            host.process (constant (64, infinity)),
            host.process ({ scaled (support::noise (64, 3), 3e38f), scaled (support::noise (64, 4), -3e38f) }),
            host.process ({ scaled (support::noise (64, 5), 1e-39f), scaled (support::noise (64, 6), 1e-39f) }),
        };

        for (const auto& out : blocks)
            EXPECT_TRUE (allFinite (out[0]) && allFinite (out[1])) << "host bypass " << hostBypass;

        // Clean again at once.
        EXPECT_TRUE (allFinite (host.processNoise (64)[0]));
        host.expectRealtimeSafe ("non-finite input");
    }
}

// Audacity's order: resumed at 44.1 kHz, then 48 kHz and a longer block size set while
// resumed, then blocks; and a host that only changes the rate in its time info. From the first
// block the output is an instance's prepared at 48 kHz, tilt included, and no block allocates
// or locks.
TEST (HostileHost, ARateChangedWhileResumedIsProcessedAtThatRateFromItsFirstBlock)
{
    constexpr int n = 8192 + 8192 + 1000;

    for (const auto linearPhase : { 0.0f, 1.0f })
    {
        const auto expected = referenceOutput (n, 8192, -0.6f, linearPhase);

        for (const auto* how : { "set, with time info", "set, no time info", "time info alone" })
        {
            SCOPED_TRACE (std::string (how) + (linearPhase > 0 ? ", linear phase" : ", minimum phase"));
            const std::string change = how;
            Host host (change == "set, no time info" ? entryWithRecordingHost : vst2host::builtPluginEntry());
            host.plugin.setParameter (0, -0.6f);
            host.plugin.setParameter (2, linearPhase);
            host.plugin.start (44100.0f, 512);

            if (change == "time info alone")
                host.plugin.setTimeInfoRate (48000.0f);
            else
                host.plugin.setRateWhileRunning (48000.0f, 8192);

            const auto out = processNoiseInBlocks (host, n, { 8192, 8192, 1000 });
            EXPECT_LT (largestDifference (out[0], expected[0]), 1e-5f);
            EXPECT_LT (largestDifference (out[1], expected[1]), 1e-5f);
            host.expectRealtimeSafe (how);
        }
    }

    // A host whose audio runs on at the old rate until its time info says otherwise: the
    // blocks before keep their tilt at 44.1 kHz.
    const auto at44 = referenceOutput (n, 512, -0.6f, 0.0f, 44100.0f);
    Host host (vst2host::builtPluginEntry());
    host.plugin.setParameter (0, -0.6f);
    host.plugin.start (44100.0f, 512);
    host.dispatch (effSetSampleRate, 0, 0, nullptr, 48000.0f);
    const auto out = processNoiseInBlocks (host, n, { 8192, 8192, 1000 });
    EXPECT_LT (largestDifference (out[0], at44[0]), 1e-5f);
    host.expectRealtimeSafe ("rate set ahead of the audio");
}
