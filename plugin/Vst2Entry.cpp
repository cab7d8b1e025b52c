// SPDX-License-Identifier: GPL-3.0-or-later
// The VST2 entry point. JUCE's wrapper trusts the host's call order and pointers: it crashes
// on a block after a suspend, overruns its own buffers on aliased or missing outputs, designs
// on the audio thread when a host processes without resuming, and takes a lock in every
// block. Every host call goes through here first. Audio goes to the processor directly, in
// place, through buffers made at resume where the host's pointers or length do not fit, or
// comes out silent; it never allocates, locks or waits. Other calls go on to JUCE's wrapper
// once their values and pointers are known to be usable.

#include "plugin/PluginProcessor.h"

#include <aeffectx.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

// JUCE's own entry, renamed when its wrapper is compiled (see CMakeLists.txt).
extern "C" AEffect* quendaJuceVstEntry (audioMasterCallback);

namespace
{
constexpr int numChannels = 2;

struct Guard
{
    AEffect* effect = nullptr;
    QuendaAudioProcessor* processor = nullptr;

    // JUCE's callbacks.
    AEffectDispatcherProc dispatcher = nullptr;
    AEffectSetParameterProc setParameter = nullptr;

    std::atomic<bool> resumed { false };
    std::atomic<bool> hostBypass { false };
    std::atomic<int> callsInProgress { 0 };

    int declaredBlockSize = 1024;   // what JUCE was told; its own default
    int preparedBlockSize = 0;      // the size of the buffers below, set at resume
    int channels = numChannels;     // of the layout at resume: mono or stereo
    std::vector<float> buffers;     // two channels, then silence
    juce::MidiBuffer midi;

    float* channel (int index) noexcept { return buffers.data() + (size_t) index * (size_t) preparedBlockSize; }
};

// Instances by effect, found without a lock from any thread.
constexpr int maximumInstances = 1024;
std::atomic<Guard*> guards[maximumInstances] {};
std::atomic<int> slotsInUse { 0 };

Guard* guardFor (AEffect* effect) noexcept
{
    if (effect == nullptr)
        return nullptr;

    const auto used = slotsInUse.load();

    for (int i = 0; i < used; ++i)
        if (auto* guard = guards[i].load(); guard != nullptr && guard->effect == effect)
            return guard;

    return nullptr;
}

bool addGuard (Guard* guard) noexcept
{
    for (int i = 0; i < maximumInstances; ++i)
    {
        Guard* expected = nullptr;

        if (guards[i].compare_exchange_strong (expected, guard))
        {
            for (auto used = slotsInUse.load(); used < i + 1 && ! slotsInUse.compare_exchange_weak (used, i + 1);)
            {
            }

            return true;
        }
    }

    return false;
}

void removeGuard (Guard* guard) noexcept
{
    for (auto& slot : guards)
    {
        auto* expected = guard;

        if (slot.compare_exchange_strong (expected, nullptr))
            return;
    }
}

/** Counts an audio call in progress, so that a suspend or close waits for it to end. */
struct AudioCall
{
    explicit AudioCall (Guard& g) noexcept
        : guard (g) { guard.callsInProgress.fetch_add (1); }
    ~AudioCall() { guard.callsInProgress.fetch_sub (1); }

