// The extent reader end to end: items of a generated snapshot go through the real
// reader, VM-info library, disk reader and archive writer; the stream is decoded and
// the disks rebuilt from it.
#include "open_sample.h"
#include "probe.h"
#include "temp_home.h"

#include "vscodec/streamreader.h"
#include "vshost/home.h"
#include "vshost/vmdk.h"
#include "vssample/sample.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>

namespace fs = std::filesystem;

namespace {

constexpr KTJobID kJob = 4711;
constexpr uint64_t kExtent = 256 * 1024;

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The bytes of a disk, straight from its files.
std::string SourceDisk(const std::string& path) {
    vshost::vmdk::Descriptor d;
    std::string why;
    if (vshost::vmdk::Inspect(path, d, why) == vshost::vmdk::Kind::RawImage) return ReadFile(path);
    std::string out;
    for (const auto& e : d.extents) {
        std::string part = e.IsZero() ? std::string() : ReadFile(e.file).substr(e.offsetSectors * 512);
        part.resize(e.sectors * 512, '\0');
        out += part;
    }
    return out;
}

struct Entry {
    vshost::FileHeaderRecord header;
    std::string data;
    uint64_t holeBytes = 0;
    size_t largestPiece = 0;
    bool complete = false;
};

struct Stream {
    std::vector<Entry> entries;
    std::vector<vshost::DiskInfoRecord> infos;
    std::vector<vshost::DiskReadCompletedRecord> disksDone;
    std::vector<std::string> vmsDone;
    std::vector<std::string> order;  // kinds, in stream order
    vshost::StreamReader::State state = vshost::StreamReader::State::Reading;

    const Entry* Find(const std::string& path) const {
        for (const Entry& e : entries)
            if (e.header.path == path) return &e;
        return nullptr;
    }
    size_t Extents(const std::string& diskPrefix) const {
        size_t n = 0;
        for (const Entry& e : entries)
            if (e.header.path.rfind(diskPrefix + "\\Extent", 0) == 0) ++n;
        return n;
    }
    // The disk as the stream rebuilds it onto `base` (a fresh disk when empty).
    std::string Disk(const std::string& vm, const std::string& disk, std::string base = {}) const {
        const Entry* head = Find("\\" + vm + "\\" + disk);
        if (!head) return "<no disk entry>";
        base.resize(head->header.size, '\0');
        const std::string prefix = "\\" + vm + "\\" + disk + "\\";
        for (const Entry& e : entries) {
            if (e.header.path.rfind(prefix, 0) != 0) continue;
            unsigned long long n = 0;
            if (!ExtentNameConverter::GetExtentNumberFromFileName(e.header.path.substr(prefix.size()), n)) continue;
            const uint64_t at = n * head->header.extentSize;
            std::string bytes = e.holeBytes ? std::string(e.holeBytes, '\0') : e.data;
            base.replace(at, bytes.size(), bytes);
        }
        return base;
    }
};

Stream Decode(const std::string& path) {
    Stream s;
    const int fd = ::open(path.c_str(), O_RDONLY);
    vshost::StreamReader reader(fd);
    vshost::StreamRecord rec;
    while (reader.Next(rec)) {
        s.order.push_back(vshost::stream::KindName(rec.kind));
        if (auto* h = std::get_if<vshost::FileHeaderRecord>(&rec.body)) s.entries.push_back(Entry{*h, {}, 0, 0, false});
        if (auto* d = std::get_if<vshost::DataRecord>(&rec.body)) {
            s.entries.back().data += std::string(d->bytes);
            s.entries.back().largestPiece = std::max(s.entries.back().largestPiece, d->bytes.size());
        }
        if (auto* h = std::get_if<vshost::HoleRecord>(&rec.body)) s.entries.back().holeBytes += h->length;
        if (auto* e = std::get_if<vshost::EndOfFileRecord>(&rec.body)) s.entries.back().complete = e->complete;
        if (auto* i = std::get_if<vshost::DiskInfoRecord>(&rec.body)) s.infos.push_back(*i);
        if (auto* c = std::get_if<vshost::DiskReadCompletedRecord>(&rec.body)) s.disksDone.push_back(*c);
        if (auto* v = std::get_if<vshost::VMReadCompletedRecord>(&rec.body)) s.vmsDone.push_back(v->vmGuid);
    }
    s.state = reader.state();
    ::close(fd);
    return s;
}

struct Item {
    std::string path;
    std::string options;
};

class Extents : public ::testing::Test {
protected:
    void SetUp() override {
        vshost::settings::Set("VirtualServer", "nVDiskExtentSizeKB", std::to_string(kExtent / 1024));
        vssample::SampleOptions options;
        options.diskSize = 8ull << 20;
        sample = vssample::GenerateSample(options);
    }

