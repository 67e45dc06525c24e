// Micro-benchmarks of the extent reader's hot paths: the zero scan, the disk read, the
// stream record write and the record checksum. Each reports bytes per second of wall
// time. Run build/<preset>/bin/vsbench (Google Benchmark flags apply).
#include "hostapi/archive.h"
#include "hostapi/vdisk.h"
#include "hostapi/zeroscan.h"
#include "vscodec/streamcheck.h"
#include "vshost/changetrack.h"
#include "vshost/home.h"
#include "xxh_plain.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr size_t kMiB = size_t{1} << 20;
constexpr size_t kExtent = kMiB;           // the reader's default extent size
constexpr size_t kImageBytes = 64 * kMiB;  // small enough for the page cache, big enough to leave the CPU caches

// The zero scan the host and the reader each had before IsZeroFilled: one byte at a time.
bool ByteLoop(const void* data, size_t length) {
    const auto* bytes = static_cast<const char*>(data);
    for (size_t i = 0; i < length; ++i)
        if (bytes[i] != 0) return false;
    return true;
}

void Bytes(benchmark::State& state, size_t perIteration) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(perIteration));
}

std::vector<char> RandomBytes(size_t n, uint32_t seed) {
    std::vector<char> out(n);
    std::mt19937 gen(seed);
    for (size_t i = 0; i < n; i += 4) {
        const uint32_t v = gen();
        std::memcpy(out.data() + i, &v, std::min<size_t>(4, n - i));
    }
    return out;
}

// A temporary host home with a raw image of random data, made on first use and removed
// at exit.
class Workspace {
public:
    static Workspace& Get() {
        static Workspace w;
        return w;
    }
    const std::string& image() const { return m_image; }
    ~Workspace() {
        vshost::CloseHome();
        std::error_code ec;
        std::filesystem::remove_all(m_dir, ec);
    }
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;

private:
    Workspace() {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/vsbench-XXXXXX";
        if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
        m_dir = pattern;
        vshost::OpenHome(m_dir + "/home");
        m_image = m_dir + "/disk.img";
        const int fd = ::open(m_image.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd < 0) throw std::runtime_error("cannot create " + m_image);
        const std::vector<char> data = RandomBytes(kMiB, 7);
        for (size_t at = 0; at < kImageBytes; at += kMiB)
            if (::pwrite(fd, data.data(), kMiB, static_cast<off_t>(at)) != static_cast<ssize_t>(kMiB))
                throw std::runtime_error("cannot write " + m_image);
        ::close(fd);
    }
    std::string m_dir, m_image;
};

// --- zero scan: a 1 MiB extent whose first non-zero byte is its last, so the whole
// buffer is read (an extent of zeros costs the same).

template <bool (*Scan)(const void*, size_t)>
void BM_ZeroScan(benchmark::State& state) {
    std::vector<char> extent(kExtent, 0);
    extent.back() = 1;
    for (auto _ : state) {
        bool zero = Scan(extent.data(), extent.size());
        benchmark::DoNotOptimize(zero);
    }
    Bytes(state, kExtent);
}
BENCHMARK(BM_ZeroScan<ByteLoop>)->Name("ZeroScan/byte_loop_before")->UseRealTime();
BENCHMARK(BM_ZeroScan<IsZeroFilled>)->Name("ZeroScan/IsZeroFilled")->UseRealTime();

// The same from memory rather than cache: 128 extents, one after the other.
template <bool (*Scan)(const void*, size_t)>
void BM_ZeroScanFromMemory(benchmark::State& state) {
    constexpr size_t kCount = 128;
    std::vector<char> extents(kCount * kExtent, 0);
    for (size_t i = 1; i <= kCount; ++i) extents[i * kExtent - 1] = 1;
    size_t next = 0;
    for (auto _ : state) {
        bool zero = Scan(extents.data() + next * kExtent, kExtent);
        benchmark::DoNotOptimize(zero);
        next = (next + 1) % kCount;
    }
    Bytes(state, kExtent);
}
BENCHMARK(BM_ZeroScanFromMemory<ByteLoop>)->Name("ZeroScanFromMemory/byte_loop_before")->UseRealTime();
BENCHMARK(BM_ZeroScanFromMemory<IsZeroFilled>)->Name("ZeroScanFromMemory/IsZeroFilled")->UseRealTime();

// --- extent read: CArchiveVirtualDiskFile over a raw image in the page cache.

void BM_ExtentReadBlock(benchmark::State& state) {
    Workspace& w = Workspace::Get();
    CArchiveVirtualDiskFile disk(2);
    if (disk.Open(w.image(), 2).IsError()) {
        state.SkipWithError("cannot open the image");
        return;
    }
    CAutoMemory<char> buffer;
    std::vector<bool> changed;
    CArchiveVirtualDiskFile::Context_t ctx;
    const unsigned long long count = kImageBytes / disk.ExtentSize();
    unsigned long long n = 0;
    for (auto _ : state) {
        if (disk.ReadBlock(buffer, n, changed, ctx).IsError()) {
            state.SkipWithError("read failed");
            break;
        }
        benchmark::DoNotOptimize(buffer.Ptr());
        n = (n + 1) % count;
    }
    Bytes(state, disk.ExtentSize());
}
BENCHMARK(BM_ExtentReadBlock)->Name("ExtentRead/ReadBlock")->UseRealTime();

