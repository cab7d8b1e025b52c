// SPDX-License-Identifier: GPL-3.0-or-later
// Quenda.so beside a linear-phase equaliser users already run, both loaded through the same
// raw VST2 host in one process and driven in alternation, round after round, so that both
// see the same machine. Reports each one's load (CPU time per second of stereo 48 kHz audio),
// their ratio, and the worst block against the median block (and the costliest block position
// of a repeating schedule, by its median, against the median block).
//
//   quenda_peer_bench [--peer PATH] [google benchmark flags]

#include "tests/host/Vst2Host.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <cstring>
#include <memory>
#include <random>
#include <string>

namespace
{
constexpr float sampleRate = 48000.0f;
std::string peerPath = "/usr/lib/vst/lsp-plugins/para-equalizer-x16-stereo.so";

vst2host::PluginMain entryOf (const std::string& path)
{
    auto* handle = dlopen (path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr)
        return nullptr;
    return reinterpret_cast<vst2host::PluginMain> (dlsym (handle, "VSTPluginMain"));
}

// Parameters by name, and enumerated values by the text the plug-in shows for them.
int parameterIndex (vst2host::Instance& plugin, const char* name)
{
    for (int i = 0; i < plugin.effect->numParams; ++i)
        if (plugin.stringFrom (effGetParamName, i) == name)
            return i;
    return -1;
}

bool setByDisplay (vst2host::Instance& plugin, const char* name, const char* shown)
{
    const auto index = parameterIndex (plugin, name);
    for (int step = 0; index >= 0 && step <= 100; ++step)
    {
        plugin.setParameter (index, (float) step / 100.0f);
        if (plugin.stringFrom (effGetParamDisplay, index).rfind (shown, 0) == 0)
            return true;
    }
    return false;
}

// The peer as a linear-phase equaliser: FIR mode, three bell bands with some gain.
std::unique_ptr<vst2host::Instance> makePeer()
{
    static const auto entry = entryOf (peerPath);
    if (entry == nullptr)
        return nullptr;

    auto peer = std::make_unique<vst2host::Instance> (entry);
    auto configured = setByDisplay (*peer, "mode", "FIR");
    for (const char* band : { "0", "1", "2" })
    {
        configured = setByDisplay (*peer, (std::string ("ft_") + band).c_str(), "Bell") && configured;
        peer->setParameter (parameterIndex (*peer, (std::string ("g_") + band).c_str()), 0.6f);
    }
    return configured ? std::move (peer) : nullptr;
}

std::unique_ptr<vst2host::Instance> makeQuenda (float tilt, bool linearPhase)
{
    auto quenda = std::make_unique<vst2host::Instance>();
    quenda->setParameter (0, tilt);
    quenda->setParameter (2, linearPhase ? 1.0f : 0.0f);
    return quenda;
}

// CPU time of this thread: what a block costs, without the time other programs took the core.
double threadSeconds() noexcept
{
    timespec now {};
    clock_gettime (CLOCK_THREAD_CPUTIME_ID, &now);
    return (double) now.tv_sec + 1.0e-9 * (double) now.tv_nsec;
}

// Plays blocks of noise, timing each one.
struct Player
{
    Player (std::unique_ptr<vst2host::Instance> pluginToPlay, int blockSize)
        : plugin (std::move (pluginToPlay)), left ((size_t) blockSize), right ((size_t) blockSize),
          outLeft ((size_t) blockSize), outRight ((size_t) blockSize)
    {
        plugin->start (sampleRate, blockSize);
        std::mt19937 random (7);
        std::uniform_real_distribution<float> noise (-0.5f, 0.5f);
        for (size_t i = 0; i < left.size(); ++i)
        {
            left[i] = noise (random);
            right[i] = noise (random);
        }
    }

    void play (int blocks, std::vector<double>& times)
    {
        float* inputs[] = { left.data(), right.data() };
        float* outputs[] = { outLeft.data(), outRight.data() };

        for (int b = 0; b < blocks; ++b)
        {
            const auto start = threadSeconds();
            plugin->effect->processReplacing (plugin->effect, inputs, outputs, (int) left.size());
            times.push_back (threadSeconds() - start);
        }
    }