    Guard& guard;
};

/** Stops the audio callbacks from reaching the processor and waits for one in progress to end. */
void stopAudio (Guard& guard)
{
    guard.resumed = false;

    while (guard.callsInProgress.load() > 0)
        std::this_thread::yield();
}

void writeSilence (const AEffect& effect, float** outputs, int numSamples) noexcept
{
    for (int c = 0; c < std::min (numChannels, effect.numOutputs); ++c)
        if (outputs[c] != nullptr)
            std::fill (outputs[c], outputs[c] + numSamples, 0.0f);
}

/** Pointers JUCE-free processing can use as they are: present, one buffer per output, each
        output either its own input or no other channel's input. */
bool pointersAreUsable (float** inputs, float** outputs, int channels) noexcept
{
    if (inputs == nullptr)
        return false;

    for (int c = 0; c < channels; ++c)
    {
        if (inputs[c] == nullptr || outputs[c] == nullptr)
            return false;

        for (int other = 0; other < channels; ++other)
            if (other != c && (outputs[other] == outputs[c] || inputs[other] == outputs[c]))
                return false;
    }

    return true;
}

/** The processor straight, in place: JUCE's wrapper would take the callback lock. */
void processInPlace (Guard& guard, float* const* channels, int numSamples) noexcept
{
    juce::AudioBuffer<float> buffer (channels, guard.channels, numSamples);

    if (guard.hostBypass.load (std::memory_order_relaxed))
        guard.processor->processBlockBypassed (buffer, guard.midi);
    else
        guard.processor->processBlock (buffer, guard.midi);

    guard.midi.clear();
}

void VSTCALLBACK processReplacing (AEffect* effect, float** inputs, float** outputs, int numSamples)
{
    auto* guard = guardFor (effect);

    if (guard == nullptr || outputs == nullptr || numSamples <= 0)
        return;

    const AudioCall call (*guard);

    // Before a resume, after a suspend: nothing is prepared, JUCE would prepare here.
    if (! guard->resumed.load())
    {
        writeSilence (*effect, outputs, numSamples);
        return;
    }

    const auto channels = guard->channels;

    if (numSamples <= guard->preparedBlockSize && pointersAreUsable (inputs, outputs, channels))
    {
        for (int c = 0; c < channels; ++c)
            if (outputs[c] != inputs[c])
                std::copy (inputs[c], inputs[c] + numSamples, outputs[c]);

        processInPlace (*guard, outputs, numSamples);
    }
    else
    {
        // Through our own buffers, in pieces no longer than the prepared block. Each
        // piece's input is copied before any output of it is written, so in-place and
        // aliased pointers stay correct.
        float* pieces[] = { guard->channel (0), guard->channel (1) };
        const auto* silence = guard->channel (2);

        for (int start = 0; start < numSamples; start += guard->preparedBlockSize)
        {
            const auto length = std::min (guard->preparedBlockSize, numSamples - start);

            for (int c = 0; c < channels; ++c)
            {
                const auto* source = inputs != nullptr && inputs[c] != nullptr ? inputs[c] + start : silence;
                std::copy (source, source + length, pieces[c]);
            }

            processInPlace (*guard, pieces, length);

            for (int c = 0; c < channels; ++c)
                if (outputs[c] != nullptr)
                    std::copy (pieces[c], pieces[c] + length, outputs[c] + start);
        }
    }

    // Outputs the layout leaves unused.
    for (int c = channels; c < numChannels; ++c)
        if (c < effect->numOutputs && outputs[c] != nullptr)
            std::fill (outputs[c], outputs[c] + numSamples, 0.0f);

    // The host learns a new latency from the block of the switch: a plain store.
    effect->initialDelay = guard->processor->getLatencyOfLastBlock();
}

// Quenda does not offer 64-bit processing; a host that asks anyway gets silence.
void VSTCALLBACK processDoubleReplacing (AEffect*, double**, double** outputs, int numSamples)
{
    if (outputs == nullptr || numSamples <= 0)
        return;

    for (int c = 0; c < numChannels; ++c)
        if (outputs[c] != nullptr)
            std::fill (outputs[c], outputs[c] + numSamples, 0.0);
}

void VSTCALLBACK setParameter (AEffect* effect, int index, float value)
{
    // A non-finite value is ignored, as a saved state's would be.
    if (auto* guard = guardFor (effect); guard != nullptr && std::isfinite (value))
        guard->setParameter (effect, index, value);
}

bool writesThroughPointer (int opcode) noexcept
{
    switch (opcode)
    {
        case effSetProgramName:
        case effGetProgramName:
        case effGetParamLabel:
        case effGetParamDisplay:
        case effGetParamName:
        case effEditGetRect:
        case effGetChunk:
        case effSetChunk:
        case effProcessEvents:
        case effString2Parameter:
        case effGetProgramNameIndexed:
        case effGetInputProperties:
        case effGetOutputProperties:
        case effSetSpeakerArrangement:
        case effGetEffectName:
        case effGetVendorString:
        case effGetProductString:
        case effCanDo:
        case effGetSpeakerArrangement:
            return true;

        default:
            return false;
    }
}

VstIntPtr resume (Guard& guard, AEffect* effect, VstIntPtr value, void* ptr, float opt)
{
    // A second resume prepares again: no block may run meanwhile.
    stopAudio (guard);

    const auto size = guard.declaredBlockSize;

    if (size != guard.preparedBlockSize)
    {
        guard.buffers.assign ((size_t) size * (numChannels + 1), 0.0f);
        guard.preparedBlockSize = size;
    }

    const auto result = guard.dispatcher (effect, effMainsChanged, 0, value, ptr, opt);
    guard.channels = juce::jlimit (0, numChannels, std::min (guard.processor->getTotalNumInputChannels(), guard.processor->getTotalNumOutputChannels()));
    guard.resumed = true;
    return result;
}

VstIntPtr VSTCALLBACK dispatcher (AEffect* effect, int opcode, int index, VstIntPtr value, void* ptr, float opt)
{
    auto* guard = guardFor (effect);

    if (guard == nullptr)
        return 0;

    if (ptr == nullptr && writesThroughPointer (opcode))
        return 0;

    // The input arrangement comes in `value`, as a pointer.
    if ((opcode == effSetSpeakerArrangement || opcode == effGetSpeakerArrangement) && value == 0)
        return 0;

    // The layout changes only while suspended: the prepared buffers follow it at resume.
    if (opcode == effSetSpeakerArrangement && guard->resumed.load())
        return 0;

    switch (opcode)
    {
        case effSetSampleRate:
            // A rate no filter can be designed for is refused; the last valid one stays.
            if (! (std::isfinite (opt) && opt > 0.0f))
                return 0;

            // JUCE keeps a rate set while resumed for the next resume. The kernels for it are
            // made here, on the host's thread, so that its first block needs nothing.
            if (guard->resumed.load())
                guard->processor->rateSetWhileResumed (opt);
            break;

        case effSetBlockSize:
            if (value <= 0)
                return 0;

            // Longer blocks than this are processed in pieces.
            value = std::min (value, (VstIntPtr) QuendaAudioProcessor::largestBlockSize);
            guard->declaredBlockSize = (int) value;
            break;

        case effSetChunk:
            if (value <= 0 || value > std::numeric_limits<int>::max())
                return 0;
            break;

        case effSetBypass:
            guard->hostBypass = value != 0;
            break;

        case effMainsChanged:
            if (value != 0)
                return resume (*guard, effect, value, ptr, opt);

            stopAudio (*guard);
            break;

        case effClose:
        {
            stopAudio (*guard);
            removeGuard (guard);
            const auto result = guard->dispatcher (effect, opcode, index, value, ptr, opt);
            delete guard;
            return result;
        }

        default:
            break;
    }

    return guard->dispatcher (effect, opcode, index, value, ptr, opt);
}

AEffect* createGuardedEffect (audioMasterCallback host)
{
    if (host == nullptr)
        return nullptr;

    auto* effect = quendaJuceVstEntry (host);

    if (effect == nullptr)
        return nullptr;

    auto guard = std::make_unique<Guard>();
    guard->effect = effect;
    guard->processor = QuendaAudioProcessor::lastCreatedOnThisThread();
    guard->dispatcher = effect->dispatcher;
    guard->setParameter = effect->setParameter;

    if (guard->processor == nullptr || ! addGuard (guard.get()))
    {
        effect->dispatcher (effect, effClose, 0, 0, nullptr, 0.0f);
        return nullptr;
    }

    effect->dispatcher = dispatcher;
    effect->process = nullptr;
    effect->processReplacing = processReplacing;
    effect->processDoubleReplacing = processDoubleReplacing;
    effect->setParameter = setParameter;
    guard.release();
    return effect;
}
}

#if defined(_WIN32)
 #define QUENDA_EXPORT extern "C" __declspec(dllexport)
#else
 #define QUENDA_EXPORT extern "C" __attribute__ ((visibility ("default")))
#endif

QUENDA_EXPORT AEffect* VSTPluginMain (audioMasterCallback host);
QUENDA_EXPORT AEffect* VSTPluginMain (audioMasterCallback host)
{
    return createGuardedEffect (host);
}
