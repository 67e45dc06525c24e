// The extent reader end to end: items of a generated snapshot go through the real
// reader, VM-info library, disk reader and archive writer; the stream is decoded and
// the disks rebuilt from it.
#include "open_sample.h"
#include "probe.h"
#include "stream_support.h"

#include "vshost/home.h"
#include "vshost/vmdk.h"
#include "vssample/sample.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <map>
#include <regex>

using namespace vstest;

namespace {

constexpr KTJobID kJob = 4711;
constexpr uint64_t kExtent = 256 * 1024;

// The bytes of a disk, straight from its files.
std::string SourceDisk(const std::string& path) {
    vshost::vmdk::Descriptor d;
    std::string why;
    if (vshost::vmdk::Inspect(path, d, why) == vshost::vmdk::Kind::RawImage) return ReadAll(path);
    std::string out;
    for (const auto& e : d.extents) {
        std::string part = e.IsZero() ? std::string() : ReadAll(e.file).substr(e.offsetSectors * 512);
        part.resize(e.sectors * 512, '\0');
        out += part;
    }
    return out;
}

size_t ExtentCount(const StreamView& s, const std::string& disk) {
    size_t n = 0;
    for (const Entry& e : s.entries) n += e.path.rfind(disk + "\\Extent", 0) == 0;
    return n;
}

// The disk as the stream rebuilds it onto `base` (a fresh disk when empty).
std::string Disk(const StreamView& s, const std::string& vm, const std::string& disk, std::string base = {}) {
    const Entry* head = s.Find("\\" + vm + "\\" + disk);
    if (!head) return "<no disk entry>";
    base.resize(head->As<vshost::FileHeaderRecord>().size, '\0');
    const std::string prefix = "\\" + vm + "\\" + disk + "\\";
    for (const Entry& e : s.entries) {
        unsigned long long n = 0;
        if (e.path.rfind(prefix, 0) != 0 ||
            !ExtentNameConverter::GetExtentNumberFromFileName(e.path.substr(prefix.size()), n))
            continue;
        base.replace(n * head->As<vshost::FileHeaderRecord>().extentSize, e.content.size(), e.content);
    }
    return base;
}

class Extents : public ::testing::Test {
protected:
    void SetUp() override {
        vshost::settings::Set("VirtualServer", "nVDiskExtentSizeKB", std::to_string(kExtent / 1024));
        vssample::SampleOptions options;
        options.diskSize = 8ull << 20;
        sample = vssample::GenerateSample(options);
    }

    // One job over the sample into home's `stream`, and the stream it wrote.
    std::vector<int> Run(const Items& items, const std::string& stream,
                         const vssample::SampleSnapshot* snap = nullptr) {
        Probe r(&event, kJob, home.sub(stream));
        return RunJob(r, snap ? *snap : sample, kJob, items);
    }

