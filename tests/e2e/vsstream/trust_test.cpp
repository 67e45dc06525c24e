// Trust in what vsstream says: a stream that says a disk is whole holds it whole, a
// crafted stream cannot grow or overwrite what it restores, and a failing target stops
// the restore at once.
#include "commands.h"
#include "stream_support.h"
#include "vshost/changetrack.h"
#include "vshost/durable.h"
#include "vshost/home.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

using namespace vstest;
namespace fs = std::filesystem;

namespace {

// Lines the tool wrote (a coverage build's own complaints under a file-size limit aside).
size_t Lines(const std::string& text) {
    std::istringstream in(text);
    size_t n = 0;
    for (std::string line; std::getline(in, line);) n += line.rfind("libgcov", 0) != 0;
    return n;
}

constexpr unsigned kExtent = 4096;

// A disk of three extents read as the extent reader does: its description (against
// `base` when the catalog holds its digests), the extents sent before its entry (one
// asked for by name), its entry, the extents of the pass, its read-completed marker.
void ReadDisk(const std::string& path, const std::string& base, const std::map<unsigned long long, std::string>& before,
              const std::map<unsigned long long, std::string>& pass, const std::string& changeId) {
    namespace ct = vshost::changetrack;
    if (!base.empty()) {
        ct::Store(base, {3 * kExtent, kExtent, {}});
        ASSERT_TRUE(ct::Load(base));  // as the disk reader does when it opens the disk
    }
    StreamFile s(path);
    SendVM(s.writer, "vm1");
    ASSERT_EQ(s.writer.sendDiskInfo("vm1", "disk0", "", 3, 1, 2, 3 * kExtent, kExtent, 3), 0);
    SendExtents(s.writer, "vm1", "disk0", before);
    ASSERT_EQ(Header(s.writer, "\\vm1\\disk0", 3 * kExtent, true, kExtent), 0);
    ASSERT_EQ(s.writer.sendEOF(true, 0), 0);
    SendExtents(s.writer, "vm1", "disk0", pass);
    ASSERT_EQ(s.writer.sendDiskReadCompleted("vm1", "disk0", changeId), 0);
    ASSERT_EQ(s.writer.close(true), 0);
}

}  // namespace

// A read of the whole disk marked done must hold every extent of the disk (holes
// count); a read against a change id may leave out what did not change.
TEST(StreamTrust, AWholeDiskReadThatLeftExtentsOutIsIncomplete) {
    TempHome home;
    const std::string a = Pattern(kExtent, 1), b = Pattern(kExtent, 2), zero(kExtent, '\0');
    struct Case {
        const char* name;
        std::string base;
        std::map<unsigned long long, std::string> before, pass;
        bool incomplete;
    };
    const Case cases[] = {
        {"whole", "", {}, {{0, a}, {1, zero}, {2, b}}, false},
        // Extent 1 asked for by name, then the whole disk: its pass went on after extent 1.
        {"extent-then-disk", "", {{1, a}}, {{2, b}}, true},
        {"incremental", "cid-0", {}, {{2, b}}, false},
    };
    for (const Case& c : cases) {
        const std::string stream = home.sub(std::string(c.name) + ".stream");
        ReadDisk(stream, c.base, c.before, c.pass, "cid-1");
        ToolRun r = Tool(home, "verify " + stream);
        EXPECT_EQ(r.code, c.incomplete ? 2 : 0) << c.name << r.err;
        const bool said = r.out.find(
                              "disk \\vm1\\disk0: incomplete, marked read, but its read of the whole disk sent 1 "
                              "of its 3 extents") != std::string::npos;
        EXPECT_EQ(said, c.incomplete) << c.name << "\n" << r.out;
        r = Tool(home, "list " + stream);
        EXPECT_EQ(r.out.find("INCOMPLETE") != std::string::npos, c.incomplete) << c.name << "\n" << r.out;
        r = Tool(home, "restore " + stream + " --to " + home.sub(std::string("r-") + c.name));
        EXPECT_EQ(r.out.find("incomplete in the stream") != std::string::npos, c.incomplete) << c.name << "\n" << r.out;
    }
}

