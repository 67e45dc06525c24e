// The decoder against damaged streams: every changed, missing, moved or extra byte is
// reported with the offset of the record it hits, and a cut stream is incomplete.
#include "stream_support.h"

#include <gtest/gtest.h>

#include <xxhash.h>

using State = vshost::StreamReader::State;
using namespace vstest;

namespace {

// A small stream of every kind the extent reader writes, and where its records start.
struct Sample {
    std::string bytes;
    std::vector<uint64_t> offsets;  // of each record, then the stream's length
};

Sample MakeSample(const TempHome& home) {
    Sample s;
    {
        StreamFile f(home.sub("sample.stream"));
        f.writer.SetJobId(1);
        SendVM(f.writer, "vm");
        SendConfig(f.writer, "vm", "vm.vmx", "config=1\n");
        std::string disk = Pattern(256, 3);
        std::fill(disk.begin() + 64, disk.begin() + 128, '\0');
        SendDisk(f.writer, "vm", "d.vmdk", disk, 64);
        f.writer.sendVMReadCompleted("vm");
        EXPECT_EQ(f.writer.close(true), 0);
        s.bytes = f.Bytes();
    }
    const DecodeResult r = DecodeBytes(s.bytes);
    EXPECT_EQ(r.state, State::Complete) << r.error;
    for (const auto& d : r.records) s.offsets.push_back(d.record.offset);
    s.offsets.push_back(s.bytes.size());
    return s;
}

// Where a fault in byte `at` must be reported.
uint64_t ExpectedOffset(const Sample& s, uint64_t at) {
    if (at < 8) return 0;    // magic
    if (at < 10) return 8;   // major version
    if (at < 12) return 12;  // minor version: covered by the stream header's checksum
    uint64_t found = 0;
    for (size_t k = 0; k + 1 < s.offsets.size(); ++k)
        if (s.offsets[k] <= at) found = s.offsets[k];
    return found;
}

std::string Record(const Sample& s, size_t k) {
    return s.bytes.substr(s.offsets[k], s.offsets[k + 1] - s.offsets[k]);
}

}  // namespace

TEST(StreamDecoder, EveryFlippedBitIsCaughtAtItsRecord) {
    TempHome home;
    const Sample s = MakeSample(home);
    ASSERT_GT(s.offsets.size(), 20u);
    for (uint64_t at = 0; at < s.bytes.size(); ++at) {
        for (unsigned char bit : {0x01, 0x80}) {
            std::string bad = s.bytes;
            bad[at] = static_cast<char>(bad[at] ^ bit);
            const DecodeResult r = DecodeBytes(bad);
            ASSERT_EQ(r.state, State::Corrupt) << "byte " << at << " bit " << int(bit);
            ASSERT_EQ(r.errorOffset, ExpectedOffset(s, at)) << "byte " << at << ": " << r.error;
            ASSERT_EQ(r.error.rfind("offset " + std::to_string(r.errorOffset) + ": ", 0), 0u) << r.error;
        }
    }
}

TEST(StreamDecoder, MissingMovedAndExtraRecordsAreCorrupt) {
    TempHome home;
    const Sample s = MakeSample(home);
    const size_t k = 5;
    const std::string before = s.bytes.substr(0, s.offsets[k]);
    const std::string after = s.bytes.substr(s.offsets[k + 2]);

    DecodeResult r = DecodeBytes(before + Record(s, k + 1) + after);  // record k dropped
    EXPECT_EQ(r.state, State::Corrupt);
    EXPECT_EQ(r.errorOffset, s.offsets[k]);
    EXPECT_EQ(r.records.size(), k);

    r = DecodeBytes(before + Record(s, k + 1) + Record(s, k) + after);  // two swapped
    EXPECT_EQ(r.state, State::Corrupt);
    EXPECT_EQ(r.errorOffset, s.offsets[k]);

    r = DecodeBytes(before + Record(s, k) + Record(s, k) + Record(s, k + 1) + after);  // one repeated
    EXPECT_EQ(r.state, State::Corrupt);
    EXPECT_EQ(r.errorOffset, s.offsets[k + 1]);

    r = DecodeBytes(s.bytes + "x");
    EXPECT_EQ(r.state, State::Corrupt);
    EXPECT_EQ(r.errorOffset, s.bytes.size());
    EXPECT_NE(r.error.find("bytes follow the trailer"), std::string::npos) << r.error;

    r = DecodeBytes("name,size\nvm1.vmx,100\n");
    EXPECT_EQ(r.state, State::Corrupt);
    EXPECT_NE(r.error.find("offset 0: not a backup stream"), std::string::npos) << r.error;

    // A length beyond the limit, with a frame check that vouches for it: refused
    // before anything of that size is read or allocated.
    std::string huge = s.bytes;
    char* frame = huge.data() + s.offsets[1];
    const uint32_t length = 0x7fffffff;
    std::memcpy(frame + 4, &length, 4);
    const auto check = static_cast<uint32_t>(XXH3_64bits_withSeed(frame, 8, 1));
    std::memcpy(frame + 8, &check, 4);
    r = DecodeBytes(huge);
    EXPECT_EQ(r.state, State::Corrupt);
    EXPECT_EQ(r.errorOffset, s.offsets[1]);
    EXPECT_NE(r.error.find("exceeds the limit"), std::string::npos) << r.error;
}

TEST(StreamDecoder, ACutStreamIsIncompleteWithEveryWholeRecordDelivered) {
    TempHome home;
    const Sample s = MakeSample(home);
    for (uint64_t cut = 0; cut < s.bytes.size(); ++cut) {
        const DecodeResult r = DecodeBytes(s.bytes.substr(0, cut));
        ASSERT_EQ(r.state, State::Incomplete) << "cut at " << cut << ": " << r.error;
        ASSERT_LE(r.errorOffset, cut);
        size_t whole = 0;
        while (whole + 1 < s.offsets.size() && s.offsets[whole + 1] <= cut) ++whole;
        ASSERT_EQ(r.records.size(), whole) << "cut at " << cut;
    }
    const DecodeResult r = DecodeBytes(s.bytes.substr(0, s.offsets[s.offsets.size() - 2]));
    EXPECT_NE(r.error.find("stream ends without a trailer"), std::string::npos) << r.error;
}
