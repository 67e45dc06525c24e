// `vsdm run --compress zstd[:LEVEL]`: a compressed stream, one stream or a set, verifies
// and restores to what an uncompressed one gives, and costs less where the data
// compresses. Each stream leaves the index that `vsstream index` would make of it, though
// its writer knew where its packed records landed only once they were written.
#include "run_support.h"

#include "vssample/sample.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;
using vstest::RunResult;
using vstest::Shell;

TEST(VsdmCompress, ACompressedStreamRestoresWhatAPlainOneDoes) {
    vstest::TempHome home;
    // A disk of text with a hole and zeros inside data, beside the sample's VMs.
    const std::string image = home.sub("text.img");
    {
        std::ofstream out(image, std::ios::binary);
        for (int line = 0; line < 200000; ++line) out << "line " << line << " of a log that compresses well\n";
        out << std::string(3u << 20, '\0') << "the end\n";
    }
    fs::resize_file(image, 64u << 20);
    const vssample::SampleSnapshot s = vssample::GenerateImageSnapshot(image);
    std::ofstream(home.sub("job.json")) << vstest::SampleJob(home, s, 90, {s.vms.at(0).biosUuid}, true).dump();

    struct Run {
        const char* name;
        std::string args;
    };
    const Run runs[] = {
        {"plain", ""},
        {"zstd", " --compress zstd"},
        {"zstd-19", " --compress zstd:19"},
        {"set", " --compress zstd:3 --streams 2"},
    };
    std::map<std::string, uintmax_t> sizes;
    for (const Run& r : runs) {
        SCOPED_TRACE(r.name);
        const std::string out = home.sub(std::string(r.name) + ".bin");
        const RunResult run = Shell(vstest::Vsdm() + " run " + home.sub("job.json") + " --out " + out + r.args);
        ASSERT_EQ(run.status, 0) << run.output;
        const RunResult verify = Shell(vstest::Vsstream() + " verify " + out);
        EXPECT_EQ(verify.status, 0) << verify.output;
        const bool set = r.args.find("--streams") != std::string::npos;
        // One item: the set has one stream.
        for (const std::string& stream : std::vector{set ? out + ".1" : out}) {
            const std::string written = vstest::ReadAll(stream + ".idx");
            EXPECT_GT(written.size(), 100u) << stream;
            EXPECT_NE(verify.output.find("index " + stream + ".idx: matches the stream"), std::string::npos)
                << verify.output;
            ASSERT_EQ(Shell(vstest::Vsstream() + " index " + stream).status, 0);
            EXPECT_TRUE(vstest::ReadAll(stream + ".idx") == written) << stream;
        }
        EXPECT_FALSE(fs::exists(out + ".idx") && set) << "a stream set's manifest has no index";
        const RunResult restore =
            Shell(vstest::Vsstream() + " restore " + out + " --to " + home.sub(std::string(r.name) + ".restored"));
        ASSERT_EQ(restore.status, 0) << restore.output;
        sizes[r.name] = fs::file_size(out);
    }
    const auto plain = vstest::Tree(home.sub("plain.restored"));
    EXPECT_EQ(plain.at(s.vms.at(0).biosUuid + "/" + vstest::RestoredBytes(s.vms.at(0).disks.at(0).name)),
              vstest::ReadAll(image));
    for (const char* name : {"zstd", "zstd-19", "set"})
        EXPECT_TRUE(vstest::Tree(home.sub(std::string(name) + ".restored")) == plain) << name;
    EXPECT_LT(sizes["zstd"], sizes["plain"] / 4);
    EXPECT_LE(sizes["zstd-19"], sizes["zstd"]);
}
