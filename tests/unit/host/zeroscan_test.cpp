// The zero scan that tells empty extents from data, shared by the host's disk reader
// and the extent reader.
#include "hostapi/zeroscan.h"

#include <gtest/gtest.h>

#include <vector>

TEST(ZeroScan, AnyNonZeroByteAnywhereInTheRangeIsData) {
    // Lengths around the vector widths memcmp works in, at several alignments; the
    // bytes just outside the range are set and must not count.
    std::vector<unsigned char> buffer(4096 + 128, 0);
    for (size_t offset : {1, 8, 13, 64}) {
        for (size_t length : {0, 1, 2, 3, 15, 16, 17, 31, 32, 33, 63, 64, 65, 127, 255, 256, 4095, 4096}) {
            unsigned char* range = buffer.data() + offset;
            range[-1] = 0xff;
            range[length] = 0xff;
            EXPECT_TRUE(IsZeroFilled(range, length)) << "offset " << offset << " length " << length;
            for (size_t i = 0; i < length; ++i) {
                for (unsigned char value : {0x01, 0x80, 0xff}) {
                    range[i] = value;
                    EXPECT_FALSE(IsZeroFilled(range, length))
                        << "offset " << offset << " length " << length << " byte " << i;
                    range[i] = 0;
                }
            }
            range[-1] = 0;
            range[length] = 0;
        }
    }
    // A whole extent, its last byte set.
    std::vector<char> extent(1 << 20, 0);
    extent.back() = 1;
    EXPECT_FALSE(IsZeroFilled(extent.data(), extent.size()));
    EXPECT_TRUE(IsZeroFilled(extent.data(), extent.size() - 1));
}
