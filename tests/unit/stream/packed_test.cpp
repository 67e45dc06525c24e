// Packed data records (format 1.2): zero runs inside data are left out of the stream
// and come back as zeros, as holes in a restored image; the rest is compressed when the
// pipeline is asked to; older streams still decode, and a packed record that lies about
// its runs, lengths or compressed bytes is corrupt.
#include "commands.h"
#include "stream_support.h"
#include "vscodec/streambytes.h"
#include "vscodec/streamcheck.h"
#include "vshost/streamtap.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <zstd.h>

#include <random>

using vshost::ZeroRun;
using vshost::stream::Kind;
using State = vshost::StreamReader::State;
using namespace vstest;

namespace {

constexpr size_t kBlock = 4096;

// `size` bytes of data with the given byte ranges zeroed.
std::string WithZeros(size_t size, std::vector<std::pair<size_t, size_t>> zeros, unsigned seed) {
    std::string s = Pattern(size, seed);
    for (auto [at, n] : zeros) std::fill_n(s.begin() + at, n, '\0');
    return s;
}

// Text that compresses as files do, not as a repeated byte does.
std::string Text(size_t size) {
    static const char* const words[] = {"stream ", "extent ", "disk ", "record ", "zero ", "run ", "data ", "\n"};
    std::string s;
    for (uint64_t x = 7; s.size() < size; x = x * 6364136223846793005ULL + 1442695040888963407ULL)
        s += words[(x >> 33) % 8];
    s.resize(size);
    return s;
}

// Bytes no compressor can shrink (Pattern's never have their low bit clear).
std::string Random(size_t size, unsigned seed) {
    std::mt19937_64 gen(seed);
    std::string s(size, '\0');
    for (char& c : s) c = static_cast<char>(gen());
    return s;
}

// One file entry holding `data` in one call; the stream's bytes.
std::string StreamOf(const TempHome& home, const std::string& data, int level = 0) {
    StreamFile f(home.sub("packed.stream"));
    EXPECT_TRUE(f.pipe->SetCompression(level));
    EXPECT_EQ(Header(f.writer, "\\vm\\file", data.size(), false), 0);
    EXPECT_EQ(f.writer.allocateAndSendDataBuffer(data.data(), data.size()), 0);
    EXPECT_EQ(f.writer.sendEOF(true, 0), 0);
    EXPECT_EQ(f.writer.close(true), 0);
    return f.Bytes();
}

const Decoded* FirstData(const DecodeResult& r) {
    for (const auto& d : r.records)
        if (vshost::stream::HoldsData(d.record.kind)) return &d;
    return nullptr;
}

// Replaces record `index` at `offset` by one of `kind` holding `payload`, framed and
// check-summed as a writer would, so that only what the payload says can be wrong.
void Reframe(std::string& stream, uint64_t offset, uint64_t index, Kind kind, const std::string& payload) {
    using namespace vshost::detail;
    const size_t oldLength = GetLE(stream.data() + offset + 4, 4);
    char frame[12];
    PutLE(frame, static_cast<uint16_t>(kind), 2);
    PutLE(frame + 2, 0, 2);
    PutLE(frame + 4, payload.size(), 4);
    PutLE(frame + 8, FrameCheck(frame, index), 4);
    char sum[8];
    PutLE(sum, RecordChecksum(nullptr, 0, frame, 12, payload.data(), payload.size(), index), 8);
    stream.replace(offset, 12 + oldLength + 8, std::string(frame, 12) + payload + std::string(sum, 8));
}

std::string PackedPayload(uint32_t length, uint8_t method, const std::vector<ZeroRun>& runs, size_t stored) {
    vshost::detail::PayloadBuilder p;
    p.U32(length).U8(method).U32(runs.size());
    for (const ZeroRun& r : runs) p.U32(r.offset).U32(r.length);
    return p.str() + Pattern(stored, 5);
}

// A packed payload whose stored bytes are a zstd frame of `bytes` bytes of text.
std::string Zstd(uint32_t length, const std::vector<ZeroRun>& runs, size_t bytes) {
    const std::string text = Text(bytes);
    std::string frame(ZSTD_compressBound(bytes), '\0');
    frame.resize(ZSTD_compress(frame.data(), frame.size(), text.data(), text.size(), 1));
    return PackedPayload(length, 1, runs, 0) + frame;
}

}  // namespace

