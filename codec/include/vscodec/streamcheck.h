// Check values of stream records. Both are seeded with the record's index in the
// stream, so a record that is dropped, repeated or moved fails its check as surely as
// one whose bytes changed. Internal to the host.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vscodec/xxh3.h"

namespace vshost::detail {

// Low 32 bits of XXH3-64 over the frame's first 8 bytes (kind, flags, length): lets a
// decoder trust a length before it reads that many bytes.
inline uint32_t FrameCheck(const char* frame8, uint64_t index) {
    const uint64_t check = XXH3_64bits_withSeed(frame8, 8, index);
    AfterVectorHash();
    return static_cast<uint32_t>(check & 0xffffffffu);
}

// XXH3-64 over the 12-byte frame followed by the payload. The stream header's
// checksum also covers the prologue before it (`prologue` non-null for record 0), so
// that no byte of a stream goes unchecked.
inline uint64_t RecordChecksum(const char* prologue, size_t prologueBytes, const char* frame, size_t frameBytes,
                               const char* payload, size_t payloadBytes, uint64_t index) {
    XXH3_state_t state;
    // The reset keeps the derived secret when the state's seed already equals the new
    // one; on the stack that seed is leftover bytes, so it must start out as "none".
    XXH3_INITSTATE(&state);
    XXH3_64bits_reset_withSeed(&state, index);
    if (prologue) XXH3_64bits_update(&state, prologue, prologueBytes);
    XXH3_64bits_update(&state, frame, frameBytes);
    if (payloadBytes > 0) XXH3_64bits_update(&state, payload, payloadBytes);
    const uint64_t sum = XXH3_64bits_digest(&state);
    AfterVectorHash();
    return sum;
}

}  // namespace vshost::detail
