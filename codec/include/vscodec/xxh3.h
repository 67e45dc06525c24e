// xxHash for the host's check values and digests. Internal to the host.
#pragma once

#define XXH_STATIC_LINKING_ONLY  // XXH3_state_t on the stack
#include <xxhash.h>

#if defined(__x86_64__)
// The library's run-time dispatch: the same XXH3 values, computed with the widest
// vector unit the CPU has (AVX2, AVX-512) rather than the SSE2 it is built for; about
// four times as fast over an extent.
#include <xxh_x86dispatch.h>
#endif

namespace vshost::detail {

// To be called after hashing. The dispatched code returns with the upper halves of
// the vector registers still in use, and until they are cleared every SSE instruction
// the process runs pays a state transition (the library's own SSE2 XXH3 ran four times
// slower after it). Our code never keeps values there, so clearing them is free.
inline void AfterVectorHash() {
#if defined(__x86_64__)
    static const bool avx = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("avx") != 0;
    }();
    if (avx) __asm__ volatile("vzeroupper");
#endif
}

}  // namespace vshost::detail