    // One job over the sample: every item through the reader, every archive file closed.
    std::vector<int> Run(const std::vector<Item>& items, const std::string& stream,
                         const vssample::SampleSnapshot* snap = nullptr) {
        const vssample::SampleSnapshot& s = snap ? *snap : sample;
        std::vector<int> results;
        Probe r(&event, kJob, home.sub(stream));
        EXPECT_EQ(r.Initialize(), 0);
        r.setShortClientName(s.mediaAgentName.c_str());
        r.setVSInstanceType(static_cast<VirtualServerInstanceType>(102));
        r.SetSnapEngineID(s.snapEngineId);
        std::string list = s.afileList;
        r.PreOpenArchiveFile(list.data());
        EXPECT_EQ(vstest::OpenSampleArchiveFile(r, s, kJob), 0);
        for (const Item& item : items) {
            FSRSnapSrcPath p;
            p.sSnapSrcPath = item.path;
            p.sOptionsXml = item.options;
            results.push_back(r.OnSnapSrcPath(&p));
        }
        for (size_t i = 0; i < s.afileIds.size(); ++i) r.Close(1);
        return results;
    }
    static std::string Options(const std::vector<VirtualServer::SnapSrcPathDiskInfo>& disks, bool cbt = true) {
        VirtualServer::SnapSrcPathOptions o;
        o.useCBT = cbt ? 1 : 0;
        o.diskInfo = disks;
        return o.Serialize();
    }

