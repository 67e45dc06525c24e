// The file-collection reader end to end: items of a generated snapshot go through the
// real reader, VM-info library, file collection and archive writer; the stream is
// decoded and compared with the folder the disk is made of. Faults come from the host's
// own fault settings or from changing the folder under the collection.
#include "DataReaderVSFileCollection.h"
#include "open_sample.h"
#include "probe.h"
#include "stream_support.h"

#include "vshost/changetrack.h"
#include "vshost/home.h"
#include "vssample/sample.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>

namespace fs = std::filesystem;
using namespace vstest;

namespace {

constexpr KTJobID kJob = 4712;

struct FCProbe : ProbePipe, DataReaderVSFileCollection {
    explicit FCProbe(KtEvent* event, const std::string& stream)
        : ProbePipe(stream), DataReaderVSFileCollection(pipe.get(), event, kJob) {}
    using DataReaderVSBase::m_afileRefCount;
    using DataReaderVSBase::m_bMatchAnyVM;
    using DataReaderVSBase::m_pVMInfo;
    using DataReaderVSBase::MountVM;
};

// What a folder holds, by node name ("srv\share\a.txt"): content, or nullopt for a folder.
std::map<std::string, std::optional<std::string>> SourceTree(const std::string& folder) {
    std::map<std::string, std::optional<std::string>> out;
    for (const auto& e : fs::recursive_directory_iterator(folder)) {
        std::string name = fs::relative(e.path(), folder).string();
        std::replace(name.begin(), name.end(), '/', '\\');
        if (e.is_directory())
            out[name] = std::nullopt;
        else
            out[name] = ReadAll(e.path().string());
    }
    return out;
}

// Node names in the order a collection must give them: a folder before what it holds,
// the entries of each folder by name.
void PreOrder(const fs::path& dir, const std::string& prefix, std::vector<std::string>& out) {
    std::vector<fs::directory_entry> entries(fs::directory_iterator(dir), fs::directory_iterator{});
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return a.path().filename().string() < b.path().filename().string(); });
    for (const auto& e : entries) {
        out.push_back(prefix + e.path().filename().string());
        if (e.is_directory() && !e.is_symlink()) PreOrder(e.path(), out.back() + "\\", out);
    }
}

// The collection entries (nodes, the disks' own included), in stream order.
std::vector<const Entry*> Nodes(const StreamView& s) {
    std::vector<const Entry*> out;
    for (const Entry& e : s.entries)
        if (e.head.kind == vshost::stream::Kind::CollectionHeader) out.push_back(&e);
    return out;
}

// Nodes below `disk`, by their name relative to it: content, or nullopt for a folder.
std::map<std::string, std::optional<std::string>> Tree(const StreamView& s, const std::string& disk) {
    std::map<std::string, std::optional<std::string>> out;
    for (const Entry* n : Nodes(s)) {
        if (n->path.rfind(disk + "\\", 0) != 0) continue;
        const std::string name = n->path.substr(disk.size() + 1);
        if (n->As<vshost::CollectionHeaderRecord>().attributes & FC_ATTRIBUTE_DIRECTORY)
            out[name] = std::nullopt;
        else
            out[name] = n->content;
    }
    return out;
}

class FileCollections : public ::testing::Test {
protected:
    void SetUp() override {
        sample = vssample::GenerateSample();
        guid = sample.vm("fs01").biosUuid;
        folder = sample.vm("fs01").disks[0].path;
    }

    // The reader prepared as the data mover prepares it, archive files open.
    std::unique_ptr<FCProbe> Open(const std::string& stream) {
        auto r = std::make_unique<FCProbe>(&event, stream.empty() ? "/dev/null" : stream);
        OpenOnSample(*r, sample, kJob);
        return r;
    }
    std::vector<int> Run(const Items& items, const std::string& stream) {
        FCProbe r(&event, home.sub(stream));
        return RunJob(r, sample, kJob, items);
    }
    static std::string Options(const std::vector<VirtualServer::SnapSrcPathDiskInfo>& disks) {
        return DiskOptions(disks, false);
    }

    vstest::TempHome home;
    vshost::LogCapture log;
    KtEvent event;
    vssample::SampleSnapshot sample;
    std::string guid, folder;
};

