#include "demo.h"

#include "jobspec.h"
#include "runner.h"

#include "hostapi/fd.h"
#include "hostapi/snapsrc.h"
#include "vshost/home.h"
#include "vshost/vmdk.h"
#include "vssample/sample.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <unistd.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace vsdm {

namespace {

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// A disk's bytes straight from its image or extent files.
std::string SourceDisk(const std::string& path) {
    vshost::vmdk::Descriptor d;
    std::string why;
    if (vshost::vmdk::Inspect(path, d, why) == vshost::vmdk::Kind::RawImage) return ReadAll(path);
    std::string out;
    for (const auto& e : d.extents) {
        std::string part = e.IsZero() ? std::string() : ReadAll(e.file).substr(e.offsetSectors * 512);
        part.resize(e.sectors * 512, '\0');
        out += part;
    }
    return out;
}

std::string Tool(const std::string& name) {
    return (fs::path(SelfPath()).parent_path() / name).string();
}

int Shell(const std::string& command, std::ostream& out) {
    out << "$ " << command << "\n" << std::flush;
    const int rc = std::system(command.c_str());
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : 128;
}

nlohmann::json JobJson(const vssample::SampleSnapshot& s, int64_t jobId, const std::vector<std::string>& items) {
    nlohmann::json job = vssample::JobFor(s, jobId);
    VirtualServer::SnapSrcPathOptions cbt;
    cbt.useCBT = 1;
    for (const std::string& item : items) job["items"].push_back({{"path", item}, {"options", cbt.Serialize()}});
    return job;
}

// A configuration file without the lines that name disk files: a restore points a .vmx
// at its disks as restored.
std::string WithoutDiskNames(const std::string& text) {
    std::string out;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        if (text.substr(at, end - at).find(".fileName") == std::string::npos) out += text.substr(at, end + 1 - at);
        at = end + 1;
    }
    return out;
}

// Compares what `dir` holds for each VM with the sample's files; counts mismatches.
int Compare(const vssample::SampleSnapshot& s, const std::string& dir, std::ostream& out, bool configs) {
    int bad = 0;
    for (const auto& vm : s.vms) {
        const std::string base = dir + "/" + vm.biosUuid + "/";
        if (configs && vm.name != "fs01")
            for (const std::string& f : vm.configFiles)
                if (WithoutDiskNames(ReadAll(base + f)) != WithoutDiskNames(ReadAll(vm.folder + "/" + f))) {
                    out << "  MISMATCH " << vm.name << "/" << f << "\n";
                    ++bad;
                }
        for (const auto& d : vm.disks) {
            if (d.backupType != 1) continue;
            // A VMDK is restored as one: its bytes are in its flat file.
            const std::string bytes =
                d.name.ends_with(".vmdk") ? d.name.substr(0, d.name.size() - 5) + "-flat.vmdk" : d.name;
            const bool same = ReadAll(base + bytes) == SourceDisk(d.path);
            out << "  " << (same ? "same    " : "MISMATCH") << " " << vm.name << "/" << d.name << " (" << d.size
                << " bytes)\n";
            bad += same ? 0 : 1;
        }
    }
    return bad;
}

// Compares a restored folder tree with its source: names, contents and modes.
int CompareTree(const fs::path& source, const fs::path& restored, const std::string& label, std::ostream& out) {
    int bad = 0, files = 0;
    for (const auto& e : fs::recursive_directory_iterator(source)) {
        const fs::path twin = restored / fs::relative(e.path(), source);
        std::error_code ec;
        const bool same = fs::exists(twin, ec) && fs::status(twin).permissions() == e.status().permissions() &&
                          (!e.is_regular_file() || ReadAll(e.path()) == ReadAll(twin));
        if (!same) {
            out << "  MISMATCH " << label << "/" << fs::relative(e.path(), source).string() << "\n";
            ++bad;
        }
        files += e.is_regular_file() ? 1 : 0;
    }
    out << "  " << (bad ? "MISMATCH" : "same    ") << " " << label << " (" << files << " files)\n";
    return bad;
}

void NewOrEmpty(const std::string& folder, const char* option) {
    if (fs::exists(folder) && !fs::is_empty(folder))
        throw std::runtime_error(folder + " is not empty; give an empty or new folder to " + option);
}

