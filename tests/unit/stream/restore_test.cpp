// Restore: every entry kind lands where it belongs, incrementals update disk images in
// place, and nothing is ever written outside the restore folder.
#include "commands.h"
#include "stream_support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <filesystem>

using namespace vstest;
namespace fs = std::filesystem;

namespace {

struct Restored {
    int code;
    std::string out, err;
};

Restored Restore(const std::string& stream, const std::string& dir) {
    const int fd = open(stream.c_str(), O_RDONLY);
    std::ostringstream out, err;
    const int code = vsstream::RunRestore(fd, dir, out, err);
    close(fd);
    return {code, out.str(), err.str()};
}

// Every file below `dir` with its content; links by their target.
std::map<std::string, std::string> Snapshot(const std::string& dir) {
    std::map<std::string, std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(dir)) {
        const std::string rel = fs::relative(e.path(), dir);
        if (e.is_symlink())
            out[rel] = "-> " + fs::read_symlink(e.path()).string();
        else if (e.is_regular_file())
            out[rel] = ReadAll(e.path());
        else
            out[rel] = "<dir>";
    }
    return out;
}

constexpr unsigned kExtent = 64 * 1024;

// A disk of whole extents, each all data (a pattern) or all zeros.
std::string Disk(const std::string& layout, size_t tail, unsigned seed) {
    std::string d;
    for (size_t i = 0; i < layout.size(); ++i)
        d += layout[i] == 'D' ? Pattern(kExtent, seed * 100 + static_cast<unsigned>(i)) : std::string(kExtent, '\0');
    return d + Pattern(tail, seed);
}

// The extents of `now` that differ from `before`, as a change-tracked read sends them.
std::map<unsigned long long, std::string> Changed(const std::string& before, const std::string& now) {
    std::map<unsigned long long, std::string> out;
    for (size_t at = 0, n = 0; at < now.size(); at += kExtent, ++n)
        if (at >= before.size() || before.substr(at, kExtent) != now.substr(at, kExtent))
            out[n] = now.substr(at, kExtent);
    return out;
}

}  // namespace

