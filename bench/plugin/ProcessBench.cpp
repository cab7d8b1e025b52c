// SPDX-License-Identifier: GPL-3.0-or-later
// What the plug-in costs: CPU time per second of stereo 48 kHz audio through processBlock,
// and the time of one kernel computation.

#include "plugin/PluginProcessor.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <ctime>
#include <string>

namespace
{
constexpr double sampleRate = 48000.0;

enum class Tilt
{
    zero,
    gliding,
    positive,
    negative
};

const char* nameOf (Tilt tilt)
{
    switch (tilt)
    {
        case Tilt::zero: return "0";
        case Tilt::gliding: return "gliding";
        case Tilt::positive: return "+0.7";
        case Tilt::negative: return "-0.7";
    }

    return "";
}

/** A processor past its silent and dry first blocks and its first kernel computation. */
struct ReadyProcessor
{
    ReadyProcessor (int blockSize, bool linearPhase)
        : input (2, blockSize), buffer (2, blockSize)
    {
        set (ParameterTable::linPhaseIndex, linearPhase ? 1.0f : 0.0f);
        processor.setPlayConfigDetails (2, 2, sampleRate, blockSize);
        processor.prepareToPlay (sampleRate, blockSize);

        for (int block = 0; block < 2; ++block)
            processor.processBlock (buffer, midi);

        processor.runPendingKernelDesign();

        juce::Random random (1);
        for (int channel = 0; channel < 2; ++channel)
            for (int i = 0; i < blockSize; ++i)
                input.setSample (channel, i, random.nextFloat() - 0.5f);
    }

    void set (int index, float value) { processor.getParameters()[index]->setValue (value); }

    /** Fresh input every block: feeding the output back would drift into denormals or overflow. */
    void processBlock()
    {
        for (int channel = 0; channel < 2; ++channel)
            buffer.copyFrom (channel, 0, input, channel, 0, input.getNumSamples());

        processor.processBlock (buffer, midi);
    }

