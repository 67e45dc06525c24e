// The virtual-disk reader over real sparse images: what a pass returns, and change
// tracking between passes.
#include "temp_home.h"

#include "hostapi/vdisk.h"
#include "vshost/changetrack.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>

namespace ct = vshost::changetrack;

namespace {

constexpr uint64_t kExtent = 64 * 1024;

class VDisk : public ::testing::Test {
protected:
    void SetUp() override { vshost::settings::Set("VirtualServer", "nVDiskExtentSizeKB", "64"); }

    std::string File(const std::string& name, uint64_t size) {
        const std::string path = home.sub(name);
        const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        EXPECT_EQ(::ftruncate(fd, static_cast<off_t>(size)), 0);
        ::close(fd);
        return path;
    }
    void Write(const std::string& path, uint64_t offset, uint64_t length, uint32_t seed) {
        std::vector<char> bytes(length);
        std::mt19937 gen(seed);
        for (char& c : bytes) c = static_cast<char>(gen() | 1);
        const int fd = ::open(path.c_str(), O_RDWR);
        EXPECT_EQ(::pwrite(fd, bytes.data(), length, static_cast<off_t>(offset)), static_cast<ssize_t>(length));
        ::close(fd);
    }
    void Punch(const std::string& path, uint64_t offset, uint64_t length) {
        const int fd = ::open(path.c_str(), O_RDWR);
        EXPECT_EQ(::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset),
                              static_cast<off_t>(length)),
                  0);
        ::close(fd);
    }
    // One pass: extent number to the bytes returned (empty = unchanged).
    std::map<uint64_t, std::string> Pass(CArchiveVirtualDiskFile& disk, uint64_t startExtent = 0) {
        CArchiveVirtualDiskFile::Context_t ctx;
        CAutoMemory<char> buffer;
        EXPECT_FALSE(disk.GetFirstBlock(buffer, 65536, ctx).IsError());
        EXPECT_EQ(ctx.extentSize, kExtent);
        if (startExtent != 0) ctx.position = startExtent - 1;
        std::map<uint64_t, std::string> out;
        std::vector<bool> bits;
        for (;;) {
            unsigned long long n = 0;
            const CQiError err = disk.GetNextBlock(buffer, n, bits, ctx);
            if (err.IsError()) {
                EXPECT_TRUE(CArchiveVirtualDiskFile::IsErrorEOF(err)) << err.AsString();
                break;
            }
            out[n] = std::string(buffer.Ptr(), buffer.Size());
        }
        return out;
    }

    vstest::TempHome home;
    vshost::LogCapture log;
};

