// SPDX-License-Identifier: GPL-3.0-or-later
// Two instances played the way a busy host plays them, built with ThreadSanitizer in CI; in a
// plain build it still checks that the audio stays finite and nothing deadlocks.

#include "plugin/PluginEditor.h"
#include "plugin/ParameterTable.h"
#include "plugin/PluginProcessor.h"

#include <juce_events/juce_events.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace
{
using P = QuendaAudioProcessor;

// Values inside the editor's ranges, where the output must stay finite at every rate used here.
float randomPlainValue (juce::Random& random, int index)
{
    const auto& entry = ParameterTable::entry ((size_t) index);
    return entry.isSwitch ? (random.nextBool() ? 1.0f : 0.0f) : entry.minimum + random.nextFloat() * (entry.maximum - entry.minimum);
}

/** A host's audio callback. Like JUCE's AudioProcessorPlayer it holds the device lock
        around each block, and the message thread takes the same lock to change the rate or
        block size and call prepareToPlay. */
struct AudioThread
{
    AudioThread (P& p, std::atomic<bool>& stop, juce::int64 seed)
        : processor (p), running (stop), random (seed) {}

    void reconfigure (juce::Random& choice)
    {
        const double rates[] = { 44100.0, 48000.0, 96000.0 };
        const int blockSizes[] = { 64, 256, 333, 1024 };
        const auto rate = rates[choice.nextInt (3)];
        const auto blockSize = blockSizes[choice.nextInt (4)];

        const std::lock_guard<std::mutex> stopped (deviceLock);
        processor.setRateAndBufferSizeDetails (rate, blockSize);
        processor.prepareToPlay (rate, blockSize);
        maxBlock = blockSize;
    }

    void run()
    {
        juce::AudioBuffer<float> buffer (2, 1024);
        juce::MidiBuffer midi;

        while (running.load())
        {
            const std::lock_guard<std::mutex> playing (deviceLock);
            const auto n = 1 + random.nextInt (maxBlock);
            juce::AudioBuffer<float> view (buffer.getArrayOfWritePointers(), 2, 0, n);

            for (int i = 0; i < 2 * n; ++i)
                view.setSample (i % 2, i / 2, random.nextFloat() - 0.5f);

            // Hosts also automate from the audio thread, just before the block.
            if (random.nextInt (8) == 0)
            {
                const auto index = random.nextInt (ParameterTable::numParameters);
                processor.getParameters()[index]->setValue (randomPlainValue (random, index));
            }

            // A VST2 host's time info may change the rate between blocks: the kernels for it are
            // designed in the block, while the message thread designs too.
            if (random.nextInt (64) == 0)
                processor.setRateAndBufferSizeDetails (random.nextBool() ? 32000.0 : 22050.0, maxBlock);

            processor.processBlock (view, midi);

            const auto* const* channels = view.getArrayOfReadPointers();
            const auto isFinite = [] (float x)
            { return std::isfinite (x); };
            nonFiniteBlocks += std::all_of (channels[0], channels[0] + n, isFinite) && std::all_of (channels[1], channels[1] + n, isFinite) ? 0 : 1;
            ++blocksPlayed;
        }
    }

    P& processor;
    std::atomic<bool>& running;
    juce::Random random;
    std::mutex deviceLock;
    int maxBlock = 0;
    int blocksPlayed = 0;
    int nonFiniteBlocks = 0;
};
}