// A whole pass as the reader makes it: find data, read, zero scan, digest. 64 MiB per iteration.
void BM_ExtentPass(benchmark::State& state) {
    Workspace& w = Workspace::Get();
    CArchiveVirtualDiskFile disk(2);
    if (disk.Open(w.image(), 2).IsError()) {
        state.SkipWithError("cannot open the image");
        return;
    }
    CAutoMemory<char> buffer;
    std::vector<bool> changed;
    for (auto _ : state) {
        CArchiveVirtualDiskFile::Context_t ctx;
        if (disk.GetFirstBlock(buffer, 65536, ctx).IsError()) {
            state.SkipWithError("first block failed");
            break;
        }
        unsigned long long n = 0;
        while (!disk.GetNextBlock(buffer, n, changed, ctx).IsError()) benchmark::DoNotOptimize(buffer.Ptr());
    }
    vshost::changetrack::ClearCompletedPass();
    Bytes(state, kImageBytes);
}
BENCHMARK(BM_ExtentPass)->Name("ExtentRead/GetNextBlock_pass")->UseRealTime()->Unit(benchmark::kMillisecond);

// --- stream record write: one extent entry (header, 1 MiB of data, end-of-file) per
// iteration, through the archive writer into a pipeline to /dev/null.

void BM_StreamWriteExtent(benchmark::State& state) {
    CQiError err;
    std::unique_ptr<CPipelayer> pipe = CPipelayer::OpenFile("/dev/null", err);
    vsArchive archive(nullptr, nullptr, nullptr, "hub");
    if (!pipe || archive.init(pipe.get(), nullptr, "bench") != 0) {
        state.SkipWithError("cannot open the pipeline");
        return;
    }
    const std::vector<char> data = RandomBytes(kExtent, 11);
    std::string name;
    unsigned long long n = 0;
    for (auto _ : state) {
        ExtentNameConverter::GetFilePath(n++, name);
        const std::string path = "\\vm\\disk.img\\" + name;
        if (archive.sendFileHeader(path, kExtent, 0, false, false, false, 0, 0, 0, 0, false, true, false) != 0 ||
            archive.allocateAndSendDataBuffer(data.data(), kExtent) != 0 || archive.sendEOF(true, 0) != 0) {
            state.SkipWithError("write failed");
            break;
        }
    }
    archive.close(true);
    Bytes(state, kExtent);
}
BENCHMARK(BM_StreamWriteExtent)->Name("StreamWrite/extent_1MiB_to_dev_null")->UseRealTime();

// --- checksums over 1 MiB: the record checksum (XXH3-64) every data record carries,
// and the change-tracking digest (XXH3-128) of every extent with data.

void BM_RecordChecksum(benchmark::State& state) {
    const std::vector<char> data = RandomBytes(kMiB, 13);
    const char frame[12] = {};
    uint64_t index = 0;
    for (auto _ : state) {
        uint64_t sum =
            vshost::detail::RecordChecksum(nullptr, 0, frame, sizeof frame, data.data(), data.size(), index++);
        benchmark::DoNotOptimize(sum);
    }
    Bytes(state, kMiB);
}
BENCHMARK(BM_RecordChecksum)->Name("Checksum/XXH3_64_record")->UseRealTime();

void BM_ExtentDigest(benchmark::State& state) {
    const std::vector<char> data = RandomBytes(kMiB, 17);
    for (auto _ : state) {
        auto digest = vshost::changetrack::DigestOf(data.data(), data.size());
        benchmark::DoNotOptimize(digest);
    }
    Bytes(state, kMiB);
}
BENCHMARK(BM_ExtentDigest)->Name("Checksum/XXH3_128_digest")->UseRealTime();

// The same two without the dispatch: what the library's own build computes them with.
void BM_PlainXXH3_64(benchmark::State& state) {
    const std::vector<char> data = RandomBytes(kMiB, 13);
    uint64_t index = 0;
    for (auto _ : state) {
        uint64_t sum = PlainXXH3_64(data.data(), data.size(), index++);
        benchmark::DoNotOptimize(sum);
    }
    Bytes(state, kMiB);
}
BENCHMARK(BM_PlainXXH3_64)->Name("Checksum/XXH3_64_without_dispatch_before")->UseRealTime();

void BM_PlainXXH3_128(benchmark::State& state) {
    const std::vector<char> data = RandomBytes(kMiB, 17);
    for (auto _ : state) {
        uint64_t digest = PlainXXH3_128(data.data(), data.size());
        benchmark::DoNotOptimize(digest);
    }
    Bytes(state, kMiB);
}
BENCHMARK(BM_PlainXXH3_128)->Name("Checksum/XXH3_128_without_dispatch_before")->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