    std::unique_ptr<vst2host::Instance> plugin;
    std::vector<float> left, right, outLeft, outRight;
};

struct Costs
{
    double load = 0, worstOverMedian = 0, p999OverMedian = 0, cycleWorstOverMedian = 0;
};

double medianOf (std::vector<double> times)
{
    std::nth_element (times.begin(), times.begin() + (long) times.size() / 2, times.end());
    return times[times.size() / 2];
}

Costs costsOf (std::vector<double> times, int blockSize)
{
    Costs costs;
    double total = 0;
    for (auto t : times)
        total += t;
    costs.load = total / ((double) times.size() * blockSize / sampleRate);

    // Work that a schedule puts on some blocks of its cycle (at most 16 blocks here) shows
    // in the median of those blocks, which the machine's rare interrupts do not move.
    constexpr size_t positions = 16;
    std::vector<double> atPosition;
    for (size_t position = 0; position < positions; ++position)
    {
        atPosition.clear();
        for (auto i = position; i < times.size(); i += positions)
            atPosition.push_back (times[i]);
        costs.cycleWorstOverMedian = std::max (costs.cycleWorstOverMedian, medianOf (atPosition));
    }
    costs.cycleWorstOverMedian /= medianOf (times);

    std::sort (times.begin(), times.end());
    costs.worstOverMedian = times.back() / times[times.size() / 2];
    // The block that one in a thousand exceeds: the schedule's own worst, without the
    // rare interrupt a shared machine adds to any single block.
    costs.p999OverMedian = times[times.size() * 999 / 1000] / times[times.size() / 2];
    return costs;
}

// One block size: rounds of about 50 ms of audio each, Quenda then the peer.
void sideBySide (benchmark::State& state, float tilt, bool linearPhase)
{
    const auto blockSize = (int) state.range (0);
    auto peer = makePeer();
    if (peer == nullptr)
    {
        state.SkipWithError (("the peer " + peerPath + " is missing or has no FIR mode; bash scripts/bench-peer.sh installs it").c_str());
        return;
    }

    Player quenda (makeQuenda (tilt, linearPhase), blockSize), other (std::move (peer), blockSize);
    const auto blocksPerRound = std::max (1, (int) (0.05 * sampleRate) / blockSize);
    std::vector<double> quendaTimes, peerTimes, warmUp;
    quenda.play (blocksPerRound, warmUp);
    other.play (blocksPerRound, warmUp);

    for (auto _ : state)
    {
        quenda.play (blocksPerRound, quendaTimes);
        other.play (blocksPerRound, peerTimes);
    }

    const auto ours = costsOf (quendaTimes, blockSize), theirs = costsOf (peerTimes, blockSize);
    state.counters["quenda_load"] = ours.load;
    state.counters["peer_load"] = theirs.load;
    state.counters["ratio"] = ours.load / theirs.load;
    state.counters["quenda_worst/median"] = ours.worstOverMedian;
    state.counters["peer_worst/median"] = theirs.worstOverMedian;
    state.counters["quenda_p999/median"] = ours.p999OverMedian;
    state.counters["quenda_cycle_worst/median"] = ours.cycleWorstOverMedian;
    state.counters["peer_p999/median"] = theirs.p999OverMedian;
}

// Many instances on one thread, as a session with a tilt on every bus, the tilt gliding.
void manyInstances (benchmark::State& state)
{
    constexpr int blockSize = 64;
    std::vector<std::unique_ptr<Player>> players;
    for (int i = 0; i < (int) state.range (0); ++i)
        players.push_back (std::make_unique<Player> (makeQuenda (0.5f, i % 2 == 1), blockSize));

    std::vector<double> times;
    int round = 0;
    for (auto _ : state)
    {
        for (auto& player : players)
        {
            player->plugin->setParameter (0, 0.5f - 0.05f * (float) (round % 20));   // a glide every block
            player->play (1, times);
        }
        ++round;
    }

    double total = 0;
    for (auto t : times)
        total += t;
    state.counters["load_all_instances"] = total / ((double) round * blockSize / sampleRate);
}
}

// The machine's own floor for worst / median: blocks of fixed work of about the length of
// a plug-in block, timed the same way. What a schedule cannot go below on this machine.
void machineNoise (benchmark::State& state)
{
    const auto targetSeconds = 1.0e-6 * (double) state.range (0);
    std::vector<float> data (64, 1.0f);
    auto work = [&] (int rounds)
    {
        float sum = 0.0f;
        for (int r = 0; r < rounds; ++r)
            for (auto x : data)
                sum = sum * 0.999f + x;
        benchmark::DoNotOptimize (sum);
    };

    // Rounds of work for about the target length.
    auto rounds = 1;
    for (;; rounds *= 2)
    {
        work (rounds);
        const auto start = threadSeconds();
        work (rounds);
        const auto took = threadSeconds() - start;
        if (took >= targetSeconds || rounds >= (1 << 20))
        {
            rounds = std::max (1, (int) std::lround ((double) rounds * targetSeconds / took));
            break;
        }
    }

    std::vector<double> times;
    for (auto _ : state)
    {
        for (int b = 0; b < 20000; ++b)
        {
            const auto start = threadSeconds();
            work (rounds);
            times.push_back (threadSeconds() - start);
        }
    }

    std::sort (times.begin(), times.end());
    const auto median = times[times.size() / 2];
    state.counters["block_us"] = median * 1.0e6;
    state.counters["p999/median"] = times[times.size() * 999 / 1000] / median;
    state.counters["worst/median"] = times.back() / median;
}

BENCHMARK_CAPTURE (sideBySide, linear_tilt_plus, 0.5f, true)->RangeMultiplier (2)->Range (32, 4096)->Iterations (60)->Unit (benchmark::kMillisecond);
BENCHMARK_CAPTURE (sideBySide, linear_tilt_minus, -0.5f, true)->RangeMultiplier (2)->Range (32, 4096)->Iterations (60)->Unit (benchmark::kMillisecond);
BENCHMARK_CAPTURE (sideBySide, minimum_tilt_plus, 0.5f, false)->RangeMultiplier (2)->Range (32, 4096)->Iterations (60)->Unit (benchmark::kMillisecond);
BENCHMARK_CAPTURE (sideBySide, minimum_tilt_minus, -0.5f, false)->RangeMultiplier (2)->Range (32, 4096)->Iterations (60)->Unit (benchmark::kMillisecond);
BENCHMARK (manyInstances)->Arg (32)->Iterations (750)->Unit (benchmark::kMillisecond);
BENCHMARK (machineNoise)->ArgName ("us")->Arg (5)->Arg (10)->Arg (20)->Iterations (3)->Unit (benchmark::kMillisecond);

int main (int argc, char** argv)
{
    for (int i = 1; i + 1 < argc; ++i)
    {
        if (std::strcmp (argv[i], "--peer") == 0)
        {
            peerPath = argv[i + 1];
            std::rotate (argv + i, argv + i + 2, argv + argc);
            argc -= 2;
            break;
        }
    }

    benchmark::Initialize (&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