TEST_F(VDisk, SplitFlatDiskReadsAsOneDiskAndSkipsHoles) {
    // Two extent files of 5.5 extents each and a zero range: extent 5 straddles the files.
    const uint64_t half = 5 * kExtent + kExtent / 2;
    const std::string f1 = File("d-f001.vmdk", half), f2 = File("d-f002.vmdk", half);
    Write(f1, 0, 100, 1);
    Write(f1, half - 4096, 4096, 2);
    Write(f2, 0, 8192, 3);
    Write(f2, half - 10, 10, 4);
    std::ofstream(home.sub("d.vmdk")) << "# Disk DescriptorFile\ncreateType=\"twoGbMaxExtentFlat\"\n"
                                      << "RW " << half / 512 << " FLAT \"d-f001.vmdk\" 0\n"
                                      << "RW " << half / 512 << " FLAT \"d-f002.vmdk\" 0\n"
                                      << "RW " << (2 * kExtent) / 512 << " ZERO\n";
    CArchiveVirtualDiskFile disk(2);
    ASSERT_FALSE(disk.Open(home.sub("d.vmdk"), 1).IsError());
    EXPECT_EQ(disk.DiskSize(), 2 * half + 2 * kExtent);
    EXPECT_EQ(disk.GetAllocatedExtentCount(), 3u);

    const auto extents = Pass(disk);
    ASSERT_EQ(extents.size(), 3u);
    ASSERT_TRUE(extents.count(0) && extents.count(5) && extents.count(10));
    // Extent 5 holds the tail of the first file and the head of the second.
    std::string expected(kExtent, '\0');
    std::ifstream a(f1, std::ios::binary), b(f2, std::ios::binary);
    a.seekg(static_cast<std::streamoff>(5 * kExtent));
    a.read(expected.data(), static_cast<std::streamsize>(kExtent / 2));
    b.read(expected.data() + kExtent / 2, static_cast<std::streamsize>(kExtent / 2));
    EXPECT_EQ(extents.at(5), expected);

    std::vector<bool> bits;
    CAutoMemory<char> buffer;
    CArchiveVirtualDiskFile::Context_t ctx;
    ASSERT_FALSE(disk.ReadBlock(buffer, 12, bits, ctx).IsError());  // the zero range
    EXPECT_EQ(buffer.Size(), kExtent);
    EXPECT_EQ(std::string(buffer.Ptr(), buffer.Size()), std::string(kExtent, '\0'));
    EXPECT_TRUE(CArchiveVirtualDiskFile::IsErrorEOF(disk.ReadBlock(buffer, 13, bits, ctx)));

    // A missing extent file or an unsupported kind fails the open with its reason.
    std::ofstream(home.sub("bad.vmdk")) << "# Disk DescriptorFile\nRW 64 SPARSE \"s.vmdk\"\n";
    const CQiError err = disk.Open(home.sub("bad.vmdk"), 1);
    ASSERT_TRUE(err.IsError());
    EXPECT_NE(err.AsString().find("SPARSE"), std::string::npos);
}

TEST_F(VDisk, ChangeTrackingAgainstTheLastCompletePass) {
    const std::string img = File("disk.img", 16 * kExtent);
    for (uint64_t n : {1, 3, 4, 9}) Write(img, n * kExtent, kExtent, static_cast<uint32_t>(n));
    const std::string zeros(kExtent, '\0');
    {
        const int fd = ::open(img.c_str(), O_RDWR);  // allocated, but all zeros
        ASSERT_EQ(::pwrite(fd, zeros.data(), kExtent, 7 * kExtent), static_cast<ssize_t>(kExtent));
        ::close(fd);
    }

    CArchiveVirtualDiskFile full(2);
    ASSERT_FALSE(full.Open(img, 2).IsError());
    const auto first = Pass(full);
    EXPECT_EQ(first.size(), 5u);  // 1 3 4 7 9; 7 comes back as zeros
    EXPECT_EQ(first.at(7), zeros);
    ASSERT_TRUE(ct::CommitCompletedPass("cid-1"));
    EXPECT_FALSE(ct::CommitCompletedPass("cid-1"));  // taken once
    EXPECT_EQ(ct::Load("cid-1")->extents.size(), 4u);

    Write(img, 3 * kExtent + 100, 10, 77);  // changed
    Punch(img, 9 * kExtent, kExtent);       // data became a hole
    Write(img, 12 * kExtent, 10, 78);       // new data
    CArchiveVirtualDiskFile incr(2);
    incr.SetChangeId("cid-1");
    ASSERT_FALSE(incr.Open(img, 2).IsError());
    const auto second = Pass(incr);
    std::map<uint64_t, size_t> sizes;
    for (const auto& [n, bytes] : second) sizes[n] = bytes.size();
    EXPECT_EQ(sizes, (std::map<uint64_t, size_t>{{1, 0}, {3, kExtent}, {4, 0}, {7, 0}, {9, kExtent}, {12, kExtent}}));
    EXPECT_EQ(second.at(9), zeros);
    ASSERT_TRUE(ct::CommitCompletedPass("cid-2"));

    // The digests stored after an incremental equal those of a full read of the new state.
    CArchiveVirtualDiskFile again(2);
    ASSERT_FALSE(again.Open(img, 2).IsError());
    Pass(again);
    ASSERT_TRUE(ct::CommitCompletedPass("cid-full"));
    EXPECT_EQ(ct::Load("cid-2")->extents, ct::Load("cid-full")->extents);

    // A resumed pass leaves nothing to store.
    Pass(again, 4);
    EXPECT_FALSE(ct::CommitCompletedPass("cid-3"));

    // An unknown id, or a disk that changed size, reads everything and says why.
    CArchiveVirtualDiskFile unknown(2);
    unknown.SetChangeId("nope");
    ASSERT_FALSE(unknown.Open(img, 2).IsError());
    EXPECT_EQ(Pass(unknown).size(), 5u);
    EXPECT_TRUE(log.Contains("Change id [nope] of [" + img + "] is unknown: reading the whole disk"));
    ASSERT_EQ(::truncate(img.c_str(), static_cast<off_t>(20 * kExtent)), 0);
    CArchiveVirtualDiskFile grown(2);
    grown.SetChangeId("cid-2");
    ASSERT_FALSE(grown.Open(img, 2).IsError());
    for (const auto& [n, bytes] : Pass(grown)) EXPECT_EQ(bytes.size(), kExtent) << n;
    EXPECT_TRUE(log.Contains("changed size or extent size since change id [cid-2]"));
}

