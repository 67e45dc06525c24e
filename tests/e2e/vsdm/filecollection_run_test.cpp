// The data mover running a file-collection job, and vsstream rebuilding the VM's
// collection disks from the stream it wrote.
#include "temp_home.h"

#include "vssample/sample.h"

#include <nlohmann/json.hpp>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>

namespace fs = std::filesystem;

namespace {

std::string Shell(const std::string& command, int& status) {
    std::string output;
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    std::array<char, 4096> buf{};
    size_t n = 0;
    while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) output.append(buf.data(), n);
    const int rc = pclose(p);
    status = WIFEXITED(rc) ? WEXITSTATUS(rc) : 128;
    return output;
}

// Relative path to content (nullopt for a folder).
std::map<std::string, std::optional<std::string>> Tree(const std::string& folder) {
    std::map<std::string, std::optional<std::string>> out;
    for (const auto& e : fs::recursive_directory_iterator(folder)) {
        const std::string name = fs::relative(e.path(), folder).string();
        if (e.is_directory()) {
            out[name] = std::nullopt;
        } else {
            std::ifstream in(e.path(), std::ios::binary);
            out[name] = std::string(std::istreambuf_iterator<char>(in), {});
        }
    }
    return out;
}

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

    int status = -1;
    std::string out = Shell("'" VSDM_TOOL "' run " + home.sub("fc.json"), status);
    ASSERT_EQ(status, 0) << out;
    size_t nodes = 0, folders = 0;
    for (const auto& d : vm.disks) {
        if (d.backupType != 2) continue;
        for (const auto& [name, content] : Tree(d.path)) {
            ++nodes;
            folders += content ? 0 : 1;
        }
    }
    EXPECT_NE(out.find("file-collection nodes " + std::to_string(nodes) + " (" + std::to_string(folders) +
                       " folders, " + std::to_string(nodes - folders) + " files)"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("disks completed 2"), std::string::npos) << out;

    out = Shell("'" VSSTREAM_TOOL "' list " + home.sub("fc.stream"), status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_NE(out.find("node-folder"), std::string::npos) << out;
    EXPECT_NE(out.find("\\" + vm.biosUuid + "\\fs01.vmdk\\srv\\share\\My Documents\\budget 2024.txt"),
              std::string::npos)
        << out;

    const std::string dir = home.sub("restore");
    out = Shell("'" VSSTREAM_TOOL "' restore " + home.sub("fc.stream") + " --to " + dir, status);
    ASSERT_EQ(status, 0) << out;
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