TEST_F(FileCollections, WholeVMSendsEveryCollectionDiskNodeByNode) {
    // Change, access and modify times all differ (access after modify, so reading the
    // files leaves it alone), and so do owner and group where they can be set, so a
    // header that swaps two of them is caught.
    const timespec times[2] = {{::time(nullptr) + 1000, 0}, {::time(nullptr) - 5000, 0}};
    for (const auto& e : fs::recursive_directory_iterator(folder)) {
        if (::geteuid() == 0) {
            ASSERT_EQ(::lchown(e.path().c_str(), 1234, 5678), 0) << e.path();
        }
        ASSERT_EQ(::utimensat(AT_FDCWD, e.path().c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << e.path();
    }
    ASSERT_EQ(Run({{guid, ""}}, "full.bin"), std::vector<int>{0});
    const StreamView s = ViewFile(home.sub("full.bin"));
    EXPECT_EQ(s.decoded.state, vshost::StreamReader::State::Complete);
    ExpectSampleIdentity(home.sub("full.bin"), sample, kJob, true);

    // The VM entry, then each collection disk as a container of its size followed by its
    // nodes, and its completion; the raw image of the same VM is no collection and is
    // not read here.
    const auto nodes = Nodes(s);
    ASSERT_EQ(s.entries.size(), nodes.size() + 1);
    EXPECT_EQ(s.entries[0].path, "\\" + guid);
    std::vector<std::string> done;
    for (const vssample::SampleDisk& d : sample.vm("fs01").disks) {
        if (d.backupType != 2) continue;
        const std::string disk = "\\" + guid + "\\" + d.name;
        const Entry* head = s.Find(disk);
        ASSERT_TRUE(head) << d.name;
        EXPECT_TRUE(head->As<vshost::CollectionHeaderRecord>().container);
        EXPECT_EQ(head->As<vshost::CollectionHeaderRecord>().size, d.size);
        EXPECT_EQ(Tree(s, disk), SourceTree(d.path)) << d.name;
        done.push_back(d.name);
    }
    EXPECT_EQ(done, (std::vector<std::string>{"fs01.vmdk", "fs01_home"}));
    const auto completed = s.All<vshost::DiskReadCompletedRecord>();
    ASSERT_EQ(completed.size(), 2u);
    EXPECT_EQ(completed[0].diskName, "fs01.vmdk");
    EXPECT_EQ(completed[1].diskName, "fs01_home");

    const std::string disk = "\\" + guid + "\\fs01.vmdk";
    const auto source = SourceTree(folder);
    ASSERT_EQ(nodes[0]->path, disk);
    EXPECT_EQ(log.Count("Done sending disk/volume [fs01.vmdk]"), source.size());

    // Nodes in a stable order, each closed, its data in pieces of at most 4 KiB, its
    // fields where the header puts them.
    std::vector<std::string> order;
    PreOrder(folder, "", order);
    std::map<std::string, uint64_t> numbers;
    uint64_t offset = 0;
    for (size_t i = 1; i <= source.size(); ++i) {
        const Entry& n = *nodes[i];
        const auto& h = n.As<vshost::CollectionHeaderRecord>();
        const std::string name = h.path.substr(disk.size() + 1);
        EXPECT_EQ(name, order.at(i - 1));
        EXPECT_TRUE(n.ended && n.complete) << name;
        EXPECT_LE(n.largestPiece, 4096u) << name;
        struct stat st {};
        std::string local = name;
        std::replace(local.begin(), local.end(), '\\', '/');
        ASSERT_EQ(::lstat((folder + "/" + local).c_str(), &st), 0) << name;
        EXPECT_EQ(h.size, S_ISDIR(st.st_mode) ? 0u : static_cast<uint64_t>(st.st_size)) << name;
        EXPECT_EQ(static_cast<uint64_t>(h.dataOffset), offset) << name;  // where its data lies in the disk
        EXPECT_EQ(h.dataEnd, offset + h.size) << name;                   // the crossed pair: data end, then parent
        const size_t cut = name.rfind('\\');
        EXPECT_EQ(h.parentNode, cut == std::string::npos ? 0u : numbers.at(name.substr(0, cut))) << name;
        const auto ns = [](const timespec& t) { return static_cast<uint64_t>(t.tv_sec) * 1000000000u + t.tv_nsec; };
        EXPECT_EQ(std::tie(h.fileId, h.ctimeNs, h.atimeNs, h.mtimeNs),
                  std::make_tuple(static_cast<uint64_t>(st.st_ino), ns(st.st_ctim), ns(st.st_atim), ns(st.st_mtim)))
            << name;
        EXPECT_EQ(std::tie(h.mode, h.uid, h.gid, h.links),
                  std::make_tuple(static_cast<uint32_t>(st.st_mode), static_cast<uint32_t>(st.st_uid),
                                  static_cast<uint32_t>(st.st_gid), static_cast<uint32_t>(st.st_nlink)))
            << name;
        EXPECT_EQ((h.attributes & FC_ATTRIBUTE_DIRECTORY) != 0, S_ISDIR(st.st_mode)) << name;
        numbers[name] = i;
        offset += h.size;
    }
}

TEST_F(FileCollections, ItemForms) {
    const std::vector<int> results = Run(
        {
            {guid + "\\fs01.vmdk", ""},         // one disk
            {guid + "\\fs01.vmdk", ""},         // the same path again
            {guid + "\\a\\b\\c", ""},           // four components
            {guid + "\\nosuch.vmdk", ""},       // a disk the VM lacks
            {guid + "\\fs01_data.img\\x", ""},  // a disk that is no collection: counted, nothing sent
        },
        "forms.bin");
    EXPECT_EQ(results, (std::vector<int>{0, 0, ~0, ~0, 0}));
    EXPECT_TRUE(log.Contains("Path:[" + guid + "\\fs01.vmdk] already processed"));
    EXPECT_TRUE(log.Contains("Error parsing the VM Guid from the snap source path [" + guid + "\\a\\b\\c]"));
    EXPECT_TRUE(log.Contains("No items sent for [" + guid + "] [nosuch.vmdk]"));
    EXPECT_EQ(log.Count("Sending VM ["), 1u);
    const StreamView s = ViewFile(home.sub("forms.bin"));
    EXPECT_EQ(Tree(s, "\\" + guid + "\\fs01.vmdk"), SourceTree(folder));  // sent once
    EXPECT_TRUE(Tree(s, "\\" + guid + "\\fs01_home").empty());            // and alone
    EXPECT_EQ(s.All<vshost::DiskReadCompletedRecord>().size(), 1u);

    // A disk processed in an earlier attempt is counted, not opened and not sent.
    log.Clear();
    EXPECT_EQ(Run({{guid, Options({{"fs01.vmdk", "", "", 1, 0}})}}, "processed.bin"), std::vector<int>{0});
    EXPECT_TRUE(
        log.Contains("OnSnapSrcPath: Disk [fs01.vmdk]: Already processed in a previous attempt of the job? [Yes]"));
    const StreamView p = ViewFile(home.sub("processed.bin"));
    EXPECT_FALSE(p.Find("\\" + guid + "\\fs01.vmdk"));
    EXPECT_EQ(Tree(p, "\\" + guid + "\\fs01_home"), SourceTree(sample.vm("fs01").disks[2].path));

    // An incremental item finds the disk by its second name and writes it under the first.
    {
        auto r = Open(home.sub("incr.bin"));
        EXPECT_EQ(RunItems(*r, {{guid + "\\fs01.vmdk", Options({{"target.vmdk", "FS01.VMDK", "", 0, 0}})}}),
                  std::vector<int>{0});
        EXPECT_TRUE(r->m_bMatchAnyVM);
    }
    const StreamView incr = ViewFile(home.sub("incr.bin"));
    EXPECT_EQ(Tree(incr, "\\" + guid + "\\target.vmdk"), SourceTree(folder));
    EXPECT_TRUE(Tree(incr, "\\" + guid + "\\fs01.vmdk").empty());
    // The options' first name is taken even when empty: never the source's own name.
    EXPECT_EQ(Run({{guid + "\\fs01.vmdk", Options({{"", "fs01.vmdk", "", 0, 0}})}}, "unnamed.bin"),
              std::vector<int>{0});
    const auto unnamed = ViewFile(home.sub("unnamed.bin")).All<vshost::DiskReadCompletedRecord>();
    ASSERT_EQ(unnamed.size(), 1u);
    EXPECT_EQ(unnamed[0].diskName, "");
}

TEST_F(FileCollections, FailuresEndTheDisk) {
    // Each fault of the file collection: the item fails, the stream stays whole, and the
    // disk is not marked read; a node that failed is closed as incomplete.
    const struct {
        const char *fault, *value, *stream;
        std::vector<std::string> lines;
        size_t nodes;  // in the stream
    } cases[] = {
        // A buffer that cannot be had closes the node and ends the disk there: the disk,
        // "etc", "etc\hostname".
        {"GetBuffer", "-1", "nobuffer.bin", {"Failed to allocate pipeline buffer"}, 3},
        // A failed read leaves the node without an end-of-file from the reader; the
        // writer ends it as incomplete at the close, and the stream is still whole.
        {"Read",
         "5",
         "noread.bin",
         {"Failed to backup file collection fs01.vmdk due to file collection [fs01.vmdk]",
          "Input/output error (errno 5)", "was left open; ended as incomplete"},
         3},
        {"NextNode", "5", "nonext.bin", {"Failed to get next node during backing up file collection."}, 1},
        {"Open",
         "13",
         "noopen.bin",
         {"Failed to open disk to archive, Err=[file collection [fs01.vmdk]", "\nDisk=[fs01.vmdk]\nDiskType=[3]"},
         0},
    };
    for (const auto& c : cases) {
        vshost::settings::Set("FileCollectionFaults", c.fault, c.value);
        EXPECT_EQ(Run({{guid, ""}}, c.stream), std::vector<int>{~0}) << c.fault;
        vshost::settings::Erase("FileCollectionFaults", c.fault);
        for (const std::string& line : c.lines) EXPECT_TRUE(log.Contains(line)) << line;
        const StreamView s = ViewFile(home.sub(c.stream));
        EXPECT_EQ(s.decoded.state, vshost::StreamReader::State::Complete) << c.fault;
        EXPECT_TRUE(s.All<vshost::DiskReadCompletedRecord>().empty()) << c.fault;
        EXPECT_EQ(Nodes(s).size(), c.nodes) << c.fault;
    }
    for (const char* stream : {"nobuffer.bin", "noread.bin"}) {
        const StreamView s = ViewFile(home.sub(stream));
        const auto nodes = Nodes(s);
        ASSERT_FALSE(nodes.empty());
        EXPECT_EQ(nodes.back()->path, "\\" + guid + "\\fs01.vmdk\\etc\\hostname") << stream;
        EXPECT_TRUE(nodes.back()->ended && !nodes.back()->complete) << stream;
    }

    // A stream that cannot be written: the pipeline's writer thread meets the full device
    // behind the reader's calls, and the failure shows at a later call, at the latest at
    // the disk's read-completed marker. Either way the item fails and the disk is not
    // marked read.
    log.Clear();
    {
        auto r = Open("/dev/full");
        EXPECT_EQ(RunItems(*r, {{guid, ""}}), std::vector<int>{~0});
    }
    EXPECT_TRUE(log.Contains("No space left on device"));
    EXPECT_FALSE(log.Contains("recording ["));
}

TEST_F(FileCollections, StopBetweenNodesEndsTheItemAndLeavesTheLastClose) {
    auto r = Open(home.sub("stopped.bin"));
    event.setAfterPolls(3);
    ASSERT_EQ(r->m_afileRefCount, 2);
    EXPECT_EQ(RunItems(*r, {{guid, ""}}), std::vector<int>{0});
    EXPECT_TRUE(log.Contains("Received job interruption flag..."));
    EXPECT_EQ(r->m_afileRefCount, 1);
    EXPECT_EQ(r->Close(1), 0);  // the one close left unmounts
    EXPECT_TRUE(log.Contains("DataReaderVSBase::UnMountAllMountedVMs: All VMs unmounted"));
    r.reset();
    // Two nodes of the first disk; the next disk stops before its first node.
    size_t nodes = 0;
    const StreamView s = ViewFile(home.sub("stopped.bin"));
    for (const Entry* n : Nodes(s)) nodes += n->As<vshost::CollectionHeaderRecord>().container ? 0 : 1;
    EXPECT_EQ(nodes, 2u);
    // Neither collection was read to its end: neither disk is marked read or recorded,
    // and the stream tool says so.
    EXPECT_TRUE(s.All<vshost::DiskReadCompletedRecord>().empty());
    EXPECT_TRUE(vshost::changetrack::JobDisks(kJob).empty());
    EXPECT_TRUE(log.Contains("is not marked read: its file collection was not read to its end"));
    const ToolRun verify = Tool(home, "verify " + home.sub("stopped.bin"));
    EXPECT_EQ(verify.code, 2);
    EXPECT_NE(verify.out.find(": incomplete, the reader did not finish it"), std::string::npos) << verify.out;
}

TEST_F(FileCollections, CollectionWalksWithoutFollowingLinksAndNoticesChanges) {
    // Operations sit at the places callers built against them expect (8th, 10th, 17th
    // and 18th virtual operations, destructors counted as two).
    auto slot = [](auto member) {
        struct {
            uintptr_t ptr;
            ptrdiff_t adj;
        } raw;
        static_assert(sizeof member == sizeof raw);
        std::memcpy(&raw, &member, sizeof raw);
        return (raw.ptr - 1) / sizeof(void*) + 1;  // a virtual member holds 1 + its table offset
    };
    EXPECT_EQ(slot(&CFileCollection::GetNextNode), 8u);
    EXPECT_EQ(slot(&CFileCollection::ReadNode), 10u);
    EXPECT_EQ(slot(&CFileCollection::GetBuffer), 17u);
    EXPECT_EQ(slot(&CFileCollection::SendBuffer), 18u);
    EXPECT_FALSE(CFileCollection::createFileCollectionInstance(1));

    // Links (to a file and to a folder outside) and a name the node form cannot carry
    // are passed over.
    fs::create_symlink("/etc/passwd", folder + "/etc/passwd-link");
    fs::create_directory_symlink("/etc", folder + "/etc-link");
    std::ofstream(folder + "/etc/back\\slash") << "x";
    // Opened through a mounted VM, as the reader opens it.
    auto r = Open("");
    DataReaderVMCtx vm;
    ASSERT_EQ(r->MountVM(guid, vm, {}), 0);
    auto c = CFileCollection::createFileCollectionInstance(VS_DISK_TYPE_FOLDER);
    c->SetVMInfo(r->m_pVMInfo, vm.mountCtx.sVMName, vm.mountCtx.sMountedName);
    c->SetVMDiskGuid("fs01.vmdk");
    ASSERT_FALSE(c->Open(vm.mountCtx).IsError());
    EXPECT_EQ(c->GetFolder(), folder);
    std::vector<std::string> names;
    SFileNode node;
    CQiError err;
    while (!(err = c->GetNextNode(node)).IsError()) names.push_back(node.sName);
    EXPECT_TRUE(FXErrorUtil::IsVS(err, 1));
    EXPECT_TRUE(FXErrorUtil::IsVS(c->GetNextNode(node), 1));  // and stays at the end
    fs::remove(folder + "/etc/passwd-link");
    fs::remove(folder + "/etc-link");
    fs::remove(folder + "/etc/back\\slash");
    std::vector<std::string> expected;
    PreOrder(folder, "", expected);
    EXPECT_EQ(names, expected);
    EXPECT_TRUE(log.Contains("[etc/passwd-link] is neither a file nor a folder; not collected"));
    EXPECT_TRUE(log.Contains("[etc/back\\slash] holds a backslash in its name; not collected"));

    // A file larger than the read-ahead comes whole in the caller's pieces; reading
    // stops at the size the node states.
    ASSERT_FALSE(c->Rewind().IsError());
    auto seek = [&](const std::string& name) {
        while (!c->GetNextNode(node).IsError())
            if (node.sName == name) return true;
        return false;
    };
    ASSERT_TRUE(seek("srv\\media\\archive.bin"));
    std::string data;
    char piece[4096];
    unsigned long got = 0;
    while (!(err = c->ReadNode(node, piece, sizeof piece, got)).IsError() && got > 0) data.append(piece, got);
    EXPECT_FALSE(err.IsError()) << err.AsString();
    EXPECT_TRUE(data == ReadAll(folder + "/srv/media/archive.bin"));

    // A file that shrinks, or is replaced, between its node and its reading fails to read.
    ASSERT_TRUE(seek("srv\\share\\big.bin"));
    ASSERT_EQ(::truncate((folder + "/srv/share/big.bin").c_str(), 100), 0);
    err = c->ReadNode(node, piece, sizeof piece, got);
    EXPECT_FALSE(err.IsError());
    EXPECT_EQ(got, 100u);
    err = c->ReadNode(node, piece, sizeof piece, got);
    EXPECT_TRUE(FXErrorUtil::IsVS(err, VS_ERROR_NODE_CHANGED)) << err.AsString();
    EXPECT_NE(err.AsString().find("srv/share/big.bin ends at 100 bytes; 40000 were listed"), std::string::npos);
    ASSERT_TRUE(seek("srv\\share\\notes.txt"));
    fs::rename(folder + "/etc/hostname", folder + "/srv/share/notes.txt");
    err = c->ReadNode(node, piece, sizeof piece, got);
    EXPECT_NE(err.AsString().find("was replaced after it was listed"), std::string::npos) << err.AsString();
}

}  // namespace
