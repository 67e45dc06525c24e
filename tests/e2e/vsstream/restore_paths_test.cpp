// vsstream restore --format: every format restores a full backup and an incremental
// onto it as qemu reads the source, sparse, in a VM folder whose .vmx names disks that
// are there.
#include "commands.h"
#include "disk_images.h"
#include "run_support.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;
namespace img = vstest::images;
using vstest::RunResult;
using vstest::Shell;

namespace {

constexpr uint64_t kMiB = 1ull << 20;

const char* QemuFormat(vsstream::ImageFormat f) {
    return f == vsstream::ImageFormat::Qcow2 ? "qcow2" : f == vsstream::ImageFormat::Vmdk ? "vmdk" : "raw";
}

// The disk images the fileName lines of a .vmx name, as written (a CD image aside).
std::vector<std::string> VmxDisks(const std::string& vmx) {
    std::istringstream in(vstest::ReadAll(vmx));
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) {
        if (line.find(".fileName") == std::string::npos) continue;
        const std::string file = line.substr(line.find('"') + 1, line.rfind('"') - line.find('"') - 1);
        if (!file.ends_with(".iso")) out.push_back(file);
    }
    return out;
}

uint64_t Allocated(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_blocks) * 512 : ~0ull;
}

}  // namespace

TEST(VsstreamRestoreFormats, EachFormatRestoresAFullAndAnIncrementalAsTheSourceReads) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    const vssample::SampleVM& web = s.vm("web01");
    const std::string flat = web.folder + "/web01-flat.vmdk";
    img::Fill(flat, 8 * kMiB, kMiB, 41);  // zeroed again before the incremental
    const std::vector<std::string> items = vstest::ThreeItems(s);
    std::ofstream(home.sub("full.json")) << vstest::SampleJob(home, s, 1, items, true).dump();
    RunResult r = Shell(vstest::Vsdm() + " run " + home.sub("full.json") + " --out " + home.sub("full.bin"));
    ASSERT_EQ(r.status, 0) << r.output;

    struct Case {
        const char* format;  // as given to --format
        bool onto;           // the incremental names the format too (else the restore's own is found)
    };
    const Case cases[] = {{"raw", true}, {"vmdk", false}, {"qcow2", false}, {"qcow2", true}, {"native", false}};
    for (const Case& c : cases)
        ASSERT_EQ(Shell(vstest::Vsstream() + " restore " + home.sub("full.bin") + " --format " + c.format + " --to " +
                        home.sub(std::string("r-") + c.format + (c.onto ? "-onto" : "")))
                      .status,
                  0);

    // The next snapshot: new data at 5 MiB, an extent that became zeros.
    img::Fill(flat, 5 * kMiB, 4096, 42);
    img::Fill(flat, 8 * kMiB, kMiB, 0);
    std::ofstream(home.sub("incr.json")) << vstest::SampleJob(home, s, 2, items, true).dump();
    r = Shell(vstest::Vsdm() + " run " + home.sub("incr.json") + " --incremental-from 1 --out " + home.sub("incr.bin"));
    ASSERT_EQ(r.status, 0) << r.output;

    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.format) + (c.onto ? " --onto with --format" : ""));
        const std::string dir = home.sub(std::string("r-") + c.format + (c.onto ? "-onto" : ""));
        r = Shell(vstest::Vsstream() + " restore " + home.sub("incr.bin") + " --onto " + dir +
                  (c.onto ? std::string(" --format ") + c.format : ""));
        ASSERT_EQ(r.status, 0) << r.output;
        vsstream::ImageFormat asked = vsstream::ImageFormat::Native;
        ASSERT_TRUE(vsstream::ParseImageFormat(c.format, asked));
        for (const char* name : {"web01", "db01", "fs01"}) {
            const vssample::SampleVM& vm = s.vm(name);
            const std::string folder = dir + "/" + vm.biosUuid + "/";
            for (const vssample::SampleDisk& d : vm.disks) {
                if (d.backupType != 1) continue;
                const vsstream::ImageFormat f =
                    asked == vsstream::ImageFormat::Native ? vsstream::NativeFormat(d.name) : asked;
                const vsstream::ImageNames names = vsstream::NamesFor(d.name, f);
                const std::string restored = folder + (names.descriptor.empty() ? names.data : names.descriptor);
                const char* source = d.name.ends_with(".vmdk") ? "vmdk" : "raw";
                EXPECT_EQ(img::Compare(restored, QemuFormat(f), d.path, source), "") << restored;
                if (f == vsstream::ImageFormat::Qcow2) {
                    EXPECT_EQ(img::Sh("qemu-img check -q -f qcow2 " + img::Quote(restored)), 0) << restored;
                }
                // Sparse: the data (at most a few MiB per sample disk) and metadata, not the disk's size.
                EXPECT_LT(Allocated(folder + names.data), d.size / 2) << restored;
            }
            // The .vmx names disks that are there, in this folder.
            const std::vector<std::string> named = VmxDisks(folder + vm.name + ".vmx");
            EXPECT_EQ(named.empty(), vm.name == "fs01");  // only its disk was backed up, not the VM
            for (const std::string& disk : named)
                EXPECT_TRUE(fs::is_regular_file(folder + disk)) << vm.name << ".vmx names " << disk;
        }
    }
}