    vstest::TempHome home;
    vshost::LogCapture log;
    KtEvent event;
    vssample::SampleSnapshot sample;
};

TEST_F(Extents, WholeVMRoundTripsWithHolesAndChangeIds) {
    const vssample::SampleVM& web = sample.vm("web01");
    const std::string guid = web.biosUuid;
    ASSERT_EQ(Run({{guid, Options({})}}, "full.bin"), std::vector<int>{0});
    const Stream s = Decode(home.sub("full.bin"));
    EXPECT_EQ(s.state, vshost::StreamReader::State::Complete);
    vstest::ExpectSampleIdentity(home.sub("full.bin"), sample, kJob, true);
    // Instance type 102 gives every disk of the VM's mount information product type 2.
    EXPECT_GT(log.Count("ProductType[2]"), 0u);
    EXPECT_EQ(log.Count("ProductType["), log.Count("ProductType[2]"));

    for (const std::string& name : web.configFiles) {
        const Entry* e = s.Find("\\" + guid + "\\" + name);
        ASSERT_TRUE(e) << name;
        EXPECT_TRUE(e->complete);
        EXPECT_EQ(e->data, ReadFile(web.folder + "/" + name)) << name;
    }
    for (const vssample::SampleDisk& disk : web.disks) {
        const std::string source = SourceDisk(disk.path);
        EXPECT_TRUE(s.Disk(guid, disk.name) == source) << disk.name;
        // Only extents with data are in the stream, and zeros never go out as data.
        EXPECT_LT(s.Extents("\\" + guid + "\\" + disk.name), source.size() / kExtent / 2);
        for (const Entry& e : s.entries)
            if (!e.data.empty()) {
                EXPECT_NE(e.data.find_first_not_of('\0'), std::string::npos) << e.header.path;
            }
    }
    // The allocated run of zeros at 6 MiB of the first disk is a hole of full length.
    std::string name;
    ExtentNameConverter::GetFilePath((6ull << 20) / kExtent, name);
    const Entry* zeros = s.Find("\\" + guid + "\\web01.vmdk\\" + name);
    ASSERT_TRUE(zeros);
    EXPECT_EQ(zeros->header.size, kExtent);
    EXPECT_EQ(zeros->holeBytes, kExtent);

    // Disk descriptions come before any configuration file; each disk ends with its change id.
    const auto firstConfig = std::find(s.order.begin(), s.order.end(), "data") - s.order.begin();
    size_t infosBefore = 0;
    for (long i = 0; i < firstConfig; ++i) infosBefore += s.order[static_cast<size_t>(i)] == "disk-info";
    EXPECT_EQ(infosBefore, 3u);  // two disks, then the first configuration file's own
    ASSERT_EQ(s.disksDone.size(), 2u);
    for (const auto& done : s.disksDone) EXPECT_FALSE(done.changeId.empty());
    EXPECT_EQ(s.vmsDone, std::vector<std::string>{guid});

    // The whole record order of a VM read as a whole: its entry, every disk's
    // description, then per mount-info record a configuration file or a disk entry
    // with its extents and its completion, and the VM's completion.
    const std::map<std::string, char> letter = {{"stream-header", 'S'},
                                                {"identity", 'I'},
                                                {"file-header", 'F'},
                                                {"data", 'D'},
                                                {"hole", 'H'},
                                                {"end-of-file", 'E'},
                                                {"disk-info", 'N'},
                                                {"volume-header", 'V'},
                                                {"disk-read-completed", 'C'},
                                                {"vm-read-completed", 'M'},
                                                {"trailer", 'T'}};
    std::string kinds;
    // Packed data (an extent with zero runs inside) is the extent's data all the same.
    for (const std::string& k : s.order) kinds += letter.count(k) ? letter.at(k) : k == "packed-data" ? 'D' : '?';
    EXPECT_TRUE(std::regex_match(kinds, std::regex("SFE(NV){2}(NFD*E|FE(F(D|H)E)*C)+MT"))) << kinds;
}

TEST_F(Extents, IncrementalCarriesOnlyChangesAndResumeCompletesAStoppedDisk) {
    const vssample::SampleVM& web = sample.vm("web01");
    const std::string guid = web.biosUuid;
    ASSERT_EQ(Run({{guid, Options({})}}, "full.bin"), std::vector<int>{0});
    const Stream full = Decode(home.sub("full.bin"));
    std::map<std::string, std::string> ids;
    for (const auto& done : full.disksDone) ids[done.diskName] = done.changeId;

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
    ASSERT_EQ(Run({{guid, Options({{"web01.vmdk", "", ids["web01.vmdk"], 0, 0},
                                   {"web01_1.vmdk", "", ids["web01_1.vmdk"], 0, 0}})}},
                  "incr.bin", &later),
              std::vector<int>{0});
    const Stream incr = Decode(home.sub("incr.bin"));
    EXPECT_EQ(incr.Extents("\\" + guid + "\\web01.vmdk"), 2u);    // the changed one and the punched one
    EXPECT_EQ(incr.Extents("\\" + guid + "\\web01_1.vmdk"), 0u);  // nothing changed
    // The same through vsstream: a fresh restore, then the incremental onto it.
    const std::string dir = home.sub("restored");
    ASSERT_EQ(
        std::system(("'" VS_STREAM_TOOL "' restore " + home.sub("full.bin") + " --to " + dir + " >/dev/null").c_str()),
        0);
    struct stat st {};
    ASSERT_EQ(::stat((dir + "/" + guid + "/web01.vmdk").c_str(), &st), 0);
    EXPECT_LT(static_cast<uint64_t>(st.st_blocks) * 512, static_cast<uint64_t>(st.st_size) / 2);  // holes stay holes
    EXPECT_EQ(ReadFile(dir + "/" + guid + "/web01.vmx"), ReadFile(web.folder + "/web01.vmx"));
    EXPECT_EQ(ReadFile(dir + "/" + guid + "/web01.vmdk.changeid"), ids["web01.vmdk"] + "\n");
    ASSERT_EQ(std::system(
                  ("'" VS_STREAM_TOOL "' restore " + home.sub("incr.bin") + " --onto " + dir + " >/dev/null").c_str()),
              0);
    for (const vssample::SampleDisk& d : later.vm("web01").disks)
        EXPECT_TRUE(ReadFile(dir + "/" + guid + "/" + d.name) == SourceDisk(d.path)) << d.name;

    const std::string fullDisk = full.Disk(guid, "web01.vmdk");
    EXPECT_TRUE(incr.Disk(guid, "web01.vmdk", fullDisk) == SourceDisk(later.vm("web01").disks[0].path));
    EXPECT_TRUE(incr.Disk(guid, "web01_1.vmdk", full.Disk(guid, "web01_1.vmdk")) ==
                SourceDisk(later.vm("web01").disks[1].path));

    // A job stopped after two extents; the next attempt resumes where it stopped.
    event.setAfterPolls(3);
    EXPECT_EQ(Run({{guid, Options({})}}, "stopped.bin"), std::vector<int>{~0});
    EXPECT_TRUE(log.Contains("Received job interruption flag..."));
    EXPECT_TRUE(log.Contains("DataReaderVSBase::UnMountAllMountedVMs: All VMs unmounted"));
    event.reset();
    const Stream stopped = Decode(home.sub("stopped.bin"));
    EXPECT_TRUE(stopped.disksDone.empty());
    std::string lastName = stopped.entries.back().header.path;
    lastName = lastName.substr(lastName.rfind('\\') + 1);
    unsigned long long last = 0;
    ASSERT_TRUE(ExtentNameConverter::GetExtentNumberFromFileName(lastName, last));
    ASSERT_EQ(Run({{guid, Options({{"web01.vmdk", "", "", 0, static_cast<int64_t>(last + 1)}})}}, "resumed.bin"),
              std::vector<int>{0});
    const Stream resumed = Decode(home.sub("resumed.bin"));
    EXPECT_TRUE(resumed.Disk(guid, "web01.vmdk", stopped.Disk(guid, "web01.vmdk")) == SourceDisk(web.disks[0].path));
}

// A configuration file is copied as measured, in pieces of at most 32 KiB, under the
// size its mount information gives.
TEST_F(Extents, ConfigFilesAreCopiedAsMeasured) {
    std::string big(100000, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>('a' + i % 26);
    const struct {
        std::string name, content;
        unsigned long long mountSize;
    } cases[] = {{"big.vmx", big, big.size()}, {"empty.nvram", "", 0}, {"short.vmsd", std::string(50, 's'), 10}};
    std::string vm = "vm-cfg";
    {
        Probe r(&event, kJob, home.sub("cfg.bin"));
        ASSERT_EQ(r.Initialize(), 0);
        ASSERT_EQ(r.SendVMHeader(vm), 0);
        for (const auto& c : cases) {
            std::string path = home.sub(c.name), name = c.name, extra;
            std::ofstream(path, std::ios::binary) << c.content;
            EXPECT_EQ(r.SendConfigFile(vm, name, extra, 2, 0, c.mountSize, path), 0) << c.name;
        }
    }
    const Stream s = Decode(home.sub("cfg.bin"));
    EXPECT_EQ(s.state, vshost::StreamReader::State::Complete);
    for (const auto& c : cases) {
        const Entry* e = s.Find("\\" + vm + "\\" + c.name);
        ASSERT_TRUE(e) << c.name;
        EXPECT_EQ(e->header.size, c.mountSize) << c.name;
        EXPECT_TRUE(e->data == c.content) << c.name;
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
    const Stream s = Decode(home.sub("forms.bin"));
    EXPECT_TRUE(log.Contains("No items sent for [" + guid + "] [nosuch.vmdk]"));
    EXPECT_TRUE(log.Contains("Path:[" + guid + "\\web01_1.vmdk] already processed"));
    EXPECT_TRUE(log.Contains("Error parsing the VM Guid from the snap source path [" + guid + "\\a\\b\\c]"));
    EXPECT_TRUE(log.Contains("failed to decode VirtualServer::SnapSrcPathOptions"));
    EXPECT_EQ(log.Count("Sending VM ["), 1u);  // one VM entry for all the items
    ASSERT_TRUE(s.Find("\\" + guid + "\\web01.vmdk\\" + third));
    EXPECT_FALSE(s.Find("\\" + guid + "\\web01.vmdk\\" + third)->data.empty());
    ASSERT_TRUE(s.Find("\\" + guid + "\\web01.vmdk\\Extent0"));
    EXPECT_EQ(s.Disk(guid, "web01.vmdk"), SourceDisk(web.disks[0].path));
    EXPECT_EQ(s.Disk(guid, "web01_1.vmdk"), SourceDisk(web.disks[1].path));

    // Alternate names: disks under the names the options give, no configuration files;
    // a disk processed before is counted and not read.
    const std::vector<int> alt = Run(
        {{guid, Options({{"restored_a.vmdk", "web01.vmdk", "", 0, 0}, {"restored_b.vmdk", "web01_1.vmdk", "", 1, 0}})}},
        "alt.bin");
    EXPECT_EQ(alt, std::vector<int>{0});
    const Stream a = Decode(home.sub("alt.bin"));
    EXPECT_EQ(a.Disk(guid, "restored_a.vmdk"), SourceDisk(web.disks[0].path));
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
