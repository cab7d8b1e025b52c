// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/TiltKernelBank.h"

#include <algorithm>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace
{
/** Partitioned kernels shared by every instance that designed the same taps for the same
        layout; a copy lives as long as a kernel set of some instance holds it. */
std::shared_ptr<const convolution::PartitionedKernels> sharedPartitions (const convolution::PartitionLayout& layout,
                                                                         const TiltKernelTaps& taps)
{
    struct Entry
    {
        TiltKernelTaps taps;
        convolution::PartitionedKernels partitions;
    };

    static std::mutex mutex;
    static std::vector<std::weak_ptr<const Entry>> entries;

    const std::lock_guard<std::mutex> lock (mutex);

    entries.erase (std::remove_if (entries.begin(), entries.end(), [] (auto& e)
                                   { return e.expired(); }),
                   entries.end());

    for (auto& weak : entries)
    {
        if (auto entry = weak.lock())
        {
            if (entry->partitions.getLayout().levels == layout.levels
                && entry->taps.linearFalling == taps.linearFalling && entry->taps.linearRising == taps.linearRising
                && entry->taps.minimumFalling == taps.minimumFalling && entry->taps.minimumRising == taps.minimumRising)
                return { entry, &entry->partitions };
        }
    }

    auto entry = std::make_shared<Entry>();
    entry->taps = taps;
    entry->partitions.prepare (layout);
    entry->partitions.setKernel (TiltKernelSet::linearFalling, taps.linearFalling.data(), (int) taps.linearFalling.size());
    entry->partitions.setKernel (TiltKernelSet::linearRising, taps.linearRising.data(), (int) taps.linearRising.size());
    entry->partitions.setKernel (TiltKernelSet::minimumFalling, taps.minimumFalling.data(), (int) taps.minimumFalling.size());
    entry->partitions.setKernel (TiltKernelSet::minimumRising, taps.minimumRising.data(), (int) taps.minimumRising.size());

    std::shared_ptr<const Entry> shared = std::move (entry);
    entries.push_back (shared);
    return { shared, &shared->partitions };
}
}

TiltKernelBank::Designing::Designing (std::atomic<bool>& f)
    : flag (f)
{
    while (flag.exchange (true))
        std::this_thread::yield();
}

void TiltKernelBank::prepare (const convolution::PartitionLayout& newLayout, int newFftSize)
{
    const Designing designingHere (designing);

    usable = 0;
    inUse = -1;

    for (auto& set : sets)
        set.partitions.reset();

    layout = newLayout;

    if (newFftSize != fftSize)
        designer.prepare (newFftSize);

    fftSize = newFftSize;

    // Everything a design in a block writes, made here.
    mainFft.init ((size_t) fftSize);
    minimumPhaseFft.init ((size_t) tilt::minimumPhaseFftSize);
    spectra.resize (fftSize);

    for (auto* kernel : { &taps.linearFalling, &taps.linearRising, &taps.minimumFalling, &taps.minimumRising })
        kernel->reserve ((size_t) tilt::kernelLength);

    for (size_t index = 0; index < numSets; ++index)
    {
        retired[index].reset();
        inBlockPartitions[index] = std::make_shared<convolution::PartitionedKernels>();
        inBlockPartitions[index]->prepare (layout);
    }
}

void TiltKernelBank::design (double sampleRate)
{
    const Designing designingHere (designing);

    for (auto& partitions : retired)
        partitions.reset();

    const auto current = usable.load();
    auto target = 0;

    while (isUsable (current, target))
        ++target;

    // The audio thread may still be in a block that started before the set was dropped.
    while (inUse.load() == target)
        std::this_thread::yield();

    designer.design (sampleRate, mainFft, minimumPhaseFft, spectra, &taps);
    sets[(size_t) target].partitions = sharedPartitions (layout, taps);
    publish (target, sampleRate, current);
}

bool TiltKernelBank::designInBlock (double sampleRate) noexcept
{
    if (designing.exchange (true))
        return false;

    const auto current = usable.load();
    auto target = 0;

    while (isUsable (current, target))
        ++target;

    // The set's own partitions, which no other set holds. What the set held may be the last
    // reference to its partitions: they wait in its retired slot, empty since the design on
    // another thread that wrote them.
    auto& set = sets[(size_t) target];
    auto& own = inBlockPartitions[(size_t) target];

    if (set.partitions != own)
        retired[(size_t) target] = std::exchange (set.partitions, own);

    designer.design (sampleRate, mainFft, minimumPhaseFft, spectra, &taps);

    own->setKernel (TiltKernelSet::linearFalling, taps.linearFalling.data(), (int) taps.linearFalling.size());
    own->setKernel (TiltKernelSet::linearRising, taps.linearRising.data(), (int) taps.linearRising.size());
    own->setKernel (TiltKernelSet::minimumFalling, taps.minimumFalling.data(), (int) taps.minimumFalling.size());
    own->setKernel (TiltKernelSet::minimumRising, taps.minimumRising.data(), (int) taps.minimumRising.size());
    publish (target, sampleRate, current);

    designing.store (false);
    return true;
}

void TiltKernelBank::publish (int target, double sampleRate, int current) noexcept
{
    auto& set = sets[(size_t) target];
    set.sampleRate = sampleRate;
    set.fftSize = fftSize;
    set.generation = ++generations;

    // The one before: the newest unless it was for this rate too.
    const auto newest = newestOf (current);
    const auto kept = newest >= 0 && sets[(size_t) newest].sampleRate != sampleRate ? newest : previousOf (current);
    usable = (target + 1) | ((kept + 1) << 2);
}

bool TiltKernelBank::hasKernelsFor (double sampleRate)
{
    const Designing designingHere (designing);

    // Only designers change the sets and their roles, one at a time.
    const auto current = usable.load();

    for (const auto index : { newestOf (current), previousOf (current) })
        if (index >= 0 && sets[(size_t) index].sampleRate == sampleRate)
            return true;

    return false;
}

const TiltKernelSet* TiltKernelBank::acquire (double sampleRate) noexcept
{
    // Mark a candidate, then check it is still usable: a design that dropped it in between
    // either sees the mark and waits, or is seen here.
    for (auto attempt = 0; attempt < 4; ++attempt)
    {
        const auto current = usable.load();
        auto changed = false;

        for (const auto index : { newestOf (current), previousOf (current) })
        {
            if (index < 0)
                continue;

            inUse = index;

            if (usable.load() != current)
            {
                changed = true;
                break;
            }

            if (sampleRate <= 0.0 || sets[(size_t) index].sampleRate == sampleRate)
                return &sets[(size_t) index];
        }

        if (! changed)
            break;
    }

    inUse = -1;
    return nullptr;
}
void TiltKernelBank::release() noexcept
{
    inUse = -1;
}
