// The virtual-disk reader over real sparse images: what a pass returns, and change
// tracking between passes; the formats read through qemu-nbd and the chains it is
// handed.
#include "disk_images.h"
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
#include <set>

namespace ct = vshost::changetrack;
namespace img = vstest::images;

namespace {

constexpr uint64_t kExtent = 64 * 1024;

class VDisk : public ::testing::Test {
protected:
    void SetUp() override { vshost::settings::Set("VirtualServer", "nVDiskExtentSizeKB", "64"); }

    std::string File(const std::string& name, uint64_t size) {
        img::MakeRaw(home.sub(name), size);
        return home.sub(name);
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

    // The extents of a raw image that hold data, with their bytes (found past its holes).
    static std::map<uint64_t, std::string> DataOf(const std::string& raw) {
        std::map<uint64_t, std::string> out;
        const int fd = ::open(raw.c_str(), O_RDONLY);
        const off_t size = ::lseek(fd, 0, SEEK_END);
        std::string extent(kExtent, '\0');
        for (off_t at = ::lseek(fd, 0, SEEK_DATA); at >= 0 && at < size;) {
            const uint64_t n = static_cast<uint64_t>(at) / kExtent;
            const ssize_t got = ::pread(fd, extent.data(), kExtent, static_cast<off_t>(n * kExtent));
            if (got <= 0) break;
            if (extent.find_first_not_of('\0') < static_cast<size_t>(got))
                out[n] = extent.substr(0, static_cast<size_t>(got));
            at = ::lseek(fd, static_cast<off_t>((n + 1) * kExtent), SEEK_DATA);
        }
        ::close(fd);
        return out;
    }
    size_t QemuChildren() const { return img::QemuNbdUsing(home.path()); }

    vstest::TempHome home;
    vshost::LogCapture log;
};

TEST_F(VDisk, SplitFlatDiskReadsAsOneDiskAndSkipsHoles) {
    // Two extent files of 5.5 extents each and a zero range: extent 5 straddles the files.
    const uint64_t half = 5 * kExtent + kExtent / 2;
    const std::string f1 = File("d-f001.vmdk", half), f2 = File("d-f002.vmdk", half);
    img::Fill(f1, 0, 100, 1);
    img::Fill(f1, half - 4096, 4096, 2);
    img::Fill(f2, 0, 8192, 3);
    img::Fill(f2, half - 10, 10, 4);
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
    for (const auto& [line, reason] : {std::pair<const char*, const char*>{"RW 64 SPARSE \"s.vmdk\"", "s.vmdk"},
                                       {"RW 64 TAPE \"s.vmdk\"", "kind TAPE is not supported"}}) {
        std::ofstream(home.sub("bad.vmdk")) << "# Disk DescriptorFile\n" << line << "\n";
        const CQiError err = disk.Open(home.sub("bad.vmdk"), 1);
        EXPECT_NE(err.AsString().find(reason), std::string::npos) << err.AsString();
    }
}

// Only the data ranges of an extent are read and its holes come as zeros: runs that
// share an extent, cross into the next one or end the image read back as the image
// holds them, forwards and in any order.
TEST_F(VDisk, DataRunsInsideExtentsReadAsTheImageHolds) {
    const std::string raw = File("runs.img", 8 * kExtent);
    const std::pair<uint64_t, uint64_t> runs[] = {{0, 10},
                                                  {8192, 4096},
                                                  {20000, 100},
                                                  {kExtent - 50, 100},
                                                  {3 * kExtent + 4096, 8192},
                                                  {6 * kExtent - 4096, 2 * kExtent},
                                                  {8 * kExtent - 1, 1}};
    uint32_t seed = 1;
    for (const auto& [at, length] : runs) img::Fill(raw, at, length, seed++);
    const auto truth = DataOf(raw);
    CArchiveVirtualDiskFile disk(2);
    ASSERT_FALSE(disk.Open(raw, 1).IsError());
    EXPECT_EQ(disk.GetAllocatedExtentCount(), truth.size());
    EXPECT_EQ(Pass(disk), truth);
    std::vector<bool> bits;
    CAutoMemory<char> buffer;
    CArchiveVirtualDiskFile::Context_t ctx;
    for (auto it = truth.rbegin(); it != truth.rend(); ++it) {
        ASSERT_FALSE(disk.ReadBlock(buffer, it->first, bits, ctx).IsError());
        EXPECT_EQ(std::string(buffer.Ptr(), buffer.Size()), it->second) << it->first;
    }
    // A hole already probed is not read again, yet an image cut short since still fails.
    ASSERT_FALSE(disk.ReadBlock(buffer, 2, bits, ctx).IsError());
    ASSERT_EQ(::truncate(raw.c_str(), static_cast<off_t>(2 * kExtent + 100)), 0);
    EXPECT_NE(disk.ReadBlock(buffer, 2, bits, ctx).AsString().find("cut short"), std::string::npos);
}

TEST_F(VDisk, ChangeTrackingAgainstTheLastCompletePass) {
    const std::string raw = File("disk.img", 16 * kExtent);
    for (uint64_t n : {1, 3, 4, 9}) img::Fill(raw, n * kExtent, kExtent, static_cast<uint32_t>(n));
    const std::string zeros(kExtent, '\0');
    {
        const int fd = ::open(raw.c_str(), O_RDWR);  // allocated, but all zeros
        ASSERT_EQ(::pwrite(fd, zeros.data(), kExtent, 7 * kExtent), static_cast<ssize_t>(kExtent));
        ::close(fd);
    }

    CArchiveVirtualDiskFile full(2);
    ASSERT_FALSE(full.Open(raw, 2).IsError());
    const auto first = Pass(full);
    EXPECT_EQ(first.size(), 5u);  // 1 3 4 7 9; 7 comes back as zeros
    EXPECT_EQ(first.at(7), zeros);
    ASSERT_TRUE(ct::CommitCompletedPass("cid-1"));
    EXPECT_FALSE(ct::CommitCompletedPass("cid-1"));  // taken once
    EXPECT_EQ(ct::Load("cid-1")->extents.size(), 4u);

    img::Fill(raw, 3 * kExtent + 100, 10, 77);  // changed
    Punch(raw, 9 * kExtent, kExtent);           // data became a hole
    img::Fill(raw, 12 * kExtent, 10, 78);       // new data
    CArchiveVirtualDiskFile incr(2);
    incr.SetChangeId("cid-1");
    ASSERT_FALSE(incr.Open(raw, 2).IsError());
    const auto second = Pass(incr);
    std::map<uint64_t, size_t> sizes;
    for (const auto& [n, bytes] : second) sizes[n] = bytes.size();
    EXPECT_EQ(sizes, (std::map<uint64_t, size_t>{{1, 0}, {3, kExtent}, {4, 0}, {7, 0}, {9, kExtent}, {12, kExtent}}));
    EXPECT_EQ(second.at(9), zeros);
    ASSERT_TRUE(ct::CommitCompletedPass("cid-2"));

    // The digests stored after an incremental equal those of a full read of the new state.
    CArchiveVirtualDiskFile again(2);
    ASSERT_FALSE(again.Open(raw, 2).IsError());
    Pass(again);
    ASSERT_TRUE(ct::CommitCompletedPass("cid-full"));
    EXPECT_EQ(ct::Load("cid-2")->extents, ct::Load("cid-full")->extents);

    // A resumed pass leaves nothing to store.
    Pass(again, 4);
    EXPECT_FALSE(ct::CommitCompletedPass("cid-3"));

    // An unknown id, or a disk that changed size, reads everything and says why.
    CArchiveVirtualDiskFile unknown(2);
    unknown.SetChangeId("nope");
    ASSERT_FALSE(unknown.Open(raw, 2).IsError());
    EXPECT_EQ(Pass(unknown).size(), 5u);
    EXPECT_TRUE(log.Contains("Change id [nope] of [" + raw + "] is unknown: reading the whole disk"));
    ASSERT_EQ(::truncate(raw.c_str(), static_cast<off_t>(20 * kExtent)), 0);
    CArchiveVirtualDiskFile grown(2);
    grown.SetChangeId("cid-2");
    ASSERT_FALSE(grown.Open(raw, 2).IsError());
    for (const auto& [n, bytes] : Pass(grown)) EXPECT_EQ(bytes.size(), kExtent) << n;
    EXPECT_TRUE(log.Contains("changed size or extent size since change id [cid-2]"));
}

// An image cut short after it was opened fails the pass, whether the cut falls among
// its data or in its trailing hole and whichever call meets it first; later calls fail too.
TEST_F(VDisk, AnImageCutShortWhileItIsReadFailsThePass) {
    for (const bool flat : {false, true}) {  // raw image cut among its data; flat file cut in its trailing hole
        const std::string image = File(flat ? "cut-flat.vmdk" : "cut.img", 16 * kExtent), path = home.sub("cut.vmdk");
        for (uint64_t n : {0, 1, 2, 10}) img::Fill(image, n * kExtent, kExtent, 1);
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

// A snapshot volume as the disk reader is handed it under a VM mount: the volume, its
// datastore and the job's results folder.
struct Mounted {
    std::string volume, vm, results;
    MountCtx ctx;
    explicit Mounted(const vstest::TempHome& home)
        : volume(home.sub("vol")), vm(home.sub("vol/vm/")), results(home.sub("results")) {
        std::filesystem::create_directories(vm);
        std::filesystem::create_directories(results);
        ctx.volSnaps.resize(1);
        ctx.volSnaps[0].sMountPath = volume + "/";
        ctx.volSnaps[0].sVolume = "ds1";
        ctx.sJobResultsDir = results + "/";
    }
};

// Each format read through qemu gives what the raw image it was made from holds: the
// same extents with data (holes are never read), the same bytes, the same digests (an
// incremental of one format builds on a full of another), and a pass resumed mid-disk
// gives the rest of a whole pass. The VMFS-sparse and SESPARSE images are written by
// this project's test generator, checked against their raw image with qemu-img compare.
// qemu-nbd lives exactly while the disk is open; nothing of it stays in the results
// folder, and nothing on the volume changes.
TEST_F(VDisk, FormatsReadThroughQemuGiveTheBytesOfTheirRawImage) {
    const uint64_t small = 24ull << 20, large = (2ull << 30) + small;
    const std::pair<const char*, const char*> cases[] = {
        {"disk.qcow2", "-O qcow2"},
        {"mono.vmdk", "-O vmdk -o subformat=monolithicSparse"},
        {"stream.vmdk", "-O vmdk -o subformat=streamOptimized"},
        {"split.vmdk", "-O vmdk -o subformat=twoGbMaxExtentSparse"},
        {"cowd.vmdk", nullptr},
        {"se.vmdk", nullptr},
    };
    Mounted m(home);
    for (const auto& [name, convert] : cases) {
        const std::string file = name, raw = home.sub(file + ".raw"), image = m.vm + file;
        const bool split = file == "split.vmdk";
        img::MakeRaw(raw, split ? large : small);
        for (uint64_t n : {0, 3, 4, 5, 100, 383}) img::Fill(raw, n * kExtent, kExtent, static_cast<uint32_t>(n));
        if (split) img::Fill(raw, (2ull << 30) - kExtent, 2 * kExtent, 9);  // across the 2 GiB extent files
        if (convert)
            ASSERT_EQ(img::Sh("qemu-img convert -f raw " + std::string(convert) + " " + raw + " " + image), 0);
        else
            img::WriteDelta({file == "se.vmdk" ? img::DeltaKind::SeSparse : img::DeltaKind::VmfsSparse,
                             raw,
                             {},
                             "",
                             0x1234abcd,
                             0xffffffff},
                            image);
        const bool qcow2 = file == "disk.qcow2";
        ASSERT_EQ(img::Compare(image, qcow2 ? "qcow2" : "vmdk", raw, "raw"), "") << file;
        const auto volume = vstest::FileStates(m.volume);

        CArchiveVirtualDiskFile disk(2);
        disk.SetVMInfo(nullptr, "vm", "", &m.ctx, nullptr);
        ASSERT_FALSE(disk.Open(image, 1).IsError()) << file << ": " << log.Last();
        EXPECT_EQ(QemuChildren(), 1u) << file;
        EXPECT_TRUE(std::filesystem::is_empty(m.results)) << file;
        const auto expected = DataOf(raw);
        EXPECT_EQ(disk.GetAllocatedExtentCount(), expected.size()) << file;
        const auto whole = Pass(disk);
        std::set<uint64_t> got, want;
        for (const auto& e : whole) got.insert(e.first);
        for (const auto& e : expected) want.insert(e.first);
        EXPECT_EQ(got, want) << file;
        for (const auto& [n, bytes] : expected) EXPECT_TRUE(whole.count(n) && whole.at(n) == bytes) << file << " " << n;
        ASSERT_TRUE(ct::CommitCompletedPass("q-" + file));
        const auto tail = Pass(disk, 5);
        EXPECT_EQ(tail, decltype(tail)(whole.lower_bound(5), whole.end())) << file;

        CArchiveVirtualDiskFile plain(2);
        ASSERT_FALSE(plain.Open(raw, 2).IsError());
        Pass(plain);
        ASSERT_TRUE(ct::CommitCompletedPass("r-" + file));
        EXPECT_EQ(ct::Load("q-" + file)->extents, ct::Load("r-" + file)->extents) << file;
        disk.Close();
        EXPECT_EQ(QemuChildren(), 0u) << file;
        EXPECT_EQ(vstest::FileStates(m.volume), volume) << file;
        EXPECT_TRUE(std::filesystem::is_empty(m.results)) << file;
        if (!qcow2) continue;
        // Changed in place, it is described afresh: what qemu said of it before is not reused.
        ASSERT_EQ(img::Sh("qemu-img resize -q -f qcow2 " + image + " +1M"), 0);
        CArchiveVirtualDiskFile grown(2);
        grown.SetVMInfo(nullptr, "vm", "", &m.ctx, nullptr);
        ASSERT_FALSE(grown.Open(image, 1).IsError()) << log.Last();
        EXPECT_EQ(grown.DiskSize(), small + (1u << 20));
        grown.Close();
    }
}

// A chain is read through the parents its images name, to its base: a qcow2 backing
// chain, and a flat VMDK base under a SESPARSE delta (one of whose grains hides the
// base's data) under a VMFS-sparse delta. What qemu reads equals what qemu-img makes of
// the same chain. A file shrinking under qemu fails the read.
TEST_F(VDisk, ChainsAreReadThroughTheParentsTheyName) {
    Mounted m(home);
    const std::string a = home.sub("a.raw"), b = home.sub("b.raw"), c = home.sub("c.raw");
    for (const std::string& raw : {a, b, c}) img::MakeRaw(raw, 8 * kExtent * 4);
    for (uint64_t n : {0, 2, 7}) img::Fill(a, n * kExtent, kExtent, 1);
    img::Fill(b, 2 * kExtent, 4096, 2);
    img::Fill(b, 9 * kExtent, kExtent, 3);
    img::Fill(c, 9 * kExtent + 8192, 8192, 4);
    const std::string cd = "cd " + m.vm + " && ";
    ASSERT_EQ(img::Sh(cd + "qemu-img convert -f raw -O qcow2 " + a +
                      " base.qcow2 && qemu-img create -q -f qcow2 -b "
                      "base.qcow2 -F qcow2 mid.qcow2 && qemu-img create -q -f qcow2 -b mid.qcow2 -F qcow2 top.qcow2"
                      " && qemu-io -c 'write -P 7 131072 4096' -c 'write -P 8 589824 65536' mid.qcow2 >/dev/null"),
              0);
    img::WriteFlat(a, m.vm + "base.vmdk", 0x11);
    std::vector<uint64_t> hidden;  // every 4 KiB grain of extent 7
    for (uint64_t g = 7 * 16; g < 8 * 16; ++g) hidden.push_back(g);
    img::WriteDelta({img::DeltaKind::SeSparse, b, hidden, "base.vmdk", 0x22, 0x11}, m.vm + "d1.vmdk");
    img::WriteDelta({img::DeltaKind::VmfsSparse, c, {}, "d1.vmdk", 0x33, 0x22}, m.vm + "d2.vmdk");
    for (const std::string top : {"top.qcow2", "d2.vmdk"}) {
        const std::string expected = home.sub(top + ".expected");
        ASSERT_EQ(img::Sh("qemu-img convert -O raw " + m.vm + top + " " + expected), 0) << top;
        CArchiveVirtualDiskFile disk(2);
        disk.SetVMInfo(nullptr, "vm", "", &m.ctx, nullptr);
        ASSERT_FALSE(disk.Open(m.vm + top, 1).IsError()) << top << ": " << log.Last();
        const auto got = Pass(disk);
        const auto want = DataOf(expected);
        EXPECT_EQ(got.size(), want.size()) << top;
        for (const auto& [n, bytes] : want) EXPECT_TRUE(got.count(n) && got.at(n) == bytes) << top << " " << n;
    }
    EXPECT_EQ(DataOf(home.sub("d2.vmdk.expected")).count(7), 0u);  // the zero grain hides extent 7 of the base

    CArchiveVirtualDiskFile disk(2);
    disk.SetVMInfo(nullptr, "vm", "", &m.ctx, nullptr);
    ASSERT_FALSE(disk.Open(m.vm + "top.qcow2", 1).IsError());
    CArchiveVirtualDiskFile::Context_t ctx;
    CAutoMemory<char> buffer;
    std::vector<bool> bits;
    unsigned long long n = 0;
    ASSERT_FALSE(disk.GetFirstBlock(buffer, 65536, ctx).IsError());
    ASSERT_EQ(::truncate((m.vm + "base.qcow2").c_str(), 65536), 0);
    const CQiError err = disk.GetNextBlock(buffer, n, bits, ctx);
    EXPECT_NE(err.AsString().find("cut short"), std::string::npos) << err.AsString();
}

// Every name an image holds is checked before qemu sees it: parents outside the volume,
// through links, FIFOs, missing parents, loops, broken VMDK chains, qcow2 external data
// files, hosted-sparse headers that carry a descriptor, extent lines qemu reads
// otherwise. Each is refused with the file named, and no qemu-nbd is started.
TEST_F(VDisk, NamesInsideImagesNeverLeadQemuOutOfTheVolume) {
    Mounted m(home);
    const std::string outside = home.sub("outside.qcow2"), raw = home.sub("x.raw");
    img::MakeRaw(raw, 16 * kExtent);
    img::Fill(raw, 0, kExtent, 1);
    ASSERT_EQ(img::Sh("qemu-img create -q -f qcow2 " + outside + " 1M"), 0);
    auto qcow2 = [&](const std::string& name, const std::string& options) {
        ASSERT_EQ(img::Sh("cd " + m.vm + " && qemu-img create -q -f qcow2 -u " + options + " " + name + " 1M"), 0);
    };
    qcow2("abs.qcow2", "-b /etc/passwd -F raw");
    qcow2("up.qcow2", "-b ../../outside.qcow2 -F qcow2");
    std::filesystem::create_symlink(outside, m.vm + "link.qcow2");
    qcow2("vialink.qcow2", "-b link.qcow2 -F qcow2");
    ASSERT_EQ(mkfifo((m.vm + "fifo.raw").c_str(), 0600), 0);
    qcow2("fifo.qcow2", "-b fifo.raw -F raw");
    qcow2("orphan.qcow2", "-b gone.qcow2 -F qcow2");
    qcow2("data.qcow2", "-o data_file=" + home.sub("data.raw"));
    ASSERT_EQ(img::Sh("qemu-img convert -f raw -O vmdk " + raw + " " + m.vm + "kdmv.vmdk"), 0);
    {
        std::fstream f(m.vm + "kdmv.vmdk", std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(12);
        f.write("\0\0\0\0\0\0\0\0", 8);  // capacity 0: the header holds a descriptor instead
    }
    img::WriteFlat(raw, m.vm + "base.vmdk", 0x11);
    img::WriteDelta({img::DeltaKind::SeSparse, raw, {}, "base.vmdk", 0x22, 0x99}, m.vm + "stale.vmdk");
    img::WriteDelta({img::DeltaKind::SeSparse, raw, {}, "loop2.vmdk", 0x22, 0x33}, m.vm + "loop1.vmdk");
    img::WriteDelta({img::DeltaKind::SeSparse, raw, {}, "loop1.vmdk", 0x33, 0x22}, m.vm + "loop2.vmdk");
    img::WriteDelta({img::DeltaKind::SeSparse, raw, {}, "/vmfs/volumes/ds2/base.vmdk", 0x22, 0x11},
                    m.vm + "elsewhere.vmdk");
    std::ofstream(m.vm + "loose.vmdk") << "# Disk DescriptorFile\ncreateType=\"seSparse\"\nCID=1\nparentCID=ffffffff\n"
                                       << "rw 32768 SESPARSE \"stale-sesparse.vmdk\"\n";
    const std::pair<const char*, const char*> cases[] = {
        {"abs.qcow2", "by the absolute path /etc/passwd"},
        {"up.qcow2", "leads out of the volume"},
        {"vialink.qcow2", "link.qcow2: leads out of"},
        {"fifo.qcow2", "fifo.raw: not a regular file"},
        {"orphan.qcow2", "gone.qcow2: cannot be opened: No such file"},
        {"data.qcow2", "external data file is not read"},
        {"kdmv.vmdk", "holds a descriptor of its own"},
        {"stale.vmdk", "broken chain: "},
        {"loop1.vmdk", "comes back to"},
        {"elsewhere.vmdk", "is not on this disk's datastore [ds1]"},
        {"loose.vmdk", "not written as qemu reads extent lines"},
    };
    for (const auto& [name, reason] : cases) {
        CArchiveVirtualDiskFile disk(2);
        disk.SetVMInfo(nullptr, "vm", "", &m.ctx, nullptr);
        const CQiError err = disk.Open(m.vm + name, 1);
        EXPECT_NE(err.AsString().find(reason), std::string::npos) << name << ": " << err.AsString();
        EXPECT_EQ(QemuChildren(), 0u) << name;
    }
    EXPECT_TRUE(std::filesystem::is_empty(m.results));
}

// Peak memory of a pass over a large sparse disk stays near one extent buffer.
TEST_F(VDisk, LargeSparseDiskReadsInFlatMemory) {
    vshost::settings::Set("VirtualServer", "nVDiskExtentSizeKB", "1024");
    const uint64_t size = 64ull << 30;
    const std::string raw = File("big.img", size);
    for (uint64_t i = 0; i < 64; ++i) img::Fill(raw, i * (size / 64) + 12345, 1 << 20, static_cast<uint32_t>(i));
    // The same disk through qemu-nbd: its block status and read-ahead stay bounded too.
    ASSERT_EQ(img::Sh("qemu-img convert -f raw -O qcow2 " + raw + " " + home.sub("big.qcow2")), 0);
    auto kb = [](const char* field) {
        std::ifstream status("/proc/self/status");
        std::string line;
        while (std::getline(status, line))
            if (line.rfind(field, 0) == 0) return std::stoull(line.substr(std::string(field).size()));
        return 0ull;
    };
    for (const std::string& path : {raw, home.sub("big.qcow2")}) {
        std::ofstream("/proc/self/clear_refs") << "5";  // restart the peak from here
        const unsigned long long before = kb("VmRSS:");
        CArchiveVirtualDiskFile disk(2);
        ASSERT_FALSE(disk.Open(path, 2).IsError()) << path;
        CArchiveVirtualDiskFile::Context_t ctx;
        CAutoMemory<char> buffer;
        ASSERT_FALSE(disk.GetFirstBlock(buffer, 65536, ctx).IsError());
        std::vector<bool> bits;
        unsigned long long n = 0, extents = 0, bytes = 0;
        while (!disk.GetNextBlock(buffer, n, bits, ctx).IsError()) {
            ++extents;
            bytes += buffer.Size();
        }
        EXPECT_EQ(extents, 128u) << path;  // each 1 MiB run straddles two extents
        EXPECT_EQ(disk.GetAllocatedExtentCount(), 128u) << path;
        const unsigned long long peak = kb("VmHWM:");
        RecordProperty("peak_growth_kib", std::to_string(peak - std::min(peak, before)));
        EXPECT_LT(peak - std::min(peak, before), 64ull * 1024)
            << path << ": peak " << peak << " KiB, before " << before;
    }
}

}  // namespace
