// Telling zeros from data: extents that hold only zeros go out as holes. Header-only,
// so the plug-in and the host's disk reader share one implementation without the
// plug-in calling into the host for it.
#pragma once

#include <cstddef>
#include <cstring>

// True when the `length` bytes at `data` are all zero (and for length 0). The first
// byte is zero and every byte equals the one after it: memcmp compares a vector at a
// time and stops at the first difference, so a data extent costs next to nothing and
// an empty one is scanned at memory speed.
inline bool IsZeroFilled(const void* data, std::size_t length) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    return length == 0 || (bytes[0] == 0 && std::memcmp(bytes, bytes + 1, length - 1) == 0);
}