    vstest::TempHome home;
    vshost::LogCapture log;
    KtEvent event;
    vssample::SampleSnapshot sample;
};

TEST_F(Extents, WholeVMRoundTripsWithHolesAndChangeIds) {
    const vssample::SampleVM& web = sample.vm("web01");
    const std::string guid = web.biosUuid;
    ASSERT_EQ(Run({{guid, DiskOptions({})}}, "full.bin"), std::vector<int>{0});
    const StreamView s = ViewFile(home.sub("full.bin"));
    EXPECT_EQ(s.decoded.state, vshost::StreamReader::State::Complete);
    ExpectSampleIdentity(home.sub("full.bin"), sample, kJob, true);
    // Instance type 102 gives every disk of the VM's mount information product type 2.
    EXPECT_GT(log.Count("ProductType[2]"), 0u);
    EXPECT_EQ(log.Count("ProductType["), log.Count("ProductType[2]"));

    for (const std::string& name : web.configFiles) {
        const Entry* e = s.Find("\\" + guid + "\\" + name);
        ASSERT_TRUE(e) << name;
        EXPECT_TRUE(e->complete);
        EXPECT_EQ(e->content, ReadAll(web.folder + "/" + name)) << name;
    }
    for (const vssample::SampleDisk& disk : web.disks) {
        const std::string source = SourceDisk(disk.path);
        EXPECT_TRUE(Disk(s, guid, disk.name) == source) << disk.name;
        // Only extents with data are in the stream, and zeros never go out as data.
        EXPECT_LT(ExtentCount(s, "\\" + guid + "\\" + disk.name), source.size() / kExtent / 2);
    }
    for (const Entry& e : s.entries) EXPECT_FALSE(!e.holeBytes && !e.content.empty() && AllZero(e.content)) << e.path;
    // The allocated run of zeros at 6 MiB of the first disk is a hole of full length.
    std::string name;
    ExtentNameConverter::GetFilePath((6ull << 20) / kExtent, name);
    const Entry* zeros = s.Find("\\" + guid + "\\web01.vmdk\\" + name);
    ASSERT_TRUE(zeros);
    EXPECT_EQ(zeros->As<vshost::FileHeaderRecord>().size, kExtent);
    EXPECT_EQ(zeros->holeBytes, kExtent);

    // The VM's entry, every disk's description and first block, then per mount-info
    // record (a configuration file first) a configuration file or a disk entry with its
    // extents and its change id, and the VM's completion.
    EXPECT_TRUE(std::regex_match(s.Kinds(), std::regex("SFE(NV){2}NFD*E(NFD*E|FE(F(D|H)E)*C)+MT"))) << s.Kinds();
    const auto done = s.All<vshost::DiskReadCompletedRecord>();
    ASSERT_EQ(done.size(), 2u);
    for (const auto& d : done) EXPECT_FALSE(d.changeId.empty());
    ASSERT_EQ(s.All<vshost::VMReadCompletedRecord>().size(), 1u);
    EXPECT_EQ(s.All<vshost::VMReadCompletedRecord>()[0].vmGuid, guid);
}

TEST_F(Extents, IncrementalCarriesOnlyChangesAndResumeCompletesAStoppedDisk) {
    const vssample::SampleVM& web = sample.vm("web01");
    const std::string guid = web.biosUuid;
    ASSERT_EQ(Run({{guid, DiskOptions({})}}, "full.bin"), std::vector<int>{0});
    const StreamView full = ViewFile(home.sub("full.bin"));
    std::map<std::string, std::string> ids;
    for (const auto& done : full.All<vshost::DiskReadCompletedRecord>()) ids[done.diskName] = done.changeId;

    // The next snapshot: one extent changed, one run of data punched out.
    vssample::SampleOptions next;
    next.snapJobId = sample.snapJobId + 1;
    next.firstAfileId = 3000;
    next.diskSize = 8ull << 20;
    const vssample::SampleSnapshot later = vssample::GenerateSample(next);
    const std::string flat = later.vm("web01").folder + "/web01-flat.vmdk";
    {
        const int fd = ::open(flat.c_str(), O_RDWR);
        ASSERT_EQ(::pwrite(fd, "changed", 7, 100), 7);
        ASSERT_EQ(::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 3 << 20, kExtent), 0);
        ::close(fd);
    }
    const std::string incrOptions =
        DiskOptions({{"web01.vmdk", "", ids["web01.vmdk"], 0, 0}, {"web01_1.vmdk", "", ids["web01_1.vmdk"], 0, 0}});
    ASSERT_EQ(Run({{guid, incrOptions}}, "incr.bin", &later), std::vector<int>{0});
    const StreamView incr = ViewFile(home.sub("incr.bin"));
    EXPECT_EQ(ExtentCount(incr, "\\" + guid + "\\web01.vmdk"), 2u);    // the changed one and the punched one
    EXPECT_EQ(ExtentCount(incr, "\\" + guid + "\\web01_1.vmdk"), 0u);  // nothing changed
    for (size_t i = 0; i < 2; ++i) {
        const vssample::SampleDisk& d = later.vm("web01").disks[i];
        EXPECT_TRUE(Disk(incr, guid, d.name, Disk(full, guid, d.name)) == SourceDisk(d.path)) << d.name;
    }
    // A job stopped after two extents; the next attempt resumes where it stopped.
    event.setAfterPolls(3);
    EXPECT_EQ(Run({{guid, DiskOptions({})}}, "stopped.bin"), std::vector<int>{~0});
    EXPECT_TRUE(log.Contains("Received job interruption flag..."));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::UnMountAllMountedVMs: All VMs unmounted"));
    event.reset();
    const StreamView stopped = ViewFile(home.sub("stopped.bin"));
    EXPECT_TRUE(stopped.All<vshost::DiskReadCompletedRecord>().empty());
    const std::string& lastPath = stopped.entries.back().path;
    unsigned long long last = 0;
    ASSERT_TRUE(ExtentNameConverter::GetExtentNumberFromFileName(lastPath.substr(lastPath.rfind('\\') + 1), last));
    const std::string resume = DiskOptions({{"web01.vmdk", "", "", 0, static_cast<int64_t>(last + 1)}});
    ASSERT_EQ(Run({{guid, resume}}, "resumed.bin"), std::vector<int>{0});
    EXPECT_TRUE(Disk(ViewFile(home.sub("resumed.bin")), guid, "web01.vmdk", Disk(stopped, guid, "web01.vmdk")) ==
                SourceDisk(web.disks[0].path));
}

