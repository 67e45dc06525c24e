// The vsstream program: exit codes, listing and standard input.
#include "stream_support.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace vstest;

TEST(StreamTool, VerifyListAndRestoreFromStandardInput) {
    TempHome home;
    const std::string stream = home.sub("vm.stream");
    std::string disk = Pattern(2 * 4096, 1);
    std::fill(disk.begin() + 4096, disk.end(), '\0');
    {
        StreamFile s(stream);
        SendVM(s.writer, "vm1");
        SendConfig(s.writer, "vm1", "vm1.vmx", "x = 1\n");
        SendDisk(s.writer, "vm1", "disk0", disk, 4096);
        s.writer.sendVMReadCompleted("vm1");
        ASSERT_EQ(s.writer.close(true), 0);
    }
    const std::string bytes = ReadAll(stream);

    ToolRun r = Tool(home, "verify " + stream);
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out.rfind("complete: ", 0), 0u) << r.out;

    WriteFile(home.sub("cut.stream"), bytes.substr(0, bytes.size() - 10));
    r = Tool(home, "verify " + home.sub("cut.stream"));
    EXPECT_EQ(r.code, 2) << r.err;
    EXPECT_NE(r.err.find("incomplete: offset "), std::string::npos) << r.err;

    std::string flipped = bytes;
    flipped[200] ^= 0x10;
    WriteFile(home.sub("bad.stream"), flipped);
    r = Tool(home, "verify " + home.sub("bad.stream"));
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("corrupt: offset "), std::string::npos) << r.err;
    r = Tool(home, "verify " + home.sub("missing.stream"));
    EXPECT_EQ(r.code, 3);

    r = Tool(home, "list " + stream);
    EXPECT_EQ(r.code, 0) << r.err;
    for (const char* line : {"\\vm1\n", "\\vm1\\vm1.vmx\n", "\\vm1\\disk0\\Extent00000000000000000001\n",
                             "disk \\vm1\\disk0: size 8192, extent size 4096, 2 extents sent, 1 of them holes"})
        EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;
    EXPECT_NE(r.out.find("extent                   4096             4096                0  \\vm1\\disk0\\Extent0"),
              std::string::npos)
        << r.out;

    r = Tool(home, "restore - --to " + home.sub("out") + " <" + stream);
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_TRUE(ReadAll(home.sub("out/vm1/disk0")) == disk);
    EXPECT_EQ(ReadAll(home.sub("out/vm1/vm1.vmx")), "x = 1\n");
    r = Tool(home, "restore - --to " + home.sub("out2") + " <" + home.sub("cut.stream"));
    EXPECT_EQ(r.code, 2);
    EXPECT_TRUE(ReadAll(home.sub("out2/vm1/disk0")) == disk);  // all that was whole is restored
}

// Every wrong command line ends with the one usage status; help is not an error.
TEST(StreamTool, EveryUsageErrorEndsWithTheUsageStatus) {
    TempHome home;
    std::filesystem::create_directories(home.sub("full"));
    WriteFile(home.sub("full/x"), "x");
    for (const std::string& args :
         {std::string(""), std::string("frobnicate"), std::string("verify"), std::string("verify --bogus s"),
          "restore " + home.sub("s"), "restore " + home.sub("s") + " --to a --onto b",
          "restore " + home.sub("s") + " --to " + home.sub("full")}) {
        const ToolRun r = Tool(home, args);
        EXPECT_EQ(r.code, 64) << args << "\n" << r.err;
        EXPECT_FALSE(r.err.empty()) << args;
    }
    const ToolRun help = Tool(home, "--help");
    EXPECT_EQ(help.code, 0);
    EXPECT_NE(help.out.find("64 bad command line"), std::string::npos) << help.out;
}