// An image cut short after it was opened fails the pass, whether the cut falls among
// its data or in its trailing hole and whichever call meets it first; later calls fail too.
TEST_F(VDisk, AnImageCutShortWhileItIsReadFailsThePass) {
    for (const bool flat : {false, true}) {  // raw image cut among its data; flat file cut in its trailing hole
        const std::string image = File(flat ? "cut-flat.vmdk" : "cut.img", 16 * kExtent), path = home.sub("cut.vmdk");
        for (uint64_t n : {0, 1, 2, 10}) Write(image, n * kExtent, kExtent, 1);
        if (flat)
            std::ofstream(path) << "# Disk DescriptorFile\nRW " << 16 * kExtent / 512 << " FLAT \"cut-flat.vmdk\"\n";
        CArchiveVirtualDiskFile disk(2);
        ASSERT_FALSE(disk.Open(flat ? path : image, 1).IsError());
        CArchiveVirtualDiskFile::Context_t ctx;
        CAutoMemory<char> buffer;
        std::vector<bool> bits;
        unsigned long long n = 0;
        ASSERT_FALSE(disk.GetFirstBlock(buffer, 65536, ctx).IsError());
        ASSERT_FALSE(disk.GetNextBlock(buffer, n, bits, ctx).IsError());
        ASSERT_EQ(::truncate(image.c_str(), static_cast<off_t>((flat ? 12 : 5) * kExtent)), 0);
        if (flat) disk.GetAllocatedExtentCount();
        CQiError err;
        while (!(err = disk.GetNextBlock(buffer, n, bits, ctx)).IsError()) {
        }
        EXPECT_NE(err.AsString().find("cut short"), std::string::npos) << flat << " " << err.AsString();
        EXPECT_FALSE(CArchiveVirtualDiskFile::IsErrorEOF(disk.GetNextBlock(buffer, n, bits, ctx)));
    }
}

