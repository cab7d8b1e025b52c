// SPDX-License-Identifier: GPL-3.0-or-later
// Replaces the global operator new and delete of this test program. Other threads (JUCE's,
// gtest's) allocate as usual and are not counted.

#include "AllocationCounter.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace
{
    thread_local bool counting = false;
    thread_local long count = 0;

    void* allocate (std::size_t size) noexcept
    {
        if (counting)
            ++count;

        return std::malloc (size == 0 ? 1 : size);
    }

    void* allocateAligned (std::size_t size, std::align_val_t alignment) noexcept
    {
        if (counting)
            ++count;

        const auto align = std::max (static_cast<std::size_t> (alignment), sizeof (void*));
        void* memory = nullptr;
        return posix_memalign (&memory, align, size == 0 ? 1 : size) == 0 ? memory : nullptr;
    }

    void* orThrow (void* memory)
    {
        if (memory == nullptr)
            throw std::bad_alloc();

        return memory;
    }
}

namespace allocation_counter
{
    void start() noexcept
    {
        count = 0;
        counting = true;
    }

    long stop() noexcept
    {
        counting = false;
        return count;
    }
}

void* operator new (std::size_t size)                                            { return orThrow (allocate (size)); }
void* operator new[] (std::size_t size)                                          { return orThrow (allocate (size)); }
void* operator new (std::size_t size, const std::nothrow_t&) noexcept            { return allocate (size); }
void* operator new[] (std::size_t size, const std::nothrow_t&) noexcept          { return allocate (size); }
void* operator new (std::size_t size, std::align_val_t a)                        { return orThrow (allocateAligned (size, a)); }
void* operator new[] (std::size_t size, std::align_val_t a)                      { return orThrow (allocateAligned (size, a)); }
void* operator new (std::size_t size, std::align_val_t a, const std::nothrow_t&) noexcept   { return allocateAligned (size, a); }
void* operator new[] (std::size_t size, std::align_val_t a, const std::nothrow_t&) noexcept { return allocateAligned (size, a); }

void operator delete (void* p) noexcept                                          { std::free (p); }
void operator delete[] (void* p) noexcept                                        { std::free (p); }
void operator delete (void* p, const std::nothrow_t&) noexcept                   { std::free (p); }
void operator delete[] (void* p, const std::nothrow_t&) noexcept                 { std::free (p); }
void operator delete (void* p, std::size_t) noexcept                             { std::free (p); }
void operator delete[] (void* p, std::size_t) noexcept                           { std::free (p); }
void operator delete (void* p, std::align_val_t) noexcept                        { std::free (p); }
void operator delete[] (void* p, std::align_val_t) noexcept                      { std::free (p); }
void operator delete (void* p, std::size_t, std::align_val_t) noexcept           { std::free (p); }
void operator delete[] (void* p, std::size_t, std::align_val_t) noexcept         { std::free (p); }
void operator delete (void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free (p); }
void operator delete[] (void* p, std::align_val_t, const std::nothrow_t&) noexcept { std::free (p); }