    // The kernel computation is posted to the message thread, which must exist.
    juce::ScopedJuceInitialiser_GUI juceInitialiser;
    QuendaAudioProcessor processor;
    juce::AudioBuffer<float> input, buffer;
    juce::MidiBuffer midi;
};

void processAudio (benchmark::State& state, int blockSize, Tilt tilt, bool linearPhase)
{
    ReadyProcessor ready (blockSize, linearPhase);
    ready.set (ParameterTable::tiltIndex, tilt == Tilt::positive ? 0.7f : tilt == Tilt::negative ? -0.7f
                                                                                                 : 0.0f);

    // Lets the first block's glide from the old tilt pass before measuring.
    ready.processBlock();
    int block = 0;

    for (auto _ : state)
    {
        if (tilt == Tilt::gliding)
            ready.set (ParameterTable::tiltIndex, 0.7f * std::sin (0.05f * (float) ++block));

        ready.processBlock();
        benchmark::DoNotOptimize (ready.buffer.getReadPointer (0));
    }

    state.SetItemsProcessed (state.iterations() * blockSize);

    // Audio seconds per CPU second, inverted: the share of one core that real time needs.
    state.counters["cpu_per_audio_second"] = benchmark::Counter (blockSize / sampleRate,
                                                                 benchmark::Counter::kIsIterationInvariantRate
                                                                     | benchmark::Counter::kInvert);
}

/** Noise at a denormal or near-denormal level against noise at -6 dBFS, block for block
        in the same run: "ratio" is what a quiet passage costs more. */
void denormalInput (benchmark::State& state, float level, bool linearPhase)
{
    constexpr int blockSize = 64;
    ReadyProcessor normal (blockSize, linearPhase), quiet (blockSize, linearPhase);

    for (auto* ready : { &normal, &quiet })
    {
        ready->set (ParameterTable::tiltIndex, 0.7f);
        ready->set (ParameterTable::lowIndex, 3.0f);
        ready->set (ParameterTable::highIndex, -2.0f);
    }

    quiet.input.applyGain (level / 0.5f);

    // Long enough for every filter and convolution state to settle at the input's level.
    for (int block = 0; block < 400; ++block)
    {
        normal.processBlock();
        quiet.processBlock();
    }

    // Thread CPU time, so that other programs on the machine do not count; the order
    // alternates so that neither always finds the caches warm.
    const auto timed = [] (ReadyProcessor& ready)
    {
        timespec start {}, end {};
        clock_gettime (CLOCK_THREAD_CPUTIME_ID, &start);
        ready.processBlock();
        clock_gettime (CLOCK_THREAD_CPUTIME_ID, &end);
        return (double) (end.tv_sec - start.tv_sec) * 1e6 + (double) (end.tv_nsec - start.tv_nsec) * 1e-3;
    };

    double normalTime = 0.0, quietTime = 0.0;
    bool normalFirst = true;

    for (auto _ : state)
    {
        if (normalFirst)
        {
            normalTime += timed (normal);
            quietTime += timed (quiet);
        }
        else
        {
            quietTime += timed (quiet);
            normalTime += timed (normal);
        }

        normalFirst = ! normalFirst;
        benchmark::DoNotOptimize (quiet.buffer.getReadPointer (0));
    }

    const auto perBlock = [&] (double total)
    { return total / (double) state.iterations(); };
    state.counters["normal_us"] = perBlock (normalTime);
    state.counters["quiet_us"] = perBlock (quietTime);
    state.counters["ratio"] = perBlock (quietTime) / perBlock (normalTime);
}

/** One kernel computation, as the message thread runs it after a change of sample rate. */
void computeKernels (benchmark::State& state)
{
    const auto blockSize = (int) state.range (0);
    ReadyProcessor ready (blockSize, true);

    for (auto _ : state)
    {
        ready.processor.requestKernelDesign();
        ready.processor.runPendingKernelDesign();
    }

    state.counters["fft_size"] = tilt::designFftSize;
}

/** What a VST2 host's rate set while resumed costs on its own thread: the kernels designed
        ahead for a rate the instance has none for (three rates in turn, two kept). */
void setRateWhileResumed (benchmark::State& state)
{
    ReadyProcessor ready (512, true);
    const double rates[] = { 44100.0, 96000.0, sampleRate };
    size_t next = 0;

    for (auto _ : state)
        ready.processor.rateSetWhileResumed (rates[next++ % 3]);
}

/** The audio thread's share of a rate change: the first block at the new rate (shelves
        redesigned, the convolution caught up on other kernels) against the block after it.
        Kernels made ahead (two rates in turn, both kept), or designed in that first block (a
        host that only says the rate in its time info; three rates in turn, so every change
        designs). */
void firstBlockAtANewRate (benchmark::State& state, int blockSize, bool linearPhase, bool designedAhead)
{
    ReadyProcessor ready (blockSize, linearPhase);
    ready.set (ParameterTable::tiltIndex, 0.7f);
    ready.set (ParameterTable::lowIndex, 3.0f);
    ready.processBlock();

    const double rates[] = { 44100.0, 96000.0, sampleRate };
    size_t next = 0;
    double firstBlocks = 0.0, laterBlocks = 0.0;

    for (auto _ : state)
    {
        state.PauseTiming();
        if (designedAhead)
            ready.processor.rateSetWhileResumed (rates[(next++ % 2) * 2]);
        else
            ready.processor.setRateAndBufferSizeDetails (rates[next++ % 3], blockSize);
        state.ResumeTiming();

        const auto start = std::chrono::steady_clock::now();
        ready.processBlock();
        const auto switched = std::chrono::steady_clock::now();
        ready.processBlock();
        firstBlocks += std::chrono::duration<double, std::micro> (switched - start).count();
        laterBlocks += std::chrono::duration<double, std::micro> (std::chrono::steady_clock::now() - switched).count();
    }

    state.counters["first_block_us"] = firstBlocks / (double) state.iterations();
    state.counters["next_block_us"] = laterBlocks / (double) state.iterations();
}

const bool registered = []
{
    for (auto linearPhase : { false, true })
    {
        for (auto tilt : { Tilt::zero, Tilt::gliding, Tilt::positive, Tilt::negative })
        {
            for (auto blockSize : { 32, 64, 128, 256, 512, 1024, 2048 })
            {
                const auto name = std::string ("process/linear_phase:") + (linearPhase ? "on" : "off")
                                  + "/tilt:" + nameOf (tilt) + "/block:" + std::to_string (blockSize);

                benchmark::RegisterBenchmark (name.c_str(), processAudio, blockSize, tilt, linearPhase)
                    ->Unit (benchmark::kMicrosecond)
                    ->MinTime (0.2);
            }
        }
    }

    for (auto linearPhase : { false, true })
    {
        for (auto level : { 1e-39f, 1e-30f })
        {
            const auto name = std::string ("denormalInput/linear_phase:") + (linearPhase ? "on" : "off")
                              + "/level:" + (level < 1e-35f ? "1e-39" : "1e-30");
            benchmark::RegisterBenchmark (name.c_str(), denormalInput, level, linearPhase)
                ->Unit (benchmark::kMicrosecond)
                ->MinTime (0.5);
        }
    }

    benchmark::RegisterBenchmark ("setRateWhileResumed", setRateWhileResumed)
        ->Unit (benchmark::kMillisecond)
        ->MinTime (0.5);

    for (auto designedAhead : { true, false })
    {
        for (auto linearPhase : { false, true })
        {
            for (auto blockSize : { 64, 512, 2048 })
            {
                const auto name = std::string ("firstBlockAtANewRate/kernels:") + (designedAhead ? "ahead" : "in_block")
                                  + "/linear_phase:" + (linearPhase ? "on" : "off") + "/block:" + std::to_string (blockSize);
                benchmark::RegisterBenchmark (name.c_str(), firstBlockAtANewRate, blockSize, linearPhase, designedAhead)
                    ->Unit (benchmark::kMicrosecond)
                    ->MinTime (0.5);
            }
        }
    }

    benchmark::RegisterBenchmark ("computeKernels", computeKernels)
        ->ArgName ("block")
        ->Arg (512)
        ->Arg (2048)
        ->Unit (benchmark::kMillisecond)
        ->MinTime (0.5);

    return true;
}();
}