// A configuration file is copied as measured, in pieces of at most 32 KiB, under the
// size its mount information gives.
TEST_F(Extents, ConfigFilesAreCopiedAsMeasured) {
    const struct {
        std::string name, content;
        unsigned long long mountSize;
    } cases[] = {{"big.vmx", Pattern(100000, 1), 100000}, {"empty.nvram", "", 0}, {"short.vmsd", "sssss", 2}};
    {
        Probe r(&event, kJob, home.sub("cfg.bin"));
        ASSERT_EQ(r.Initialize(), 0);
        std::string vm = "vm-cfg";
        ASSERT_EQ(r.SendVMHeader(vm), 0);
        for (const auto& c : cases) {
            std::string name = c.name, extra, path = home.sub(c.name);
            WriteFile(path, c.content);
            EXPECT_EQ(r.SendConfigFile(vm, name, extra, 2, 0, c.mountSize, path), 0) << c.name;
        }
    }
    const StreamView s = ViewFile(home.sub("cfg.bin"));
    EXPECT_EQ(s.decoded.state, vshost::StreamReader::State::Complete);
    for (const auto& c : cases) {
        const Entry* e = s.Find("\\vm-cfg\\" + c.name);
        ASSERT_TRUE(e) << c.name;
        EXPECT_EQ(e->As<vshost::FileHeaderRecord>().size, c.mountSize) << c.name;
        EXPECT_TRUE(e->content == c.content) << c.name;
        EXPECT_LE(e->largestPiece, 32768u) << c.name;
        EXPECT_TRUE(e->complete) << c.name;
    }
}

TEST_F(Extents, ItemForms) {
    const vssample::SampleVM& web = sample.vm("web01");
    const std::string guid = web.biosUuid;
    std::string third;
    ExtentNameConverter::GetFilePath(3 * (1 << 20) / kExtent, third);
    const std::vector<int> results = Run(
        {
            {guid + "\\web01_1.vmdk", ""},            // one disk
            {guid + "\\web01.vmdk\\" + third, ""},    // one extent by its name
            {guid + "\\web01.vmdk\\Extent0", ""},     // and by "Extent<N>"
            {guid + "\\nosuch.vmdk", ""},             // a disk the VM lacks
            {guid + "\\web01_1.vmdk", ""},            // the same path again
            {guid + "\\a\\b\\c", ""},                 // four tokens
            {guid, "<SnapSrcPathOptions><diskInfo"},  // undecodable options: read in full
        },
        "forms.bin");
    EXPECT_EQ(results, (std::vector<int>{0, 0, 0, ~0, 0, ~0, 0}));
    const StreamView s = ViewFile(home.sub("forms.bin"));
    EXPECT_TRUE(log.Contains("No items sent for [" + guid + "] [nosuch.vmdk]"));
    EXPECT_TRUE(log.Contains("Path:[" + guid + "\\web01_1.vmdk] already processed"));
    EXPECT_TRUE(log.Contains("Error parsing the VM Guid from the snap source path [" + guid + "\\a\\b\\c]"));
    EXPECT_TRUE(log.Contains("failed to decode VirtualServer::SnapSrcPathOptions"));
    EXPECT_EQ(log.Count("Sending VM ["), 1u);  // one VM entry for all the items
    ASSERT_TRUE(s.Find("\\" + guid + "\\web01.vmdk\\" + third));
    EXPECT_FALSE(AllZero(s.Find("\\" + guid + "\\web01.vmdk\\" + third)->content));
    ASSERT_TRUE(s.Find("\\" + guid + "\\web01.vmdk\\Extent0"));
    EXPECT_EQ(Disk(s, guid, "web01.vmdk"), SourceDisk(web.disks[0].path));
    EXPECT_EQ(Disk(s, guid, "web01_1.vmdk"), SourceDisk(web.disks[1].path));

    // Alternate names: disks under the names the options give, no configuration files;
    // a disk processed before is counted and not read.
    const std::string alt =
        DiskOptions({{"restored_a.vmdk", "web01.vmdk", "", 0, 0}, {"restored_b.vmdk", "web01_1.vmdk", "", 1, 0}});
    EXPECT_EQ(Run({{guid, alt}}, "alt.bin"), std::vector<int>{0});
    const StreamView a = ViewFile(home.sub("alt.bin"));
    EXPECT_EQ(Disk(a, guid, "restored_a.vmdk"), SourceDisk(web.disks[0].path));
    EXPECT_FALSE(a.Find("\\" + guid + "\\restored_b.vmdk"));
    EXPECT_FALSE(a.Find("\\" + guid + "\\web01.vmx"));
}

// Disks of type 18 are named by their datastore path with the snapshot's backup marker
// cut from the datastore name.
TEST(ExtentNames, FixDiskNameCutsTheBackupMarkerUpToTheBracket) {
    const std::pair<std::string, std::string> cases[] = {
        {"[ds1_TL_BACKUP_77] vm/disk.vmdk", "[ds1] vm/disk.vmdk"},
        {"[ds1_TL_BACKUP_] vm/a]b.vmdk", "[ds1] vm/a]b.vmdk"},                 // the first bracket after it
        {"[ds1_TL_BACKUP_77 vm/disk.vmdk", "[ds1_TL_BACKUP_77 vm/disk.vmdk"},  // no bracket after it
        {"a]_TL_BACKUP_x", "a]_TL_BACKUP_x"},
        {"[ds1] vm/disk.vmdk", "[ds1] vm/disk.vmdk"},
    };
    Probe r;
    for (const auto& [name, fixed] : cases) {
        std::string text = name;
        r.FixDiskName(text);
        EXPECT_EQ(text, fixed) << name;
    }
}

}  // namespace
