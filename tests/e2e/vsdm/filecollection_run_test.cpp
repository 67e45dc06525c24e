// The data mover running a file-collection job, and vsstream rebuilding the VM's
// collection disks from the stream it wrote.
#include "run_support.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>

namespace {

using vstest::Shell;
using vstest::Tree;

TEST(VsdmFileCollection, JobRestoresEveryCollectionDiskOfTheVM) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    const vssample::SampleVM& vm = s.vm("fs01");
    nlohmann::json job = vssample::JobFor(s, 41);
    job["reader"] = "fileCollection";
    job["home"] = home.path();
    job["items"] = {{{"path", vm.biosUuid}}};
    job["out"] = "fc.stream";
    std::ofstream(home.sub("fc.json")) << job.dump();

    vstest::RunResult r = Shell(vstest::Vsdm() + " run " + home.sub("fc.json"));
    ASSERT_EQ(r.status, 0) << r.output;
    size_t nodes = 0, folders = 0;
    for (const auto& d : vm.disks) {
        if (d.backupType != 2) continue;
        for (const auto& [name, content] : Tree(d.path)) {
            ++nodes;
            folders += content == "<folder>" ? 1 : 0;
        }
    }
    EXPECT_NE(r.output.find("file-collection nodes " + std::to_string(nodes) + " (" + std::to_string(folders) +
                            " folders, " + std::to_string(nodes - folders) + " files)"),
              std::string::npos)
        << r.output;
    EXPECT_NE(r.output.find("disks completed 2"), std::string::npos) << r.output;

    r = Shell(vstest::Vsstream() + " list " + home.sub("fc.stream"));
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("node-folder"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("\\" + vm.biosUuid + "\\fs01.vmdk\\srv\\share\\My Documents\\budget 2024.txt"),
              std::string::npos)
        << r.output;

    const std::string dir = home.sub("restore");
    r = Shell(vstest::Vsstream() + " restore " + home.sub("fc.stream") + " --to " + dir);
    ASSERT_EQ(r.status, 0) << r.output;
    // Names, folder structure (empty folders and files included) and contents.
    for (const auto& d : vm.disks) {
        if (d.backupType == 2) {
            EXPECT_EQ(Tree(dir + "/" + vm.biosUuid + "/" + d.name), Tree(d.path)) << d.name;
        }
    }
    struct stat a {
    }, b{};
    ASSERT_EQ(::stat((vm.disks[0].path + "/srv/media/archive.bin").c_str(), &a), 0);
    ASSERT_EQ(::stat((dir + "/" + vm.biosUuid + "/fs01.vmdk/srv/media/archive.bin").c_str(), &b), 0);
    EXPECT_EQ(a.st_mtim.tv_sec, b.st_mtim.tv_sec);
    EXPECT_EQ(a.st_mode, b.st_mode);
}

}  // namespace