// A full and two incrementals served as one disk through their indexes: qemu reads the
// disk as it was at the last backup, block status shows its holes, verify --deep reads
// the chain as serve does, and an index that is not its stream's is refused.
TEST(VsstreamServe, AFullAndTwoIncrementalsServeTheDiskAtTheLastBackup) {
#ifdef __SANITIZE_ADDRESS__
    // nbdkit is not built with AddressSanitizer, so it cannot load a plug-in that is.
    GTEST_SKIP() << "the NBD plug-in is not served by nbdkit in a sanitizer build";
#endif
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    const vssample::SampleVM& web = s.vm("web01");
    const std::string flat = web.folder + "/web01-flat.vmdk";
    img::Fill(flat, 8 * kMiB, kMiB, 51);
    std::vector<std::string> streams;
    for (int job = 1; job <= 3; ++job) {
        if (job == 2) img::Fill(flat, 8 * kMiB, kMiB, 0);  // an extent that became zeros
        if (job == 3) img::Fill(flat, 3 * kMiB + 4096, 8192, 53);
        const std::string json = home.sub("job" + std::to_string(job) + ".json");
        std::ofstream(json) << vstest::SampleJob(home, s, job, {web.biosUuid}, true).dump();
        streams.push_back(home.sub("s" + std::to_string(job) + ".bin"));
        const std::string from = job > 1 ? " --incremental-from " + std::to_string(job - 1) : "";
        const RunResult r = Shell(vstest::Vsdm() + " run " + json + from + " --out " + streams.back());
        ASSERT_EQ(r.status, 0) << r.output;
    }
    const std::string chain = streams[0] + " " + streams[1] + " " + streams[2];
    const std::string disk = " --disk " + web.biosUuid + "/web01.vmdk";
    const std::string socket = home.sub("web01.sock");

    // The writer left each stream's index; one without it is served once it is made
    // again, and verify --deep needs none.
    for (const std::string& stream : streams) EXPECT_TRUE(fs::is_regular_file(stream + ".idx")) << stream;
    fs::remove(streams[1] + ".idx");
    RunResult r = Shell("timeout 60 " + vstest::Vsstream() + " serve " + chain + disk + " --socket " + socket);
    EXPECT_EQ(r.status, vsstream::kExitUnreadable);
    EXPECT_NE(r.output.find("vsstream index makes one"), std::string::npos) << r.output;
    r = Shell(vstest::Vsstream() + " verify --deep " + chain);
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("web01.vmdk: "), std::string::npos) << r.output;
    ASSERT_EQ(Shell(vstest::Vsstream() + " index " + streams[1]).status, 0);

    r = Shell(vstest::Vsstream() + " serve " + chain + disk + " --socket " + socket + " >" + home.sub("serve.log") +
              " 2>&1 & echo $!");
    const pid_t server = std::stoi(r.output);
    for (int i = 0; i < 1000 && !fs::exists(socket); ++i) ::usleep(10000);
    const std::string uri = "nbd+unix:///?socket=" + socket;
    EXPECT_EQ(img::Compare(uri, "raw", web.disks[0].path, "vmdk"), "") << vstest::ReadAll(home.sub("serve.log"));
    std::string map;
    EXPECT_EQ(img::Sh("nbdinfo --map " + img::Quote(uri), &map), 0) << map;
    EXPECT_NE(map.find("hole,zero"), std::string::npos) << map;
    // Read-only: a write is refused.
    EXPECT_NE(img::Sh("qemu-io -f raw -c 'write 0 512' " + img::Quote(uri)), 0);
    ::kill(server, SIGTERM);

    // verify --deep reads the indexed chain; an index swapped for another stream's is refused.
    r = Shell(vstest::Vsstream() + " verify --deep " + chain);
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("matches the stream"), std::string::npos) << r.output;
    fs::copy_file(streams[1] + ".idx", streams[2] + ".idx", fs::copy_options::overwrite_existing);
    r = Shell(vstest::Vsstream() + " verify " + streams[2]);
    EXPECT_EQ(r.status, vsstream::kExitCorrupt) << r.output;
    EXPECT_NE(r.output.find("does not match the stream"), std::string::npos) << r.output;
    r = Shell("timeout 60 " + vstest::Vsstream() + " serve " + chain + disk + " --socket " + socket + "2");
    EXPECT_EQ(r.status, vsstream::kExitUnreadable);
    EXPECT_NE(r.output.find("is not the index of"), std::string::npos) << r.output;
}
