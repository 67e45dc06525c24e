// Trust in what vsstream says: a stream that says a disk is whole holds it whole, a
// crafted stream cannot grow or overwrite what it restores, and a failing target stops
// the restore at once.
#include "commands.h"
#include "stream_support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <sys/wait.h>

using namespace vstest;
namespace fs = std::filesystem;

namespace {

struct ToolRun {
    int code;
    std::string out, err;
};

// The tool through bash, so that a test may set limits first.
ToolRun Tool(const TempHome& home, const std::string& args, const std::string& before = "") {
    const std::string out = home.sub("tool.out"), err = home.sub("tool.err");
    const std::string line = before + "'" + VS_STREAM_TOOL + "' " + args + " >'" + out + "' 2>'" + err + "'";
    const int status = std::system(("bash -c \"" + line + "\"").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(out), ReadFile(err)};
}

size_t Lines(const std::string& text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

constexpr unsigned kExtent = 4096;

}  // namespace

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
        SendExtents(s.writer, "vm1", "disk0", {{1, std::string(2 * kExtent, '\0')}});   // a hole too long
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
    WriteFile(home.sub("big.stream"), ReadFile(home.sub("big.stream")) + "tail");   // read whole, it is corrupt
    r = Tool(home, "restore " + home.sub("big.stream") + " --to " + home.sub("r2"), "trap '' XFSZ; ulimit -f 64; ");
    EXPECT_EQ(r.code, vsstream::kExitCorrupt) << r.out << r.err;
    EXPECT_EQ(Lines(r.err), 1u) << r.err;
    EXPECT_NE(r.err.find("cannot write \\vm1\\vm1.nvram: File too large; restore stopped"), std::string::npos)
        << r.err;
    EXPECT_FALSE(fs::exists(home.sub("r2/vm1/log0")));
}