TEST(StreamRestore, EveryEntryKindLandsInItsPlace) {
    TempHome home;
    const std::string disk = Disk("DZDZ", 1000, 1);
    {
        StreamFile s(home.sub("all.stream"));
        vsArchive& w = s.writer;
        SendVM(w, "vm1");
        SendConfig(w, "vm1", "vm1.vmx", "displayName = \"vm1\"\n");
        SendDisk(w, "vm1", "disk0.vmdk", disk, kExtent);
        // A disk as a file collection: an empty disk entry, then its nodes below it.
        auto node = [&](const std::string& path, const std::string& data) {
            ASSERT_EQ(w.sendFCFileHeader(path, data.size(), 0, false, false, 1, 0, 0, 0, false, true, 0, 0, 0, 0, 0, 0,
                                         0, 0, 0, 0),
                      0);
            if (!data.empty()) w.allocateAndSendDataBuffer(data.data(), data.size());
            ASSERT_EQ(w.sendEOF(true, 0), 0);
        };
        node("\\vm1\\disk1", "");
        node("\\vm1\\disk1\\docs\\a.txt", "node data");
        node("\\vm1\\disk1\\empty", "");
        ASSERT_EQ(w.sendDirectoryEntry({"/etc", 0, 040750, 0, 0, 0, 1600000000000000000LL, 0}), 0);
        ASSERT_EQ(w.sendFileLevelHeader({"/etc/hosts", 9, 0100640, 0, 0, 0, 1500000000500000000LL, 0}), 0);
        w.allocateAndSendDataBuffer("127.0.0.1", 9);
        w.sendHole(3);  // a file-level file may end in a hole
        ASSERT_EQ(w.sendEOF(true, 0), 0);
        ASSERT_EQ(w.sendFileLevelHeader({"/etc/su", 2, 0106755, 0, 0, 0, 0, 0}), 0);  // set-user-id and -group-id
        w.allocateAndSendDataBuffer("#!", 2);
        ASSERT_EQ(w.sendEOF(true, 0), 0);
        ASSERT_EQ(w.sendFileLevelHeader({"/etc/link", 5, 0120777, 0, 0, 0, 0, 0}), 0);
        w.allocateAndSendDataBuffer("hosts", 5);
        ASSERT_EQ(w.sendEOF(true, 0), 0);
        ASSERT_EQ(w.close(true), 0);
    }
    const std::string dir = home.sub("out");
    const Restored r = Restore(home.sub("all.stream"), dir);
    ASSERT_EQ(r.code, vsstream::kExitOk) << r.err;
    EXPECT_EQ(ReadAll(dir + "/vm1/vm1.vmx"), "displayName = \"vm1\"\n");
    // A .vmdk disk is restored as a VMDK: its bytes in the flat file.
    EXPECT_TRUE(ReadAll(dir + "/vm1/disk0-flat.vmdk") == disk);
    struct stat st {};
    ASSERT_EQ(stat((dir + "/vm1/disk0-flat.vmdk").c_str(), &st), 0);
    EXPECT_EQ(static_cast<size_t>(st.st_size), disk.size());
    EXPECT_LE(static_cast<size_t>(st.st_blocks) * 512, disk.size() - kExtent);  // the holes stayed holes
    EXPECT_TRUE(fs::is_directory(dir + "/vm1/disk1"));
    EXPECT_EQ(ReadAll(dir + "/vm1/disk1/docs/a.txt"), "node data");
    EXPECT_TRUE(fs::is_regular_file(dir + "/vm1/disk1/empty"));
    EXPECT_EQ(ReadAll(dir + "/etc/hosts"), std::string("127.0.0.1\0\0\0", 12));
    ASSERT_EQ(stat((dir + "/etc/hosts").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(st.st_mtim.tv_sec, 1500000000);
    EXPECT_EQ(st.st_mtim.tv_nsec, 500000000);
    ASSERT_EQ(stat((dir + "/etc").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0750u);
    EXPECT_EQ(st.st_mtim.tv_sec, 1600000000);
    ASSERT_EQ(stat((dir + "/etc/su").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    EXPECT_FALSE(fs::exists(fs::symlink_status(dir + "/etc/link")));
    EXPECT_NE(r.err.find("/etc/link is not a regular file; skipped"), std::string::npos) << r.err;
    EXPECT_NE(r.out.find("restored 5 files, 1 disk images (5 extents)"), std::string::npos) << r.out;
}

TEST(StreamRestore, IncrementalsOntoAnEarlierRestoreGiveTheNewDisk) {
    TempHome home;
    const std::string v1 = Disk("DZDDZDD", 10000, 1);
    std::string v2 = v1.substr(0, 7 * kExtent) + Pattern(kExtent, 77) + Pattern(5000, 78);  // grown
    std::copy_n(Pattern(kExtent, 55).begin(), kExtent, v2.begin() + 2 * kExtent);           // changed
    std::fill_n(v2.begin() + 3 * kExtent, kExtent, '\0');                                   // became zero
    std::copy_n(Pattern(kExtent, 44).begin(), kExtent, v2.begin() + 4 * kExtent);           // hole became data
    std::string v3 = v2.substr(0, 5 * kExtent + 123);                                       // shrunk
    std::fill_n(v3.begin(), kExtent, '\0');

    auto stream = [&](const std::string& name, const std::string& before, const std::string& now,
                      const std::string& vmx) {
        StreamFile s(home.sub(name));
        SendConfig(s.writer, "vm1", "vm1.vmx", vmx);
        if (before.empty()) {
            SendVM(s.writer, "vm1");
            SendDisk(s.writer, "vm1", "disk0", now, kExtent);
        } else {
            ASSERT_EQ(s.writer.sendDiskInfo("vm1", "disk0", "", 3, 1, 2, now.size(), kExtent, 0), 0);
            ASSERT_EQ(Header(s.writer, "\\vm1\\disk0", now.size(), true, kExtent), 0);
            ASSERT_EQ(s.writer.sendEOF(true, 0), 0);
            SendExtents(s.writer, "vm1", "disk0", Changed(before, now));
        }
        ASSERT_EQ(s.writer.close(true), 0);
    };
    stream("full.stream", "", v1, std::string(5000, 'a'));
    stream("incr1.stream", v1, v2, "short");
    stream("incr2.stream", v2, v3, "shorter");
    const std::string dir = home.sub("out");
    const std::string image = dir + "/vm1/disk0";

    ASSERT_EQ(Restore(home.sub("full.stream"), dir).code, vsstream::kExitOk);
    ASSERT_TRUE(ReadAll(image) == v1);
    const Restored r = Restore(home.sub("incr1.stream"), dir);
    ASSERT_EQ(r.code, vsstream::kExitOk) << r.err;
    EXPECT_NE(r.out.find("(5 extents)"), std::string::npos) << r.out;
    EXPECT_TRUE(ReadAll(image) == v2);
    EXPECT_EQ(ReadAll(dir + "/vm1/vm1.vmx"), "short");
    ASSERT_EQ(Restore(home.sub("incr2.stream"), dir).code, vsstream::kExitOk);
    EXPECT_TRUE(ReadAll(image) == v3);
    EXPECT_EQ(ReadAll(dir + "/vm1/vm1.vmx"), "shorter");

    // One extent asked for by name: the disk is described, its entry never comes.
    std::string v4 = v3;
    std::copy_n(Pattern(kExtent, 99).begin(), kExtent, v4.begin() + 2 * kExtent);
    {
        StreamFile s(home.sub("one.stream"));
        ASSERT_EQ(s.writer.sendDiskInfo("vm1", "disk0", "", 3, 1, 2, v4.size(), kExtent, 0), 0);
        ASSERT_EQ(Header(s.writer, "\\vm1\\disk0\\Extent2", kExtent, false), 0);
        s.writer.allocateAndSendDataBuffer(v4.data() + 2 * kExtent, kExtent);
        ASSERT_EQ(s.writer.sendEOF(true, 0), 0);
        ASSERT_EQ(s.writer.close(true), 0);
    }
    ASSERT_EQ(Restore(home.sub("one.stream"), dir).code, vsstream::kExitOk);
    EXPECT_TRUE(ReadAll(image) == v4);
}

TEST(StreamRestore, NothingIsWrittenOutsideTheRestoreFolder) {
    TempHome home;
    const std::string outside = home.sub("outside");
    const std::string dir = home.sub("restore");
    fs::create_directories(outside);
    fs::create_directories(dir + "/vm");
    WriteFile(outside + "/victim.txt", "original");
    WriteFile(outside + "/victim2.img", "original2");
    fs::create_directory_symlink("../../outside", dir + "/vm/link");
    fs::create_symlink("../../outside/victim.txt", dir + "/vm/filelink");
    fs::create_hard_link(outside + "/victim2.img", dir + "/vm/hard.img");
    const auto before = Snapshot(outside);

    {
        StreamFile s(home.sub("evil.stream"));
        vsArchive& w = s.writer;
        auto file = [&](const std::string& path) {
            ASSERT_EQ(Header(w, path, 4, false), 0);
            w.allocateAndSendDataBuffer("evil", 4);
            ASSERT_EQ(w.sendEOF(true, 0), 0);
        };
        SendVM(w, "..");
        file("\\vm\\..\\..\\outside\\x.vmx");
        file("\\/tmp\\abs.vmx");
        file("\\vm\\a/../../../outside/y");
        file("\\vm\\link\\z.vmx");
        file("\\vm\\link/victim.txt");
        file("\\vm\\filelink");  // replaced by a file of its own, never written through
        file("\\vm\\.\\dot");
        file("\\vm\\\\double");
        file("vm\\noslash");
        file("\\");
        file("\\vm\\good.vmx");
        SendDisk(w, "vm", "hard.img", Pattern(kExtent, 5), kExtent);
        ASSERT_EQ(w.sendFCFileHeader("\\vm\\d\\..\\..\\..\\outside\\n", 4, 0, false, false, 1, 0, 0, 0, false, true, 0,
                                     0, 0, 0, 0, 0, 0, 0, 0, 0),
                  0);
        w.allocateAndSendDataBuffer("evil", 4);
        ASSERT_EQ(w.sendEOF(true, 0), 0);
        for (const char* client : {"/../outside/f", "C:\\..\\..\\outside\\g", "\\\\server\\..\\..\\h"}) {
            ASSERT_EQ(w.sendFileLevelHeader({client, 4, 0100644, 0, 0, 0, 0, 0}), 0);
            w.allocateAndSendDataBuffer("evil", 4);
            ASSERT_EQ(w.sendEOF(true, 0), 0);
        }
        ASSERT_EQ(w.sendDirectoryEntry({"../outside/newdir", 0, 040777, 0, 0, 0, 0, 0}), 0);
        ASSERT_EQ(w.close(true), 0);
    }
    const Restored r = Restore(home.sub("evil.stream"), dir);
    EXPECT_EQ(r.code, vsstream::kExitCorrupt);
    EXPECT_EQ(Snapshot(outside), before);
    EXPECT_EQ(ReadAll(dir + "/vm/good.vmx"), "evil");
    EXPECT_EQ(ReadAll(dir + "/vm/filelink"), "evil");
    EXPECT_FALSE(fs::is_symlink(dir + "/vm/filelink"));
    EXPECT_TRUE(fs::is_symlink(dir + "/vm/link"));
    EXPECT_NE(r.err.find("is not a plain relative name"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("cannot enter folder vm/link: it is a symbolic link"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("will not update vm/hard.img"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("does not begin with a backslash"), std::string::npos) << r.err;
    // Every refusal names the offset of its record.
    std::istringstream lines(r.err);
    for (std::string line; std::getline(lines, line);) EXPECT_EQ(line.rfind("offset ", 0), 0u) << line;
}
