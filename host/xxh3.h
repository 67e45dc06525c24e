// xxHash for the host's check values and digests. Internal to the host.
#pragma once

#define XXH_STATIC_LINKING_ONLY   // XXH3_state_t on the stack
#include <xxhash.h>

#if defined(__x86_64__)
// The library's run-time dispatch: the same XXH3 values, computed with the widest
// vector unit the CPU has (AVX2, AVX-512) rather than the SSE2 it is built for; about
// twice as fast over extents of data.
#include <xxh_x86dispatch.h>
#endif
