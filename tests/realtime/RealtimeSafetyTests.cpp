// SPDX-License-Identifier: GPL-3.0-or-later
// The audio thread must not allocate, whatever the host automates, on blocks of any size,
// even longer than the host declared. This program replaces every form of the global
// operator new and delete to count the calling thread's allocations.

#include "tests/support/ReadyProcessor.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

using namespace support;

namespace
{
thread_local long allocations = -1;   // counted while not negative

void* counted (std::size_t size, std::size_t alignment, bool nothrow)
{
    allocations += allocations >= 0 ? 1 : 0;
    auto* memory = std::aligned_alloc (alignment, (size / alignment + 1) * alignment);   // a multiple, as it asks
    return memory != nullptr || nothrow ? memory : throw std::bad_alloc();
}

long allocationsIn (Processor& processor, juce::AudioBuffer<float>& block)
{
    juce::MidiBuffer midi;
    allocations = 0;
    processor.processBlock (block, midi);
    return std::exchange (allocations, -1);
}
}

// <new> declares the sized forms only where sized deallocation is on (gcc's default, not clang's).
#if ! defined(__cpp_sized_deallocation)
void operator delete (void*, std::size_t) noexcept;
void operator delete[] (void*, std::size_t) noexcept;
void operator delete (void*, std::size_t, std::align_val_t) noexcept;
void operator delete[] (void*, std::size_t, std::align_val_t) noexcept;
#endif

void* operator new (std::size_t n)
{
    return counted (n, alignof (std::max_align_t), false);
}
void* operator new[] (std::size_t n)
{
    return counted (n, alignof (std::max_align_t), false);
}
void* operator new (std::size_t n, const std::nothrow_t&) noexcept
{
    return counted (n, alignof (std::max_align_t), true);
}
void* operator new[] (std::size_t n, const std::nothrow_t&) noexcept
{
    return counted (n, alignof (std::max_align_t), true);
}
void* operator new (std::size_t n, std::align_val_t a)
{
    return counted (n, (std::size_t) a, false);
}
void* operator new[] (std::size_t n, std::align_val_t a)
{
    return counted (n, (std::size_t) a, false);
}
void* operator new (std::size_t n, std::align_val_t a, const std::nothrow_t&) noexcept
{
    return counted (n, (std::size_t) a, true);
}
void* operator new[] (std::size_t n, std::align_val_t a, const std::nothrow_t&) noexcept
{
    return counted (n, (std::size_t) a, true);
}
void operator delete (void* p) noexcept
{
    std::free (p);
}
void operator delete[] (void* p) noexcept
{
    std::free (p);
}
void operator delete (void* p, const std::nothrow_t&) noexcept
{
    std::free (p);
}
void operator delete[] (void* p, const std::nothrow_t&) noexcept
{
    std::free (p);
}
void operator delete (void* p, std::size_t) noexcept
{
    std::free (p);
}
void operator delete[] (void* p, std::size_t) noexcept
{
    std::free (p);
}
void operator delete (void* p, std::align_val_t) noexcept
{
    std::free (p);
}
void operator delete[] (void* p, std::align_val_t) noexcept
{
    std::free (p);
}
void operator delete (void* p, std::size_t, std::align_val_t) noexcept
{
    std::free (p);
}
void operator delete[] (void* p, std::size_t, std::align_val_t) noexcept
{
    std::free (p);
}
void operator delete (void* p, std::align_val_t, const std::nothrow_t&) noexcept
{
    std::free (p);
}
void operator delete[] (void* p, std::align_val_t, const std::nothrow_t&) noexcept
{
    std::free (p);
}

TEST (RealtimeSafety, NoBlockAllocatesWhateverItsSizeOrSettings)
{
    // Each scenario switches its parameters between two values every third block.
    struct Change
    {
        int index;
        float first, second;
    };
    const std::vector<Change> scenarios[] = {
        { { ParameterTable::tiltIndex, 0.9f, -0.9f } },
        { { ParameterTable::tiltIndex, 0.5f, 0.5f }, { ParameterTable::linPhaseIndex, 1.0f, 0.0f } },
        { { ParameterTable::tiltIndex, -0.7f, -0.7f }, { ParameterTable::lowIndex, -3.0f, 4.0f }, { ParameterTable::highIndex, 2.0f, -2.0f }, { ParameterTable::lowFreqIndex, 20.0f, 300.0f }, { ParameterTable::highFreqIndex, 15000.0f, 3000.0f }, { ParameterTable::trimIndex, -2.0f, 2.0f } },
        { { ParameterTable::tiltIndex, 0.6f, 0.6f }, { ParameterTable::lowIndex, 3.0f, 3.0f }, { ParameterTable::bypassIndex, 1.0f, 0.0f } },
    };
    const int blockSizes[] = { 512, 100, 1, 2000, 37 };   // 2000: past the declared 512

    for (auto linearPhase : { 0.0f, 1.0f })
    {
        for (size_t s = 0; s < std::size (scenarios); ++s)
        {
            SCOPED_TRACE ("scenario " + std::to_string (s) + ", linear phase " + std::to_string (linearPhase));
            Processor processor;
            setParameter (processor, ParameterTable::linPhaseIndex, linearPhase);
            makeReady (processor, 512);
            const auto input = makeNoise (2, 2000, 5);
            bool soundChanged = false;   // proves the blocks took the processing path, not the dry one

            for (int k = 0; k < 24; ++k)
            {
                for (const auto& change : scenarios[s])
                    setParameter (processor, change.index, (k / 3) % 2 == 0 ? change.first : change.second);

                auto audio = input;
                auto block = blockOf (audio, 0, blockSizes[k % 5]);
                EXPECT_EQ (0, allocationsIn (processor, block)) << "block " << k;
                soundChanged = soundChanged || audio.getSample (0, 0) != input.getSample (0, 0);
            }

            EXPECT_TRUE (soundChanged);

            allocations = 0;
            processor.prepareToPlay (48000.0, 1024);
            EXPECT_GT (std::exchange (allocations, -1), 0) << "the counter missed the preparation's buffers";
        }
    }
}

// A VST2 host that sets a new rate while running (Audacity does): the block that learns it
// from the host's time info designs the kernels for it without allocating, and processes.
TEST (RealtimeSafety, ARateTheHostSetsWhileRunningAllocatesNothing)
{
    struct
    {
        double samplePosition = 0, sampleRate = 44100;
    } hostTime;
    Processor processor;
    processor.handleVstHostCallbackAvailable ([&hostTime] (juce::int32 opcode, juce::int32, juce::pointer_sized_int, void*, float)
                                              {
        constexpr juce::int32 getTime = 7;
        return opcode == getTime ? (juce::pointer_sized_int) &hostTime : 0; });
    setParameter (processor, ParameterTable::tiltIndex, 0.8f);
    makeReady (processor, 512, 44100.0);
    hostTime.sampleRate = 48000;

    const auto input = makeNoise (2, 512, 5);
    auto audio = input;

    for (int k = 0; k < 3; ++k)
    {
        audio = input;
        auto block = blockOf (audio, 0, 512);
        EXPECT_EQ (0, allocationsIn (processor, block)) << "block " << k;
        EXPECT_EQ (48000.0, processor.getSampleRate());
        EXPECT_GT (maxDifference (audio, input), 0.01f) << "block " << k << " left dry";
    }
}