// An incremental applies only onto the image of its base: the restore records each
// image's change id and refuses a mismatch unless told to go on.
TEST(StreamTrust, AnIncrementalOntoTheWrongBaseIsRefused) {
    TempHome home;
    const std::string a = Pattern(kExtent, 1), b = Pattern(kExtent, 2), c = Pattern(kExtent, 3);
    ReadDisk(home.sub("full.stream"), "", {}, {{0, a}, {1, b}, {2, c}}, "cid-1");
    ReadDisk(home.sub("incr-1.stream"), "cid-1", {}, {{1, c}}, "cid-2");
    ReadDisk(home.sub("incr-9.stream"), "cid-9", {}, {{2, a}}, "cid-10");
    const std::string image = home.sub("r/vm1/disk0"), sidecar = image + ".changeid";

    ASSERT_EQ(Tool(home, "restore " + home.sub("full.stream") + " --to " + home.sub("r")).code, 0);
    EXPECT_EQ(ReadAll(sidecar), "cid-1\n");
    ToolRun r = Tool(home, "restore " + home.sub("incr-9.stream") + " --onto " + home.sub("r"));
    EXPECT_EQ(r.code, vsstream::kExitCorrupt) << r.out << r.err;
    EXPECT_NE(r.err.find("disk \\vm1\\disk0 is an incremental from change id [cid-9], but its image here is at change "
                         "id [cid-1]; not applied"),
              std::string::npos)
        << r.err;
    EXPECT_TRUE(ReadAll(image) == a + b + c);
    EXPECT_EQ(ReadAll(sidecar), "cid-1\n");

    r = Tool(home, "restore " + home.sub("incr-1.stream") + " --onto " + home.sub("r"));
    EXPECT_EQ(r.code, 0) << r.out << r.err;
    EXPECT_TRUE(ReadAll(image) == a + c + c);
    EXPECT_EQ(ReadAll(sidecar), "cid-2\n");

    // Told to, it applies the mismatch, and the image is then at the incremental's id.
    r = Tool(home, "restore " + home.sub("incr-9.stream") + " --onto " + home.sub("r") + " --force");
    EXPECT_EQ(r.code, 0) << r.out << r.err;
    EXPECT_TRUE(ReadAll(image) == a + c + a);
    EXPECT_EQ(ReadAll(sidecar), "cid-10\n");
    // A new restore records no change id: an incremental alone is no disk.
    EXPECT_EQ(Tool(home, "restore " + home.sub("incr-1.stream") + " --to " + home.sub("r2")).code,
              vsstream::kExitCorrupt);
}

