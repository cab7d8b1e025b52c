// SPDX-License-Identifier: GPL-3.0-or-later
// A minimal VST2 host: load the plug-in, call VSTPluginMain and talk to it only through the
// AEffect dispatcher, the way a DAW does. JUCE's own VST2 hosting is not used, since it
// mis-sizes fst's speaker structs.
#pragma once

#include <aeffectx.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#if defined(_WIN32)
 #include <windows.h>
#else
 #include <dlfcn.h>
#endif

namespace vst2host
{

/** The host's side of one instance: its time info, which carries the rate it runs at. */
struct HostState
{
    VstTimeInfo time {};
};

inline VstIntPtr VSTCALLBACK hostCallback (AEffect* effect, int opcode, int, VstIntPtr, void*, float)
{
    auto* host = effect != nullptr ? static_cast<HostState*> (effect->user) : nullptr;

    if (opcode == audioMasterGetTime)
        return host != nullptr ? (VstIntPtr) &host->time : 0;

    return opcode == audioMasterVersion ? 2400 : 0;
}

using PluginMain = AEffect* (*) (audioMasterCallback);

/** The built plug-in's entry point; the library stays loaded for the whole test program, as
    hosts keep it. QUENDA_VST2_PATH in the environment overrides the built one (a Windows path
    under Wine). */
inline PluginMain builtPluginEntry()
{
    static const auto entry = []
    {
        const auto* override = std::getenv ("QUENDA_VST2_PATH");
        const std::string path = override != nullptr ? override : QUENDA_VST2_PATH;
#if defined(_WIN32)
        auto* library = LoadLibraryA (path.c_str());
        if (library == nullptr)
            throw std::runtime_error ("LoadLibrary failed for " + path + ": error " + std::to_string (GetLastError()));
        auto* main = reinterpret_cast<PluginMain> (reinterpret_cast<void*> (GetProcAddress (library, "VSTPluginMain")));
#else
        auto* library = dlopen (path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr)
            throw std::runtime_error (std::string ("dlopen failed: ") + dlerror());
        auto* main = reinterpret_cast<PluginMain> (dlsym (library, "VSTPluginMain"));
#endif
        return main != nullptr ? main : throw std::runtime_error ("VSTPluginMain not exported");
    }();
    return entry;
}

/** One plug-in instance, opened and closed like a host does. */
class Instance
{
public:
    Instance()
        : Instance (builtPluginEntry()) {}

    /** An instance of another plug-in, from its entry point (the peer bench's). */
    explicit Instance (PluginMain entry)
    {
        effect = entry (hostCallback);
        if (effect == nullptr || effect->magic != 0x56737450)
            throw std::runtime_error ("VSTPluginMain returned no effect");
        effect->user = &host;
        dispatch (effOpen);
    }

    ~Instance()
    {
        if (running)
            stop();
        dispatch (effClose);
    }

    Instance (const Instance&) = delete;
    Instance& operator= (const Instance&) = delete;

    VstIntPtr dispatch (int opcode, int index = 0, VstIntPtr value = 0, void* ptr = nullptr, float opt = 0.0f)
    {
        return effect->dispatcher (effect, opcode, index, value, ptr, opt);
    }

    std::string stringFrom (int opcode, int index = 0)
    {
        char text[256] {};
        dispatch (opcode, index, 0, text);
        return text;
    }

    void start (float sampleRate, int blockSize)
    {
        host.time.sampleRate = sampleRate;
        dispatch (effSetSampleRate, 0, 0, nullptr, sampleRate);
        dispatch (effSetBlockSize, 0, blockSize);
        dispatch (effMainsChanged, 0, 1);
        dispatch (effStartProcess);
        running = true;
    }

    /** As Audacity does after preparing: a new rate and block size while resumed. */
    void setRateWhileRunning (float sampleRate, int blockSize)
    {
        host.time.sampleRate = sampleRate;
        dispatch (effSetSampleRate, 0, 0, nullptr, sampleRate);
        dispatch (effSetBlockSize, 0, blockSize);
    }

    /** A host that only says its new rate in its time info. */
    void setTimeInfoRate (float sampleRate) { host.time.sampleRate = sampleRate; }

    void stop()
    {
        dispatch (effStopProcess);
        dispatch (effMainsChanged, 0, 0);
        running = false;
    }

    /** Replaces n samples of each channel from offset on by the plug-in's output. */
    void process (std::vector<float>& left, std::vector<float>& right, int offset, int n)
    {
        std::vector<float> outLeft ((size_t) n), outRight ((size_t) n);
        float* inputs[] = { left.data() + offset, right.data() + offset };
        float* outputs[] = { outLeft.data(), outRight.data() };
        effect->processReplacing (effect, inputs, outputs, n);
        std::copy (outLeft.begin(), outLeft.end(), left.begin() + offset);
        std::copy (outRight.begin(), outRight.end(), right.begin() + offset);
    }

    std::vector<char> getChunk()
    {
        void* data = nullptr;
        const auto size = dispatch (effGetChunk, 0, 0, &data);
        const auto* bytes = static_cast<const char*> (data);
        return size > 0 && bytes != nullptr ? std::vector<char> (bytes, bytes + size) : std::vector<char>();
    }

    void setChunk (std::vector<char> chunk)
    {
        dispatch (effSetChunk, 0, (VstIntPtr) chunk.size(), chunk.data());
    }

    float getParameter (int index) { return effect->getParameter (effect, index); }
    void setParameter (int index, float value) { effect->setParameter (effect, index, value); }
    int latency() const { return effect->initialDelay; }

    AEffect* effect = nullptr;

private:
    HostState host;
    bool running = false;
};

}