// The demo's folder: the one asked for (new or empty), or a temporary one.
std::string DemoRoot(const std::string& keep) {
    if (keep.empty()) {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/vsdm-demo-XXXXXX";
        if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make a temporary folder");
        return pattern;
    }
    NewOrEmpty(keep, "--keep");
    return keep;
}

// Writes the job file, runs it as `vsdm run` would and prints its summary; 1 when it
// did not fully succeed.
int RunDemoJob(const std::string& jobFile, const nlohmann::json& job, const RunOptions& options,
               const std::string& heading, std::ostream& out) {
    std::ofstream(jobFile) << job.dump(2);
    out << "\n== " << heading << ": vsdm run " << jobFile
        << (options.incrementalFrom ? " --incremental-from " + std::to_string(options.incrementalFrom) : "") << "\n";
    const RunSummary sum = RunJob(LoadJob(jobFile), options, out);
    PrintSummary(LoadJob(jobFile), sum, out);
    return sum.status != kExitOk;
}

int Restore(const std::string& stream, const char* how, const std::string& folder, std::ostream& out) {
    return Shell("'" + Tool("vsstream") + "' restore '" + stream + "' " + how + " '" + folder + "'", out) != 0;
}

// Changes a few bytes of web01, so that the incremental has something to carry.
void ChangeSource(const vssample::SampleSnapshot& s) {
    const std::string flat = s.vm("web01").folder + "/web01-flat.vmdk";
    const vshost::Fd fd(::open(flat.c_str(), O_RDWR | O_CLOEXEC));
    const std::string text = "changed after the full backup";
    if (!fd.valid() || ::pwrite(fd.get(), text.data(), text.size(), 5 << 20) != static_cast<ssize_t>(text.size()))
        throw std::runtime_error("cannot change " + flat);
}

// A VM of a KVM-style datastore whose disk is a qcow2 chain, as a backup from a storage
// snapshot finds it: base.qcow2, then top1.qcow2 (on which the backup's VM snapshot was
// taken), then top2.qcow2 (what the guest wrote after it, which the backup leaves out).
// Made with qemu's own tools. Its UUID.
const char* const kChainVM = "564d4b56-4d30-3100-8000-00000000c0ff";

std::string AddChainVM(const vssample::SampleSnapshot& s, std::ostream& out) {
    std::string folder = (fs::path(s.vm("web01").folder).parent_path() / "kvm01").string();
    fs::create_directories(folder);
    const std::string io = " >/dev/null && qemu-io -f qcow2";
    const std::string make = "cd '" + folder + "' && qemu-img create -q -f qcow2 base.qcow2 32M" + io +
                             " -c 'write -P 1 0 1M' -c 'write -P 2 20M 64k' base.qcow2" +
                             " >/dev/null && qemu-img create -q -f qcow2 -b base.qcow2 -F qcow2 top1.qcow2" + io +
                             " -c 'write -P 3 4M 1M' top1.qcow2" +
                             " >/dev/null && qemu-img create -q -f qcow2 -b top1.qcow2 -F qcow2 top2.qcow2" + io +
                             " -c 'write -P 4 8M 1M' top2.qcow2 >/dev/null";
    if (Shell(make, out) != 0) throw std::runtime_error("cannot make the qcow2 chain in " + folder);
    std::ofstream(folder + "/kvm01.vmx") << ".encoding = \"UTF-8\"\ndisplayName = \"kvm01\"\nuuid.bios = \"" << kChainVM
                                         << "\"\nscsi0.present = \"TRUE\"\nscsi0:0.present = \"TRUE\"\n"
                                            "scsi0:0.fileName = \"top2.qcow2\"\n";
    std::ofstream(folder + "/kvm01.vmsd")
        << ".encoding = \"UTF-8\"\nsnapshot.lastUID = \"1\"\nsnapshot.current = \"1\"\n"
           "snapshot0.uid = \"1\"\nsnapshot0.displayName = \"backup\"\n"
           "snapshot0.numDisks = \"1\"\nsnapshot0.disk0.fileName = \"top1.qcow2\"\n"
           "snapshot0.disk0.node = \"scsi0:0\"\nsnapshot.numSnapshots = \"1\"\n";
    return folder;
}

