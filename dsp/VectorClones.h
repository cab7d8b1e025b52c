// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// QUENDA_VECTOR_CLONES before a hot loop's function builds it for AVX2 as well; the loader
// picks the version the processor runs. (Not in sanitizer builds: the picking runs before
// the sanitizer's runtime is ready.) Only instructions that round as the plain build does:
// no fused multiply-add.

#if defined(__has_feature)
 #if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  #define QUENDA_SANITIZED 1
 #endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
 #define QUENDA_SANITIZED 1
#endif

#if defined(__linux__) && defined(__x86_64__) && ! defined(QUENDA_SANITIZED)
 #define QUENDA_VECTOR_CLONES __attribute__ ((target_clones ("avx2", "default")))
#else
 #define QUENDA_VECTOR_CLONES
#endif
