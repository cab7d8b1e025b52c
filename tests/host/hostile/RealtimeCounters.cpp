// SPDX-License-Identifier: GPL-3.0-or-later
#include "RealtimeCounters.h"

#if defined(__linux__)

 #include <dlfcn.h>
 #include <pthread.h>

 #include <cstddef>
 #include <cstdlib>

 #if defined(__SANITIZE_ADDRESS__)
  #define QUENDA_COUNT_WITH_ASAN 1
 #elif defined(__has_feature)
  #if __has_feature(address_sanitizer)
   #define QUENDA_COUNT_WITH_ASAN 1
  #endif
 #endif

namespace
{
thread_local bool counting = false;
thread_local counters::Counts counts;

void countAllocation() noexcept
{
    if (counting)
        ++counts.allocations;
}

using MutexCall = int (*) (pthread_mutex_t*);

// Looked up before main, while nothing is counted.
MutexCall realLock = reinterpret_cast<MutexCall> (dlsym (RTLD_NEXT, "pthread_mutex_lock"));
MutexCall realTryLock = reinterpret_cast<MutexCall> (dlsym (RTLD_NEXT, "pthread_mutex_trylock"));
}

extern "C" int pthread_mutex_lock (pthread_mutex_t* mutex)
{
    if (counting)
        ++counts.locks;

    return realLock (mutex);
}

extern "C" int pthread_mutex_trylock (pthread_mutex_t* mutex)
{
    if (counting)
        ++counts.locks;

    return realTryLock (mutex);
}

 #if defined(QUENDA_COUNT_WITH_ASAN)

  #include <sanitizer/allocator_interface.h>

namespace
{
void onAllocation (const volatile void*, size_t)
{
    countAllocation();
}
void onFree (const volatile void*) {}

const int hooksInstalled = __sanitizer_install_malloc_and_free_hooks (onAllocation, onFree);
}

 #else

// glibc's own entry points; operator new comes through malloc.
extern "C" void* __libc_malloc (size_t);
extern "C" void* __libc_calloc (size_t, size_t);
extern "C" void* __libc_realloc (void*, size_t);
extern "C" void* __libc_memalign (size_t, size_t);

extern "C" void* malloc (size_t size)
{
    countAllocation();
    return __libc_malloc (size);
}
extern "C" void* calloc (size_t count, size_t size)
{
    countAllocation();
    return __libc_calloc (count, size);
}
extern "C" void* realloc (void* memory, size_t size)
{
    countAllocation();
    return __libc_realloc (memory, size);
}
extern "C" void* aligned_alloc (size_t alignment, size_t size)
{
    countAllocation();
    return __libc_memalign (alignment, size);
}
extern "C" void* memalign (size_t alignment, size_t size)
{
    countAllocation();
    return __libc_memalign (alignment, size);
}

extern "C" int posix_memalign (void** memory, size_t alignment, size_t size)
{
    countAllocation();
    *memory = __libc_memalign (alignment, size);
    return *memory != nullptr ? 0 : 12;   // ENOMEM
}

 #endif

namespace counters
{
bool available() noexcept
{
    return realLock != nullptr && realTryLock != nullptr;
}
void begin() noexcept
{
    counts = {};
    counting = true;
}
Counts end() noexcept
{
    counting = false;
    return counts;
}
}

#else

namespace counters
{
bool available() noexcept
{
    return false;
}
void begin() noexcept {}
Counts end() noexcept
{
    return {};
}
}

#endif