// The chain VM's restored disk against the chain at its VM snapshot, as qemu reads it.
int CompareChain(const std::string& folder, const std::string& restore, std::ostream& out) {
    const bool same = Shell("qemu-img compare -q -f qcow2 '" + restore + "/" + kChainVM + "/base.qcow2' -F qcow2 '" +
                                folder + "/top1.qcow2'",
                            out) == 0;
    out << "  " << (same ? "same    " : "MISMATCH") << " kvm01/base.qcow2 (the qcow2 chain at its VM snapshot)\n";
    return same ? 0 : 1;
}

// Guest volumes file by file: the file-level reader over db01's two volumes, one named
// by its GUID, the other by its name.
int GuestFiles(const vssample::SampleSnapshot& s, const std::string& root, std::ostream& out) {
    const vssample::SampleVM& db = s.vm("db01");
    const std::string c = db.biosUuid + "\\" + db.guestVolumeGuids.at(0), d = db.biosUuid + "\\D:";
    nlohmann::json job = JobJson(s, 103, {c, d});
    job["reader"] = "fileLevel";
    job["out"] = "files.stream";
    for (auto& item : job["items"]) item.erase("options");
    int failures = RunDemoJob(root + "/files.job.json", job, RunOptions{}, "guest files", out);
    failures += Restore(root + "/files.stream", "--to", root + "/files", out);
    out << "comparing the restored guest files with the source:\n";
    failures += CompareTree(fs::path(db.folder) / "guest/C",
                            fs::path(root) / "files" / db.biosUuid / db.guestVolumeGuids.at(0), "db01 C:", out);
    failures +=
        CompareTree(fs::path(db.folder) / "guest/D", fs::path(root) / "files" / db.biosUuid / "D:", "db01 D:", out);
    return failures;
}

}  // namespace

int RunDemo(const std::string& keep, const std::string& homeDir, std::ostream& out) {
    if (!homeDir.empty()) NewOrEmpty(homeDir, "--home");
    const std::string root = DemoRoot(keep);
    const std::string home = homeDir.empty() ? root + "/home" : homeDir;
    fs::create_directories(home + "/JobResults");
    vshost::OpenHome(home);
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    out << "sample snapshot of job " << s.snapJobId << " in " << home << "/Snapshots: ";
    for (const auto& vm : s.vms) out << vm.name << " ";
    out << "\n";

    // Whole VMs with the extent reader; fs01's collection disk is read by the
    // file-collection reader, so only its image goes here.
    const std::string chain = AddChainVM(s, out);
    std::vector<std::string> items = {s.vm("web01").biosUuid, s.vm("db01").biosUuid,
                                      s.vm("fs01").biosUuid + "\\fs01_data.img", kChainVM};
    nlohmann::json full = JobJson(s, 101, items);
    full["out"] = "full.stream";
    int failures = RunDemoJob(root + "/full.job.json", full, RunOptions{}, "full backup", out);
    failures += Shell("'" + Tool("vsstream") + "' verify '" + root + "/full.stream'", out) != 0;
    failures += Restore(root + "/full.stream", "--to", root + "/restore", out);
    out << "comparing the restore with the source:\n";
    failures += Compare(s, root + "/restore", out, true);
    failures += CompareChain(chain, root + "/restore", out);

    // Change the source a little and take an incremental from what the full recorded.
    ChangeSource(s);
    nlohmann::json incr = JobJson(s, 102, items);
    incr["out"] = "incr.stream";
    for (auto& item : incr["items"]) item.erase("options");
    RunOptions fromFull;
    fromFull.incrementalFrom = 101;
    failures += RunDemoJob(root + "/incr.job.json", incr, fromFull, "incremental", out);
    failures += Restore(root + "/incr.stream", "--onto", root + "/restore", out);
    out << "comparing the updated restore with the changed source:\n";
    failures += Compare(s, root + "/restore", out, false);
    failures += CompareChain(chain, root + "/restore", out);

    failures += GuestFiles(s, root, out);

    vshost::CloseHome();
    if (keep.empty()) fs::remove_all(root);
    out << "\n"
        << (failures ? "DEMO FAILED"
                     : "demo passed: every restored disk, configuration file and guest file equals its source")
        << "\n";
    return failures ? 1 : 0;
}

}  // namespace vsdm
