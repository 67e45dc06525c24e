// mksnap: a host home holding a one-VM datastore snapshot whose disk is a given raw
// image, and a vsdm job file that backs that disk up with the extent reader. What
// bench/peers runs vsdm on.
#include "hostapi/snapsrc.h"
#include "vshost/home.h"
#include "vssample/sample.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <iostream>

namespace fs = std::filesystem;

int main(int argc, char** argv) {
    CLI::App app{"mksnap: a host home with a one-VM snapshot whose disk is IMAGE (hard-linked, so IMAGE must be on "
                 "the same file system as HOME), and a vsdm job file for it"};
    std::string home, image, jobFile;
    long long jobId = 101;
    bool noCbt = false;
    app.add_option("--home", home, "host home to create (a new or empty folder)")->required();
    app.add_option("--image", image, "raw disk image")->required()->check(CLI::ExistingFile);
    app.add_option("--job", jobFile, "job file to write")->required();
    app.add_option("--job-id", jobId, "job id of the job file");
    app.add_flag("--no-cbt", noCbt, "do not ask for change tracking (no digests are stored for an incremental)");
    CLI11_PARSE(app, argc, argv);

    try {
        if (fs::exists(home) && !fs::is_empty(home)) throw std::runtime_error(home + " is not empty");
        home = fs::absolute(home).lexically_normal().string();
        fs::create_directories(fs::path(home) / "JobResults");
        vshost::OpenHome(home);
        const vssample::SampleSnapshot s = vssample::GenerateImageSnapshot(fs::absolute(image).string());
        const vssample::SampleVM& vm = s.vms.front();

        // As a full backup of a product job asks for it: change tracking on, so that the
        // reader digests every extent and the run leaves them for an incremental.
        VirtualServer::SnapSrcPathOptions options;
        options.useCBT = noCbt ? 0 : 1;
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
            {"items", {{{"path", vm.biosUuid + "\\" + vm.disks.front().name}, {"options", options.Serialize()}}}}};
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
