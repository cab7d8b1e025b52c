// SPDX-License-Identifier: GPL-3.0-or-later
// A careless host: each input is a sequence of raw VST2 calls on one long-lived instance of
// the built plug-in (rates including 0, NaN and 768000, declared and actual block sizes up to
// 65536 and past the declared one, audio before a resume and after a suspend, aliased,
// in-place and missing pointers, extreme and non-finite values, damaged states, linear phase
// toggled between blocks, NaN, infinite, huge and denormal input). Besides the sanitizers,
// it stops at the first block that allocates, locks or writes a non-finite sample, a finite
// parameter write that does not read back, a non-finite one that is not ignored, or a state
// that does not come back byte for byte.

#include "tests/host/Vst2Host.h"
#include "tests/host/hostile/RealtimeCounters.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <vector>

namespace
{
/** The input, read from the front; zeros once it runs out. */
struct Reader
{
    const uint8_t* data;
    size_t size;

    bool empty() const noexcept { return size == 0; }

    uint8_t byte() noexcept
    {
        if (size == 0)
            return 0;

        --size;
        return *data++;
    }

    uint32_t u16() noexcept { return (uint32_t) byte() | (uint32_t) byte() << 8; }

    float f32() noexcept
    {
        uint32_t bits = u16() | u16() << 16;
        float value;
        std::memcpy (&value, &bits, sizeof (value));
        return value;
    }
};

constexpr float notANumber = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr int numParameters = 8;
constexpr int linPhaseIndex = 2;
constexpr int longestBlock = 70000;   // past the largest size a host may declare

long long sequences = 0, blocks = 0;

[[noreturn]] void finding (const char* what, long long detail = 0)
{
    std::fprintf (stderr, "hostile host: %s (%lld) after %lld sequences, %lld blocks\n", what, detail, sequences, blocks);
    std::abort();
}

void printTotals()
{
    std::fprintf (stderr, "hostile host: %lld sequences, %lld blocks\n", sequences, blocks);
}

struct Host
{
    Host()
    {
        for (auto& channel : input)
            channel.resize (longestBlock);
        for (auto& channel : output)
            channel.resize (longestBlock);

        std::atexit (printTotals);
    }

    int declaredBlockSize = 1024;
    std::vector<float> input[2], output[2];
    vst2host::Instance plugin;
};

Host& host()
{
    static Host instance;
    return instance;
}

void fillInput (Reader& in, std::vector<float>& channel, int n, unsigned seed)
{
    const auto kind = in.byte() % 8;
    uint32_t state = seed * 2654435761u + 1u;

    for (int i = 0; i < n; ++i)
    {
        state = state * 1664525u + 1013904223u;
        const auto noise = (float) (int32_t) state / 2147483648.0f;
        float x = 0.0f;

        switch (kind)
        {
            case 0: x = 0.5f * noise; break;
            case 1: x = i == n / 2 ? notANumber : 0.5f * noise; break;
            case 2: x = notANumber; break;
            case 3: x = (i & 1) != 0 ? infinity : -infinity; break;
            case 4: x = 3e38f * noise; break;
            case 5: x = 1e-39f * noise; break;
            case 6: x = 1e-30f * noise; break;
            default: x = 0.0f; break;
        }

        channel[(size_t) i] = x;
    }
}

int blockLength (Reader& in)
{
    static constexpr int lengths[] = { 0, 1, 2, 7, 63, 64, 65, 129, 512, 1000, 4096, 65536, longestBlock, -1 };
    const auto choice = in.byte() % 15;
    return choice < 14 ? lengths[choice] : (int) in.u16();
}

void process (Reader& in, Host& h, int n)
{
    auto& effect = *h.plugin.effect;
    const auto mode = in.byte() % 7;
    const auto valid = std::max (n, 0);

    fillInput (in, h.input[0], valid, (unsigned) blocks);
    fillInput (in, h.input[1], valid, (unsigned) blocks + 7u);

    for (auto& channel : h.output)
        std::fill (channel.begin(), channel.begin() + valid, 77.0f);

    float* inputs[] = { h.input[0].data(), h.input[1].data() };
    float* outputs[] = { h.output[0].data(), h.output[1].data() };
    float** inputPointers = inputs;
    float** outputPointers = outputs;

    switch (mode)
    {
        case 1:
            outputs[0] = inputs[0];
            outputs[1] = inputs[1];
            break;                                // in place
        case 2: outputs[1] = outputs[0]; break;   // one buffer twice
        case 3: outputs[1] = nullptr; break;
        case 4: inputs[1] = nullptr; break;
        case 5: inputPointers = nullptr; break;
        case 6:
            outputs[0] = inputs[1];
            outputs[1] = inputs[0];
            break;   // crossed
        default: break;
    }

    counters::begin();
    effect.processReplacing (&effect, inputPointers, outputPointers, n);
    const auto counts = counters::end();
    ++blocks;

    if (counts.allocations != 0)
        finding ("a block allocated", counts.allocations);

    if (counts.locks != 0)
        finding ("a block took a lock", counts.locks);

    for (auto* channel : outputs)
        if (channel != nullptr)
            for (int i = 0; i < valid; ++i)
                if (! std::isfinite (channel[i]))
                    finding ("a non-finite output sample", i);
}

void setParameter (Reader& in, Host& h)
{
    const auto choice = in.byte() % 10;
    const auto index = choice < 8 ? (int) choice : (choice == 8 ? -1 : numParameters);
    float value = 0.0f;

    switch (in.byte() % 9)
    {
        case 0: value = in.f32(); break;
        case 1: value = notANumber; break;
        case 2: value = infinity; break;
        case 3: value = -infinity; break;
        case 4: value = -0.0f; break;
        case 5: value = 1e30f; break;
        case 6: value = -1e30f; break;
        case 7: value = std::numeric_limits<float>::denorm_min(); break;
        default: value = (float) in.byte() - 100.0f; break;
    }

    const auto before = index >= 0 && index < numParameters ? h.plugin.getParameter (index) : 0.0f;
    h.plugin.setParameter (index, value);

    if (index < 0 || index >= numParameters)
        return;

    const auto after = h.plugin.getParameter (index);

    if (std::isfinite (value) ? after != value : ! (after == before || (std::isnan (after) && std::isnan (before))))
        finding ("a parameter did not read back", index);
}

void expectStateRoundTrip (Host& h)
{
    const auto saved = h.plugin.getChunk();
    h.plugin.setChunk (saved);

    if (h.plugin.getChunk() != saved)
        finding ("a state set then got changed", (long long) saved.size());
}

void setDamagedState (Reader& in, Host& h)
{
    auto chunk = h.plugin.getChunk();

    switch (in.byte() % 3)
    {
        case 0:
            // A byte of a real state changed.
            if (! chunk.empty())
                chunk[in.u16() % chunk.size()] = (char) in.byte();
            break;

        case 1:
            // Cut short.
            chunk.resize (chunk.empty() ? 0 : in.u16() % chunk.size());
            break;

        default:
        {
            // Bytes from the input.
            const auto length = (size_t) in.byte();
            chunk.assign (length, 0);
            for (auto& c : chunk)
                c = (char) in.byte();
            break;
        }
    }

    if (! chunk.empty())
        h.plugin.setChunk (chunk);

    expectStateRoundTrip (h);
}

void nonsenseDispatch (Reader& in, Host& h)
{
    static constexpr int nullPointerOpcodes[] = { effGetParamName, effGetParamLabel, effGetParamDisplay, effGetProgramName,
                                                  effSetProgramName, effGetChunk, effSetChunk, effCanDo, effGetEffectName,
                                                  effGetVendorString, effGetProductString, effGetProgramNameIndexed,
                                                  effString2Parameter, effGetInputProperties, effGetOutputProperties,
                                                  effProcessEvents, effGetSpeakerArrangement, effSetSpeakerArrangement };
    const auto choice = in.byte() % 6;
    auto& plugin = h.plugin;

    switch (choice)
    {
        case 0: plugin.dispatch (nullPointerOpcodes[in.byte() % std::size (nullPointerOpcodes)], (int) in.byte() - 2, (VstIntPtr) in.u16()); break;
        case 1: plugin.dispatch (effGetTailSize); break;
        case 2: plugin.dispatch (effSetProgram, 0, (VstIntPtr) in.byte() - 2); break;
        case 3: plugin.dispatch (effStartProcess); break;
        case 4: plugin.dispatch (effStopProcess); break;
        default: plugin.dispatch (effSetProcessPrecision, 0, in.byte() % 2); break;
    }
}
}

