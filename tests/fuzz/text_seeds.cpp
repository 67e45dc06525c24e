// Writes the seed corpora of the text-format fuzz targets: the files of a generated
// sample snapshot, options XML made by the encoder, and job files like the demo's.
#include "hostapi/snapsrc.h"
#include "vshost/home.h"
#include "vssample/sample.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS_ROOT\n", argv[0]);
        return 2;
    }
    const fs::path root = argv[1];
    for (const char* d : {"options_xml", "vmdk", "vmx", "job_file"}) fs::create_directories(root / d);
    auto write = [](const fs::path& p, const std::string& text) { std::ofstream(p, std::ios::binary) << text; };
    try {
        char tmpl[] = "/tmp/vsseeds-XXXXXX";
        if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
        vshost::OpenHome(tmpl);
        const vssample::SampleSnapshot s = vssample::GenerateSample();
        int n = 0;
        for (const auto& e : fs::recursive_directory_iterator(fs::path(tmpl) / "Snapshots")) {
            if (!e.is_regular_file() || e.file_size() > 4096) continue;
            const std::string ext = e.path().extension().string();
            std::ifstream in(e.path(), std::ios::binary);
            const std::string text((std::istreambuf_iterator<char>(in)), {});
            if (ext == ".vmx") write(root / "vmx" / ("seed" + std::to_string(n++)), text);
            if (ext == ".vmdk") write(root / "vmdk" / ("seed" + std::to_string(n++)), text);
        }

        VirtualServer::SnapSrcPathOptions o;
        write(root / "options_xml/empty", o.Serialize());
        o.useCBT = 1;
        o.diskInfo.push_back({"web01.vmdk", "[ds1] web01/web01.vmdk", "0f1e2d3c/5001", 0, 42});
        o.diskInfo.push_back({"db01.vmdk", "", "", 1, 0});
        o.mountDiskNames = {"web01.vmdk"};
        write(root / "options_xml/full", o.Serialize());

        const std::string job = R"({"jobId": 101, "appId": [3, 17], "jobOptions": {"restoreOptions": {"lookupInstanceFromTask": 1}},
 "taskOptions": {"77": "vc1", "75": "user"}, "eventOptions": {"120015": false},
 "reader": "fileLevel", "instanceType": 102, "mediaAgent": "ma01", "archiveFiles": [1207, 1208],
 "open": {"archGroupId": 11, "copyId": 1}, "out": "s.stream", "home": "h",
 "items": [{"path": "vm\\vol", "clientPath": "vm\\vol/dir", "filter": 1, "options": "<SnapSrcPathOptions/>"}]})";
        write(root / "job_file/full", job);
        write(root / "job_file/minimal", R"({"jobId": 1, "mediaAgent": "m", "archiveFiles": [1], "items": [{"path": "v"}]})");
        vshost::CloseHome();
        fs::remove_all(tmpl);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "cannot write the seed corpora: %s\n", e.what());
        return 1;
    }
    return 0;
}