TEST(PackedData, ZeroRunsInsideDataAreLeftOutAndComeBack) {
    TempHome home;
    const size_t mib = 1u << 20;
    struct Case {
        const char* what;
        std::string data;
        std::vector<ZeroRun> runs;  // none and not compressed: a plain data record
        int level = 0;
        uint8_t method = vshost::stream::kPackStored;
    };
    const std::string text = Text(mib);
    const Case cases[] = {
        {"dense", Pattern(mib, 1), {}},
        {"one 64 KiB run of data in zeros (the reader's extent of a fine-grained disk)",
         WithZeros(mib, {{0, 37 * kBlock}, {53 * kBlock, mib - 53 * kBlock}}, 2),
         {{0, 37 * kBlock}, {53 * kBlock, static_cast<uint32_t>(mib - 53 * kBlock)}}},
        {"zeros one byte short of a block", WithZeros(64 * kBlock, {{kBlock, kBlock - 1}}, 3), {}},
        {"zeros not aligned to blocks: only the whole block inside",
         WithZeros(64 * kBlock, {{100, 2 * kBlock}}, 4),
         {{kBlock, kBlock}}},
        {"a short zero tail joins a run",
         WithZeros(3 * kBlock + 500, {{kBlock, 2 * kBlock + 500}}, 5),
         {{kBlock, 2 * kBlock + 500}}},
        {"a short zero tail alone is no run", WithZeros(kBlock + 500, {{kBlock, 500}}, 6), {}},
        {"all zeros", std::string(2 * kBlock, '\0'), {{0, 2 * kBlock}}},
        {"shorter than a block", std::string(100, '\0'), {}},
        {"text, compressed", text, {}, 1, vshost::stream::kPackZstd},
        {"text with a zero run, compressed at level 19",
         text.substr(0, 8 * kBlock) + std::string(kBlock, '\0'),
         {{8 * kBlock, kBlock}},
         19,
         vshost::stream::kPackZstd},
        {"random bytes do not compress: plain", Random(mib, 9), {}, 3},
        {"random bytes with a zero run: the run alone",
         std::string(kBlock, '\0') + Random(3 * kBlock, 10),
         {{0, kBlock}},
         3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const std::string bytes = StreamOf(home, c.data, c.level);
        const DecodeResult r = DecodeBytes(bytes);
        ASSERT_EQ(r.state, State::Complete) << r.error;
        const Decoded* d = FirstData(r);
        ASSERT_NE(d, nullptr);
        const bool packed = !c.runs.empty() || c.method != vshost::stream::kPackStored;
        EXPECT_EQ(d->record.kind, packed ? Kind::PackedData : Kind::Data);
        EXPECT_TRUE(d->bytes == c.data);
        const auto& record = std::get<vshost::DataRecord>(d->record.body);
        EXPECT_EQ(record.zeroRuns, c.runs);
        EXPECT_EQ(record.method, c.method);
        // What the record took in the stream: frame, length, method, runs, stored bytes, checksum.
        EXPECT_EQ((d + 1)->record.offset - d->record.offset,
                  packed ? 20 + 9 + 8 * c.runs.size() + record.storedBytes : 20 + c.data.size());
        if (c.method == vshost::stream::kPackZstd) {
            EXPECT_LT(bytes.size(), c.data.size() / 2);
        }
        uint64_t zeros = 0;
        for (const ZeroRun& run : c.runs) zeros += run.length;
        // The stream costs the data, not the zeros: the trailer counts them as holes.
        EXPECT_EQ(r.counted.dataBytes, c.data.size() - zeros);
        EXPECT_EQ(r.counted.holeBytes, zeros);
        EXPECT_LT(bytes.size(), c.data.size() - zeros + 512);
    }
    // Compression is chosen before the stream starts, at a level zstd knows.
    StreamFile f(home.sub("levels.stream"));
    EXPECT_FALSE(f.pipe->SetCompression(20));
    EXPECT_FALSE(f.pipe->SetCompression(-1));
    SendVM(f.writer, "vm");
    EXPECT_FALSE(f.pipe->SetCompression(1));
}

TEST(PackedData, OlderStreamsDecodeAndCraftedPackedRecordsAreCorrupt) {
    TempHome home;
    const std::string sparse = WithZeros(4 * kBlock, {{kBlock, 2 * kBlock}}, 7);
    const std::string packed = StreamOf(home, sparse);
    const std::string plain = StreamOf(home, Pattern(4 * kBlock, 8));
    // As a writer of 1.1 made it: the same records, the prologue saying 1.1 (the stream
    // header's checksum covers it).
    auto asVersion11 = [](std::string s) {
        using namespace vshost::detail;
        PutLE(s.data() + 10, 1, 2);
        const size_t length = GetLE(s.data() + 12 + 4, 4);
        PutLE(s.data() + 24 + length, RecordChecksum(s.data(), 12, s.data() + 12, 12, s.data() + 24, length, 0), 8);
        return s;
    };
    DecodeResult r = DecodeBytes(asVersion11(plain));
    EXPECT_EQ(r.state, State::Complete) << r.error;
    EXPECT_EQ(std::get<vshost::StreamHeaderRecord>(r.records.front().record.body).minorVersion, 1);
    r = DecodeBytes(asVersion11(packed));
    EXPECT_EQ(r.state, State::Corrupt);
    EXPECT_NE(r.error.find("unknown record kind"), std::string::npos) << r.error;

    const DecodeResult decoded = DecodeBytes(packed);
    const Decoded* d = FirstData(decoded);
    ASSERT_NE(d, nullptr);
    const uint64_t offset = d->record.offset, index = d->record.index;
    const uint32_t n = 4 * kBlock;
    struct Crafted {
        const char* what;
        std::string payload;
        bool sound = false;
    };
    const Crafted crafted[] = {
        {"no data", PackedPayload(0, 0, {}, 0)},
        {"more than a record holds", PackedPayload(vshost::stream::kMaxPayload + 1, 0, {}, 0)},
        {"an unknown method", PackedPayload(n, 9, {}, n)},
        {"a sound compressed record, to show the crafting sound", Zstd(n, {}, n), true},
        {"more runs than bytes to state them", PackedPayload(n, 0, {}, 0).replace(5, 4, "\xff\xff\xff\x0f", 4)},
        {"a run of no bytes", PackedPayload(n, 0, {{kBlock, 0}}, n)},
        {"a run past the end", PackedPayload(n, 0, {{3 * kBlock, 2 * kBlock}}, 3 * kBlock)},
        {"runs out of order", PackedPayload(n, 0, {{2 * kBlock, kBlock}, {0, kBlock}}, 2 * kBlock)},
        {"overlapping runs", PackedPayload(n, 0, {{0, 2 * kBlock}, {kBlock, kBlock}}, kBlock)},
        {"a stored byte short", PackedPayload(n, 0, {{kBlock, kBlock}}, 3 * kBlock - 1)},
        {"a stored byte too many", PackedPayload(n, 0, {{kBlock, kBlock}}, 3 * kBlock + 1)},
        {"compressed bytes that state another size", Zstd(n, {}, n - 1)},
        {"bytes after the compressed frame", Zstd(n, {}, n) + "x"},
        {"compressed bytes that are no zstd frame", PackedPayload(n, 1, {}, 100)},
    };
    for (const Crafted& c : crafted) {
        SCOPED_TRACE(c.what);
        std::string s = packed;
        Reframe(s, offset, index, Kind::PackedData, c.payload);
        r = DecodeBytes(s);
        EXPECT_EQ(r.state, State::Corrupt);  // the sound one moved the trailer
        if (c.sound) {
            ASSERT_NE(FirstData(r), nullptr) << r.error;
            EXPECT_TRUE(FirstData(r)->bytes == Text(n));
            continue;
        }
        EXPECT_EQ(r.errorOffset, offset) << r.error;
        EXPECT_NE(r.error.find("packed-data"), std::string::npos) << r.error;
    }
}

TEST(PackedData, RestoreLeavesZeroRunsAsHolesAndClearsThemOnAnEarlierImage) {
    TempHome home;
    const size_t extent = 1u << 20;
    // Four extents, each 64 KiB of data at a different place in zeros.
    auto disk = [&](unsigned seed) {
        std::string d;
        for (size_t k = 0; k < 4; ++k)
            d += WithZeros(
                extent, {{0, k * 64 * kBlock}, {k * 64 * kBlock + 16 * kBlock, extent - k * 64 * kBlock - 16 * kBlock}},
                seed + k);
        return d;
    };
    const std::string v1 = Pattern(4 * extent, 1), v2 = disk(10);
    auto write = [&](const std::string& name, const std::string& image) {
        StreamFile s(home.sub(name));
        SendDisk(s.writer, "vm1", "disk0", image, extent);
        EXPECT_EQ(s.writer.close(true), 0);
    };
    write("v1.stream", v1);
    write("v2.stream", v2);
    auto restore = [&](const std::string& stream, const std::string& dir) {
        const int fd = open(home.sub(stream).c_str(), O_RDONLY);
        std::ostringstream out, err;
        EXPECT_EQ(vsstream::RunRestore(fd, dir, out, err), vsstream::kExitOk) << err.str();
        close(fd);
    };
    struct stat st {};
    // A new restore: only the data takes room.
    restore("v2.stream", home.sub("new"));
    EXPECT_TRUE(ReadAll(home.sub("new/vm1/disk0")) == v2);
    ASSERT_EQ(stat(home.sub("new/vm1/disk0").c_str(), &st), 0);
    EXPECT_LE(static_cast<size_t>(st.st_blocks) * 512, 4 * 16 * kBlock + 4 * kBlock);
    // Onto an image whose extents were all data: the runs are cleared, and freed.
    restore("v1.stream", home.sub("old"));
    restore("v2.stream", home.sub("old"));
    EXPECT_TRUE(ReadAll(home.sub("old/vm1/disk0")) == v2);
    ASSERT_EQ(stat(home.sub("old/vm1/disk0").c_str(), &st), 0);
    EXPECT_LE(static_cast<size_t>(st.st_blocks) * 512, 4 * 16 * kBlock + 4 * kBlock);
}

// Where each record lands, as the pipeline's writer reports it once the record is
// written: the offset the decoder finds it at, for every record, plain and packed, at
// one and several writer threads (the stream index is made from these).
TEST(PackedData, ThePlacesOfRecordsAreWhereTheDecoderFindsThem) {
    TempHome home;
    const size_t mib = 1u << 20;
    for (const int level : {0, 3}) {
        SCOPED_TRACE(level);
        StreamFile f(home.sub("places" + std::to_string(level) + ".stream"));
        ASSERT_TRUE(f.pipe->SetCompression(level));
        std::vector<std::pair<uint64_t, uint64_t>> places;
        ASSERT_TRUE(
            vshost::TapPlaces(*f.pipe, [&](uint64_t index, uint64_t offset) { places.emplace_back(index, offset); }));
        SendVM(f.writer, "vm");
        const std::string extents[] = {Text(mib), WithZeros(mib, {{kBlock, 5 * kBlock}}, 11), Random(mib, 12),
                                       std::string(3 * mib, 'x')};
        for (size_t i = 0; i < std::size(extents); ++i) {
            ASSERT_EQ(Header(f.writer, "\\vm\\disk\\Extent" + std::to_string(i), extents[i].size(), false), 0);
            ASSERT_EQ(f.writer.sendHole(4096), 0);
            ASSERT_EQ(f.writer.allocateAndSendDataBuffer(extents[i].data(), extents[i].size()), 0);
            ASSERT_EQ(f.writer.sendEOF(true, 0), 0);
        }
        ASSERT_EQ(f.writer.close(true), 0);
        ASSERT_TRUE(f.pipe->Close());
        const DecodeResult r = DecodeBytes(f.Bytes());
        ASSERT_EQ(r.state, State::Complete) << r.error;
        std::vector<std::pair<uint64_t, uint64_t>> found;
        for (const Decoded& d : r.records) found.emplace_back(d.record.index, d.record.offset);
        EXPECT_EQ(places, found);
        EXPECT_GT(found.size(), 20u);
    }
}