TEST (HostThreads, EveryHostThreadAtOnce)
{
    P first, second;
    std::atomic<bool> running { true };

    // The first instance's editor is open: its timer polls every parameter on this thread.
    auto editor = std::unique_ptr<juce::AudioProcessorEditor> (first.createEditorIfNeeded());
    ASSERT_NE (editor, nullptr);

    AudioThread firstAudio (first, running, 1), secondAudio (second, running, 2);
    juce::Random settings (4);
    firstAudio.reconfigure (settings);
    secondAudio.reconfigure (settings);
    std::thread firstThread ([&]
                             { firstAudio.run(); });
    std::thread secondThread ([&]
                              { secondAudio.run(); });

    // Automation from a thread of the host's own, with gestures, on both instances.
    int automationWrites = 0;
    std::thread automation ([&]
                            {
        juce::Random random (3);

        while (running.load())
        {
            auto& processor = random.nextBool() ? first : second;
            const auto index = random.nextInt (ParameterTable::numParameters);
            auto* parameter = processor.getParameters()[index];
            parameter->beginChangeGesture();
            parameter->setValueNotifyingHost (randomPlainValue (random, index));
            parameter->endChangeGesture();
            ++automationWrites;
            std::this_thread::sleep_for (std::chrono::microseconds (200));
        } });

    int restores = 0, reconfigurations = 0;
    const auto* seconds = std::getenv ("QUENDA_STRESS_SECONDS");
    const auto end = juce::Time::getMillisecondCounterHiRes() + 1000.0 * (seconds != nullptr ? std::atof (seconds) : 3.0);

    while (juce::Time::getMillisecondCounterHiRes() < end)
    {
        // Pending kernel computations and the editor's timer run here.
        juce::MessageManager::getInstance()->runDispatchLoopUntil (5);

        juce::MemoryBlock state;
        first.getStateInformation (state);
        second.setStateInformation (state.getData(), (int) state.getSize());
        ++restores;

        // Both instances design kernels on this thread while their audio runs.
        first.requestKernelDesign();
        second.requestKernelDesign();
        first.runPendingKernelDesign();
        second.runPendingKernelDesign();

        // A VST2 host setting a rate while resumed: kernels designed ahead here, the audio
        // thread switching to them at once.
        if (restores % 4 == 1)
            (settings.nextBool() ? first : second).rateSetWhileResumed (settings.nextBool() ? 88200.0 : 44100.0);

        if (restores % 3 == 0)
        {
            (settings.nextBool() ? firstAudio : secondAudio).reconfigure (settings);
            ++reconfigurations;
        }
    }

    running.store (false);
    for (auto* thread : { &firstThread, &secondThread, &automation })
        thread->join();
    editor.reset();

    // Everything ran often enough to meet the others, and no block came out non-finite.
    EXPECT_GT (std::min ({ firstAudio.blocksPlayed, secondAudio.blocksPlayed, automationWrites }), 100);
    EXPECT_TRUE (restores > 10 && reconfigurations > 0) << restores << " restores";
    EXPECT_EQ (0, firstAudio.nonFiniteBlocks + secondAudio.nonFiniteBlocks);
}

// Hosts that delete an instance on a thread of their own while its message thread is still
// designing kernels (JUCE's LV2 host does so on every prepareToPlay), some while holding the
// message thread's lock (JUCE's VST2 wrapper on Linux): the deletion waits for neither, and
// neither a running design nor an update already taken out of the queue touches the instance.
TEST (HostThreads, AnInstanceDeletedWhileItsKernelsAreDesigned)
{
    constexpr int instances = 12;

    for (bool holdingMessageLock : { false, true })
    {
        std::atomic<int> deleted { 0 };

        std::thread host ([&]
                          {
            for (int i = 0; i < instances; ++i)
            {
                auto processor = std::make_unique<P>();
                processor->setRateAndBufferSizeDetails (48000.0, 512);
                processor->requestKernelDesign();
                std::this_thread::sleep_for (std::chrono::milliseconds (i % 4));

                if (holdingMessageLock)
                {
                    const juce::MessageManagerLock lock;
                    processor.reset();
                }
                else
                {
                    processor.reset();
                }

                ++deleted;
            } });

        while (deleted.load() < instances)
            juce::MessageManager::getInstance()->runDispatchLoopUntil (1);

        host.join();   // a failure here is a crash, a hang or a ThreadSanitizer report
        juce::MessageManager::getInstance()->runDispatchLoopUntil (20);
    }
}