// Extents past a disk's end are corrupt and never grow the image; a target that fails a
// write ends the restore with one line, without reading the rest of the stream.
TEST(StreamTrust, CraftedExtentsAndAFullTarget) {
    TempHome home;
    const std::string disk = Pattern(2 * kExtent + 100, 3);
    {
        StreamFile s(home.sub("past.stream"));
        SendVM(s.writer, "vm1");
        ASSERT_EQ(s.writer.sendDiskInfo("vm1", "disk0", "", 3, 1, 2, disk.size(), kExtent, 3), 0);
        ASSERT_EQ(Header(s.writer, "\\vm1\\disk0", disk.size(), true, kExtent), 0);
        ASSERT_EQ(s.writer.sendEOF(true, 0), 0);
        SendExtents(s.writer, "vm1", "disk0",
                    {{0, disk.substr(0, kExtent)}, {2, Pattern(kExtent, 9)}, {7, Pattern(kExtent, 8)}});
        SendExtents(s.writer, "vm1", "disk0", {{1, std::string(2 * kExtent, '\0')}});  // a hole too long
        ASSERT_EQ(s.writer.close(true), 0);
    }
    ToolRun r = Tool(home, "verify " + home.sub("past.stream"));
    EXPECT_EQ(r.code, vsstream::kExitCorrupt) << r.out << r.err;
    for (const char* what : {"Extent00000000000000000002] reaches past the end of disk",
                             "Extent00000000000000000007] lies past the end of disk",
                             "Extent00000000000000000001] reaches past the end of disk"})
        EXPECT_NE(r.err.find(what), std::string::npos) << what << "\n" << r.err;
    r = Tool(home, "restore " + home.sub("past.stream") + " --to " + home.sub("r1"));
    EXPECT_EQ(r.code, vsstream::kExitCorrupt) << r.out << r.err;
    EXPECT_EQ(fs::file_size(home.sub("r1/vm1/disk0")), disk.size());

    // A target that takes no more than 64 KiB: the first write that fails ends it all.
    {
        StreamFile s(home.sub("big.stream"));
        SendVM(s.writer, "vm1");
        SendConfig(s.writer, "vm1", "vm1.nvram", Pattern(200 * 1024, 4));
        for (int i = 0; i < 20; ++i) SendConfig(s.writer, "vm1", "log" + std::to_string(i), Pattern(8192, 5));
        ASSERT_EQ(s.writer.close(true), 0);
    }
    WriteFile(home.sub("big.stream"), ReadAll(home.sub("big.stream")) + "tail");  // read whole, it is corrupt
    r = Tool(home, "restore " + home.sub("big.stream") + " --to " + home.sub("r2"), "trap '' XFSZ; ulimit -f 64; ");
    EXPECT_EQ(r.code, vsstream::kExitCorrupt) << r.out << r.err;
    EXPECT_EQ(Lines(r.err), 1u) << r.err;
    EXPECT_NE(r.err.find("cannot write \\vm1\\vm1.nvram: File too large; restore stopped"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(home.sub("r2/vm1/log0")));
}

// The catalog names a completed disk only after the stream holding its marker is
// synced (a stream that cannot be synced still works), and a file published by a
// rename has its folder synced.
TEST(StreamTrust, CompletedDisksAreRecordedOnlyOnceTheStreamIsDurable) {
    TempHome home;
    vshost::LogCapture log;
    {
        StreamFile s(home.sub("synced.stream"));
        s.writer.SetJobId(91);
        SendVM(s.writer, "vm1");
        SendDisk(s.writer, "vm1", "disk0", Pattern(2 * kExtent, 1), kExtent);
        ASSERT_EQ(s.writer.close(true), 0);
        const std::string line = "vsArchive: stream synced through byte [" + std::to_string(s.Bytes().size()) +
                                 "]; recording [1] completed disk(s)";
        EXPECT_TRUE(log.Contains(line)) << line;
        EXPECT_EQ(vshost::changetrack::JobDisks(91).size(), 1u);
    }
    {  // a pipe: nothing to sync, the job goes on as before
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        auto pipe = CPipelayer::OpenFd(fds[1]);
        vsSim sim;
        vsArchive w(nullptr, nullptr, &sim, "hub1");
        KTLogObject ktlog;
        InitKTlog(&ktlog, "DM_TEST\t", "", 0);
        ASSERT_EQ(w.init(pipe.get(), &ktlog, "client1"), 0);
        w.SetJobId(92);
        SendDisk(w, "vm1", "disk0", Pattern(kExtent, 2), kExtent);
        ASSERT_EQ(w.close(true), 0);
        EXPECT_TRUE(log.Contains("the stream cannot be synced (not a file); recording [1] completed disk(s)"));
        EXPECT_EQ(vshost::changetrack::JobDisks(92).size(), 1u);
        close(fds[0]);
        close(fds[1]);
    }
    const unsigned long long before = vshost::FolderSyncs();
    vshost::settings::Set("Trust", "key", "value");
    vshost::settings::Save();
    EXPECT_GT(vshost::FolderSyncs(), before);
}

// A disk and a configuration file of one VM with the same name both survive the
// restore: the one that comes second gets a distinct name, which list shows.
TEST(StreamTrust, ADiskAndAConfigFileOfTheSameNameAreBothRestored) {
    TempHome home;
    const std::string disk = Pattern(2 * kExtent, 7), config = "nvram bytes";
    struct Case {
        const char* name;
        bool describedFirst;  // the extent reader describes its disks before any file
        const char *diskAt, *configAt;
    };
    for (const Case& c : {Case{"described", true, "vm.nvram", "vm.nvram.config"},
                          Case{"config-first", false, "vm.nvram.disk", "vm.nvram"}}) {
        const std::string stream = home.sub(std::string(c.name) + ".stream");
        {
            StreamFile s(stream);
            SendVM(s.writer, "vm1");
            if (c.describedFirst) {
                ASSERT_EQ(s.writer.sendDiskInfo("vm1", "vm.nvram", "", 3, 1, 2, disk.size(), kExtent, 2), 0);
            }
            SendConfig(s.writer, "vm1", "vm.nvram", config);
            ASSERT_EQ(Header(s.writer, "\\vm1\\vm.nvram", disk.size(), true, kExtent), 0);
            ASSERT_EQ(s.writer.sendEOF(true, 0), 0);
            SendExtents(s.writer, "vm1", "vm.nvram", {{0, disk.substr(0, kExtent)}, {1, disk.substr(kExtent)}});
            ASSERT_EQ(s.writer.sendDiskReadCompleted("vm1", "vm.nvram", "cid-1"), 0);
            ASSERT_EQ(s.writer.close(true), 0);
        }
        const std::string dir = home.sub(std::string("r-") + c.name);
        ToolRun r = Tool(home, "restore " + stream + " --to " + dir);
        EXPECT_EQ(r.code, 0) << c.name << r.err;
        EXPECT_TRUE(ReadAll(dir + "/vm1/" + c.diskAt) == disk) << c.name;
        EXPECT_EQ(ReadAll(dir + "/vm1/" + c.configAt), config) << c.name;
        EXPECT_EQ(ReadAll(dir + "/vm1/" + c.diskAt + ".changeid"), "cid-1\n") << c.name;
        r = Tool(home, "list " + stream);
        const std::string renamed = std::string(c.describedFirst ? c.configAt : c.diskAt);
        EXPECT_NE(r.out.find("(restored as \\vm1\\" + renamed + ")"), std::string::npos) << c.name << "\n" << r.out;
    }
}