// Under a VM mount every file of a disk is opened below its volume; a FIFO is refused
// without waiting on it. A relative link that stays on the volume is followed.
TEST_F(VDisk, DiskFilesAreOpenedBelowTheirVolumeOnly) {
    alarm(120);  // a blocking open of a FIFO ends the test instead of hanging it
    const std::string vol = home.sub("vol"), vm = vol + "/vm/", secret = File("secret-flat.vmdk", kExtent);
    std::filesystem::create_directories(vm);
    File("vol/vm/sound-flat.vmdk", kExtent);
    File("vol/shared.img", kExtent);
    std::filesystem::create_directory_symlink(home.path(), vol + "/out");
    std::filesystem::create_symlink(secret, vm + "link-flat.vmdk");
    std::filesystem::create_symlink("../shared.img", vm + "inside.img");
    std::filesystem::create_symlink(vol + "/shared.img", vm + "absolute.img");
    ASSERT_EQ(mkfifo((vm + "fifo-flat.vmdk").c_str(), 0600), 0);
    MountCtx ctx;
    ctx.volSnaps.resize(1);
    ctx.volSnaps[0].sMountPath = vol + "/";
    struct Case {
        bool extent;  // `name` is the extent file of a descriptor, else the disk's path
        std::string name;
        const char* reason;  // none: opens
    };
    const Case cases[] = {
        {true, "sound-flat.vmdk", nullptr},
        {false, vm + "inside.img", nullptr},
        {true, secret, "absolute names and .."},
        {true, "../../secret-flat.vmdk", "absolute names and .."},
        {true, "link-flat.vmdk", "leads out of"},
        {false, vol + "/out/secret-flat.vmdk", "leads out of"},
        {false, vm + "absolute.img", "leads out of"},
        {false, secret, "lies on none of the volumes"},
        {true, "fifo-flat.vmdk", "not a regular file"},
    };
    for (const Case& c : cases) {
        const std::string path = c.extent ? vm + "d.vmdk" : c.name;
        if (c.extent)
            std::ofstream(path) << "# Disk DescriptorFile\nRW " << kExtent / 512 << " FLAT \"" << c.name << "\"\n";
        CArchiveVirtualDiskFile disk(2);
        disk.SetVMInfo(nullptr, "vm", "", &ctx, nullptr);
        const CQiError err = disk.Open(path, 1);
        EXPECT_EQ(err.IsError(), c.reason != nullptr) << c.name << ": " << err.AsString();
        if (c.reason) {
            EXPECT_NE(err.AsString().find(c.reason), std::string::npos) << c.name << ": " << err.AsString();
        }
    }
    alarm(0);
}

// Peak memory of a pass over a large sparse disk stays near one extent buffer.
TEST_F(VDisk, LargeSparseDiskReadsInFlatMemory) {
    vshost::settings::Set("VirtualServer", "nVDiskExtentSizeKB", "1024");
    const uint64_t size = 64ull << 30;
    const std::string img = File("big.img", size);
    for (uint64_t i = 0; i < 64; ++i) Write(img, i * (size / 64) + 12345, 1 << 20, static_cast<uint32_t>(i));
    auto kb = [](const char* field) {
        std::ifstream status("/proc/self/status");
        std::string line;
        while (std::getline(status, line))
            if (line.rfind(field, 0) == 0) return std::stoull(line.substr(std::string(field).size()));
        return 0ull;
    };
    std::ofstream("/proc/self/clear_refs") << "5";  // restart the peak from here
    const unsigned long long before = kb("VmRSS:");
    CArchiveVirtualDiskFile disk(2);
    ASSERT_FALSE(disk.Open(img, 2).IsError());
    CArchiveVirtualDiskFile::Context_t ctx;
    CAutoMemory<char> buffer;
    ASSERT_FALSE(disk.GetFirstBlock(buffer, 65536, ctx).IsError());
    std::vector<bool> bits;
    unsigned long long n = 0, extents = 0, bytes = 0;
    while (!disk.GetNextBlock(buffer, n, bits, ctx).IsError()) {
        ++extents;
        bytes += buffer.Size();
    }
    EXPECT_EQ(extents, 128u);  // each 1 MiB run straddles two extents
    EXPECT_EQ(disk.GetAllocatedExtentCount(), 128u);
    const unsigned long long peak = kb("VmHWM:");
    RecordProperty("peak_growth_kib", std::to_string(peak - std::min(peak, before)));
    EXPECT_LT(peak - std::min(peak, before), 64ull * 1024) << "peak " << peak << " KiB, before " << before << " KiB";
}

}  // namespace
