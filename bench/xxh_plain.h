// XXH3 straight from the library, without the host's run-time dispatch.
#pragma once

#include <cstddef>
#include <cstdint>

uint64_t PlainXXH3_64(const void* data, size_t length, uint64_t seed);
uint64_t PlainXXH3_128(const void* data, size_t length);
