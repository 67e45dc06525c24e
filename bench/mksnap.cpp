// mksnap: a host home holding a datastore snapshot of one VM per given raw image (the
// image its only disk), and a vsdm job file that backs those disks up with the extent
// reader. What bench/peers runs vsdm on.
#include "hostapi/snapsrc.h"
#include "vshost/home.h"
#include "vssample/sample.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <sys/stat.h>

namespace fs = std::filesystem;

int main(int argc, char** argv) {
    CLI::App app{"mksnap: a host home with a snapshot of one VM per IMAGE, the image its disk (hard-linked, so every "
                 "IMAGE must be on the same file system as HOME), and a vsdm job file for it"};
    std::string home, jobFile;
    std::vector<std::string> images;
    long long jobId = 101;
    bool noCbt = false;
    app.add_option("--home", home, "host home to create (a new or empty folder)")->required();
    app.add_option("--image", images, "raw disk image; repeat for more VMs")->required()->check(CLI::ExistingFile);
    app.add_option("--job", jobFile, "job file to write")->required();
    app.add_option("--job-id", jobId, "job id of the job file");
    app.add_flag("--no-cbt", noCbt, "do not ask for change tracking (no digests are stored for an incremental)");
    CLI11_PARSE(app, argc, argv);

    try {
        if (fs::exists(home) && !fs::is_empty(home)) throw std::runtime_error(home + " is not empty");
        home = fs::absolute(home).lexically_normal().string();
        fs::create_directories(fs::path(home) / "JobResults");
        vshost::OpenHome(home);
        for (std::string& image : images) image = fs::absolute(image).string();
        const vssample::SampleSnapshot s = vssample::GenerateImagesSnapshot(images);

        // As a full backup of a product job asks for it: change tracking on, so that the
        // reader digests every extent and the run leaves them for an incremental.
        VirtualServer::SnapSrcPathOptions options;
        options.useCBT = noCbt ? 0 : 1;
        // Each item's allocated bytes, so that a parallel run balances its streams.
        nlohmann::json items = nlohmann::json::array();
        for (size_t i = 0; i < s.vms.size(); ++i) {
            struct stat st {};
            const uint64_t bytes = ::stat(images[i].c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_blocks) * 512 : 0;
            const vssample::SampleVM& vm = s.vms[i];
            items.push_back({{"path", vm.biosUuid + "\\" + vm.disks.front().name},
                             {"options", options.Serialize()},
                             {"bytes", bytes}});
        }
        const nlohmann::json job = {
            {"jobId", jobId},
            {"appId", {s.appId1, s.appId2}},
            {"jobOptions", nlohmann::json::object()},
            {"reader", "extent"},
            {"instanceType", s.instanceType},
            {"snapEngineId", s.snapEngineId},
            {"mediaAgent", s.mediaAgentName},
            {"archiveFiles", s.afileIds},
            {"open", {{"archGroupId", s.archGroupId}, {"copyId", s.copyId}}},
            {"home", home},
            {"items", items}};
        std::ofstream out(jobFile, std::ios::trunc);
        out << job.dump(2) << "\n";
        if (!out.flush()) throw std::runtime_error("cannot write " + jobFile);
        vshost::CloseHome();
    } catch (const std::exception& e) {
        std::cerr << "mksnap: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
