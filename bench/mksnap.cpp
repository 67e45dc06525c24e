// mksnap: a host home holding a datastore snapshot and a vsdm job file that backs it up
// with the extent reader. What bench/peers, bench/streams and bench/scale run vsdm on. The
// snapshot is one VM per given raw image (--image, repeatable; its only disk), the image
// optionally made first as a sparse image with data scattered over it (--make-image), or
// a fleet of many small VMs (--vms).
#include "hostapi/snapsrc.h"
#include "vshost/home.h"
#include "vssample/sample.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <sys/stat.h>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>

namespace fs = std::filesystem;

namespace {

constexpr uint64_t kMiB = 1ull << 20;
constexpr uint64_t kAlign = 4096;

// A sparse image of `size` bytes whose `data` bytes lie in `runs` runs of equal length,
// one at a random 4 KiB-aligned place in each of `runs` equal slices of the image. Run k
// holds the same bytes whatever the size, so images of different sizes hold the same data.
void MakeImage(const std::string& path, uint64_t size, uint64_t data, uint64_t runs, uint32_t seed) {
    if (runs == 0 || data == 0 || data % runs != 0 || (data / runs) % kAlign != 0)
        throw std::runtime_error("--data must be a non-zero multiple of --runs times 4 KiB");
    const uint64_t run = data / runs;
    const uint64_t slice = size / runs / kAlign * kAlign;
    if (slice < run)
        throw std::runtime_error("--data does not fit into --virtual in " + std::to_string(runs) + " runs");
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(size)) != 0) throw std::runtime_error("cannot create " + path);
    std::mt19937_64 places(seed);
    std::vector<uint64_t> buf;
    for (uint64_t k = 0; k < runs; ++k) {
        const uint64_t at = k * slice + places() % ((slice - run) / kAlign + 1) * kAlign;
        std::mt19937_64 bytes(seed * 1000003ull + k);
        for (uint64_t done = 0; done < run;) {
            const uint64_t n = std::min<uint64_t>(run - done, 4 * kMiB);
            buf.resize(n / 8);
            std::generate(buf.begin(), buf.end(), bytes);
            if (::pwrite(fd, buf.data(), n, static_cast<off_t>(at + done)) != static_cast<ssize_t>(n)) {
                ::close(fd);
                throw std::runtime_error("cannot write " + path);
            }
            done += n;
        }
    }
    if (::close(fd) != 0) throw std::runtime_error("cannot write " + path);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "mksnap: a host home with a datastore snapshot and a vsdm job file for it: one VM per IMAGE, the "
        "image its disk (hard-linked, so every IMAGE must be on the same file system as HOME), --vms small "
        "VMs, or one VM whose guest volume and file-collection disk hold the --files tree"};
    std::string home, jobFile, filesDir, reader = "fileCollection";
    std::vector<std::string> images;
    long long jobId = 101;
    bool noCbt = false;
    unsigned vms = 0;
    uint64_t diskMiB = 4, virtualSize = 0, dataSize = 0, runs = 1024;
    uint32_t seed = 1;
    app.add_option("--home", home, "host home to create (a new or empty folder)")->required();
    auto* imageOpt = app.add_option("--image", images,
                                    "raw disk image; repeat for more VMs (one made first with "
                                    "--make-image)");
    auto* vmsOpt =
        app.add_option("--vms", vms, "a snapshot of this many VMs, each with two small disks, instead of IMAGE")
            ->check(CLI::Range(1u, 99999u))
            ->excludes(imageOpt);
    auto* filesOpt = app.add_option("--files", filesDir,
                                    "a folder: one VM whose guest volume C: and whose file-collection disk hold its "
                                    "tree (hard-linked, so it must be on the same file system as HOME)")
                         ->excludes(imageOpt)
                         ->excludes(vmsOpt);
    app.add_option("--reader", reader, "with --files: the job's reader, fileCollection (default) or fileLevel")
        ->check(CLI::IsMember({"fileCollection", "fileLevel"}))
        ->needs(filesOpt);
    app.add_option("--disk-mib", diskMiB, "size of each disk of --vms in MiB (default 4)")
        ->check(CLI::Range(uint64_t{1}, uint64_t{1} << 20))
        ->needs(vmsOpt);
    auto* make =
        app.add_option("--make-image", virtualSize,
                       "first make IMAGE as a sparse file of this many bytes (suffixes K, M, G, T: powers of 2)")
            ->transform(CLI::AsSizeValue(false))
            ->needs(imageOpt);
    app.add_option("--data", dataSize, "bytes of data that --make-image scatters over the image (default 64M)")
        ->transform(CLI::AsSizeValue(false))
        ->needs(make);
    app.add_option("--runs", runs, "runs of data that --make-image writes, one per equal slice (default 1024)")
        ->check(CLI::PositiveNumber)
        ->needs(make);
    app.add_option("--seed", seed, "seed of --make-image's places and bytes (default 1)")->needs(make);
    app.add_option("--job", jobFile, "job file to write")->required();
    app.add_option("--job-id", jobId, "job id of the job file");
    app.add_flag("--no-cbt", noCbt, "do not ask for change tracking (no digests are stored for an incremental)");
    CLI11_PARSE(app, argc, argv);

    try {
        if (images.empty() && vms == 0 && filesDir.empty()) throw std::runtime_error("give --image, --vms or --files");
        if (virtualSize != 0 && images.size() != 1) throw std::runtime_error("--make-image makes one --image");
        if (fs::exists(home) && !fs::is_empty(home)) throw std::runtime_error(home + " is not empty");
        if (virtualSize != 0) MakeImage(images.front(), virtualSize, dataSize ? dataSize : 64 * kMiB, runs, seed);
        home = fs::absolute(home).lexically_normal().string();
        fs::create_directories(fs::path(home) / "JobResults");
        vshost::OpenHome(home);
        for (std::string& image : images) image = fs::absolute(image).string();
        vssample::SampleOptions sampleOptions;
        sampleOptions.diskSize = diskMiB * kMiB;
        const vssample::SampleSnapshot s = vms                ? vssample::GenerateFleet(vms, sampleOptions)
                                           : filesDir.empty() ? vssample::GenerateImagesSnapshot(images)
                                                              : vssample::GenerateFilesSnapshot(filesDir);

        // As a full backup of a product job asks for it: change tracking on, so that the
        // reader digests every extent and the run leaves them for an incremental.
        VirtualServer::SnapSrcPathOptions options;
        options.useCBT = noCbt ? 0 : 1;
        // Each image item carries its allocated bytes, so that a parallel run balances its streams.
        nlohmann::json items = nlohmann::json::array();
        for (size_t i = 0; i < s.vms.size(); ++i) {
            const vssample::SampleVM& vm = s.vms[i];
            if (vms || !filesDir.empty()) {
                // A file-level item is a guest volume, by name.
                items.push_back(
                    {{"path", vm.biosUuid + (reader == "fileLevel" ? "\\C:" : "")}, {"options", options.Serialize()}});
                continue;
            }
            struct stat st {};
            const uint64_t bytes = ::stat(images[i].c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_blocks) * 512 : 0;
            items.push_back({{"path", vm.biosUuid + "\\" + vm.disks.front().name},
                             {"options", options.Serialize()},
                             {"bytes", bytes}});
        }
        nlohmann::json job = vssample::JobFor(s, jobId);
        job["home"] = home;
        job["items"] = items;
        if (!filesDir.empty()) job["reader"] = reader;
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
