// XXH3 as the library's exported functions compute it, without the run-time dispatch
// the host uses: the "before" of the checksum benchmarks.
#include "xxh_plain.h"

#include <xxhash.h>

uint64_t PlainXXH3_64(const void* data, size_t length, uint64_t seed) {
    return XXH3_64bits_withSeed(data, length, seed);
}

uint64_t PlainXXH3_128(const void* data, size_t length) {
    const XXH128_hash_t h = XXH3_128bits(data, length);
    return h.low64 ^ h.high64;
}