extern "C" int LLVMFuzzerTestOneInput (const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput (const uint8_t* data, size_t size)
{
    auto& h = host();
    Reader in { data, size };
    ++sequences;

    for (int call = 0; call < 64 && ! in.empty(); ++call)
    {
        switch (in.byte() % 12)
        {
            case 0:
            {
                static constexpr float rates[] = { 0.0f, notANumber, -44100.0f, infinity, 8000.0f, 22050.0f, 44100.0f,
                                                   48000.0f, 96000.0f, 192000.0f, 384000.0f, 768000.0f };
                const auto choice = in.byte() % 13u;
                h.plugin.dispatch (effSetSampleRate, 0, 0, nullptr, choice < 12 ? rates[choice] : in.f32());
                break;
            }

            case 1:
            {
                static constexpr VstIntPtr sizes[] = { 0, -1, 1, 32, 64, 512, 4096, 65536, (VstIntPtr) 1 << 30, INT64_MAX };
                const auto choice = in.byte() % 11u;
                h.plugin.dispatch (effSetBlockSize, 0, choice < 10 ? sizes[choice] : (VstIntPtr) in.u16());
                break;
            }

            case 2: h.plugin.dispatch (effMainsChanged, 0, 1); break;
            case 3: h.plugin.dispatch (effMainsChanged, 0, 0); break;
            case 4: process (in, h, blockLength (in)); break;
            case 5: setParameter (in, h); break;

            case 6:
                // Linear phase switched, then a block: a new latency in every block.
                h.plugin.setParameter (linPhaseIndex, h.plugin.getParameter (linPhaseIndex) >= 0.5f ? 0.0f : 1.0f);
                process (in, h, 64);
                break;

            case 7: setDamagedState (in, h); break;
            case 8: expectStateRoundTrip (h); break;
            case 9: h.plugin.dispatch (effSetBypass, 0, in.byte() % 2); break;
            case 10: nonsenseDispatch (in, h); break;
            default: process (in, h, 64); break;
        }
    }

    // Whatever state the calls left: four more blocks, linear phase switched in each.
    static const uint8_t plainBlock[] = { 0, 0, 0 };

    for (int block = 0; block < 4; ++block)
    {
        Reader plain { plainBlock, sizeof (plainBlock) };
        h.plugin.setParameter (linPhaseIndex, h.plugin.getParameter (linPhaseIndex) >= 0.5f ? 0.0f : 1.0f);
        process (plain, h, block % 2 == 0 ? 64 : 1000);
    }

    return 0;
}
