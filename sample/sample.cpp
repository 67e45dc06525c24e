// Writes a small datastore snapshot: three VMs over two datastores, disks of every kind
// the VM-info library reads, with data, holes and allocated all-zero ranges.
#include "vssample/sample.h"

#include "vshost/catalog.h"
#include "vshost/home.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>

namespace fs = std::filesystem;

namespace vssample {

namespace {

constexpr uint64_t kMiB = 1ull << 20;

void WriteText(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out.flush()) throw std::runtime_error("cannot write " + path.string());
}

// A file of `size` bytes that is all hole except the ranges written with WriteRange.
class SparseFile {
public:
    SparseFile(const fs::path& path, uint64_t size) : m_path(path.string()) {
        fs::create_directories(path.parent_path());
        m_fd = ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (m_fd < 0 || ::ftruncate(m_fd, static_cast<off_t>(size)) != 0)
            throw std::runtime_error("cannot create " + m_path);
    }
    ~SparseFile() {
        if (m_fd >= 0) ::close(m_fd);
    }
    SparseFile(const SparseFile&) = delete;
    SparseFile& operator=(const SparseFile&) = delete;

    // Pseudo-random bytes (seeded, so every run writes the same disks), or zeros.
    void WriteRange(uint64_t offset, uint64_t length, uint32_t seed, bool zeros = false) {
        std::mt19937 gen(seed);
        std::vector<char> buf(static_cast<size_t>(std::min<uint64_t>(length, kMiB)));
        while (length > 0) {
            const size_t n = static_cast<size_t>(std::min<uint64_t>(length, buf.size()));
            if (zeros)
                std::fill(buf.begin(), buf.end(), '\0');
            else
                for (size_t i = 0; i < n; i += 4) {
                    const uint32_t v = gen();
                    std::memcpy(buf.data() + i, &v, std::min<size_t>(4, n - i));
                }
            if (::pwrite(m_fd, buf.data(), n, static_cast<off_t>(offset)) != static_cast<ssize_t>(n))
                throw std::runtime_error("cannot write " + m_path);
            offset += n;
            length -= n;
        }
    }

private:
    std::string m_path;
    int m_fd = -1;
};

// The same layout on every disk: a boot block, a data run, an allocated run of zeros,
// a small run near the end; everything else is a hole.
void FillDisk(SparseFile& file, uint64_t base, uint64_t size, uint32_t seed) {
    file.WriteRange(base, uint64_t{64} * 1024, seed);
    if (size >= 8 * kMiB) {
        file.WriteRange(base + 3 * kMiB, kMiB + 4096, seed + 1);
        file.WriteRange(base + 6 * kMiB, kMiB, 0, true);
    }
    if (size >= 2 * kMiB) file.WriteRange(base + size - kMiB + 512, 8192, seed + 2);
}

std::string Descriptor(const std::string& createType, const std::vector<std::string>& extentLines) {
    std::string text = "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=fffffffe\nparentCID=ffffffff\n";
    text += "createType=\"" + createType + "\"\n\n# Extent description\n";
    for (const std::string& line : extentLines) text += line + "\n";
    text += "\n# The Disk Data Base\n#DDB\n\nddb.adapterType = \"lsilogic\"\nddb.virtualHWVersion = \"19\"\n";
    return text;
}

std::string Sectors(uint64_t bytes) {
    return std::to_string(bytes / 512);
}

// BIOS UUIDs are written as configurations write them: "56 4d .. ..-.. ..".
std::string VmxUuid(const std::string& canonical) {
    std::string hex;
    for (char c : canonical)
        if (c != '-') hex += c;
    std::string out;
    for (size_t i = 0; i < 32; i += 2) {
        if (i == 16)
            out += '-';
        else if (i != 0)
            out += ' ';
        out += hex.substr(i, 2);
    }
    return out;
}

std::string Vmx(const SampleVM& vm, const std::vector<std::pair<std::string, std::string>>& devices) {
    std::string text = ".encoding = \"UTF-8\"\nconfig.version = \"8\"\nvirtualHW.version = \"19\"\n";
    text += "displayName = \"" + vm.name + "\"\n";
    text += "uuid.bios = \"" + VmxUuid(vm.biosUuid) + "\"\n";
    text += "vc.uuid = \"" + VmxUuid(vm.vcUuid) + "\"\n";
    text += "nvram = \"" + vm.name + ".nvram\"\n";
    for (const auto& [key, value] : devices) text += key + " = \"" + value + "\"\n";
    return text;
}

void ConfigFiles(SampleVM& vm, const fs::path& folder, const std::string& vmxText) {
    WriteText(folder / (vm.name + ".vmx"), vmxText);
    WriteText(folder / (vm.name + ".vmxf"), "<?xml version=\"1.0\"?>\n<Foundry><VM><vmxPathName type=\"string\">" +
                                                vm.name + ".vmx</vmxPathName></VM></Foundry>\n");
    WriteText(folder / (vm.name + ".vmsd"), ".encoding = \"UTF-8\"\nsnapshot.lastUID = \"1\"\n");
    std::string nvram(8192, '\0');
    for (size_t i = 0; i < nvram.size(); i += 7) nvram[i] = static_cast<char>('A' + i % 26);
    WriteText(folder / (vm.name + ".nvram"), nvram);
    vm.configFiles = {vm.name + ".nvram", vm.name + ".vmsd", vm.name + ".vmx", vm.name + ".vmxf"};
}

SampleDisk Disk(const std::string& name, const std::string& datastore, const std::string& folder, const fs::path& path,
                uint64_t size, int backupType = 1) {
    SampleDisk d;
    d.name = name;
    d.secondName = "[" + datastore + "] " + folder + "/" + name;
    d.path = path.string();
    d.datastore = datastore;
    d.size = size;
    d.backupType = backupType;
    return d;
}

// Ids and names every generated snapshot shares, over the given datastores.
SampleSnapshot Identity(const SampleOptions& options, std::vector<std::string> datastores) {
    SampleSnapshot s;
    s.snapJobId = options.snapJobId;
    s.snapEngineId = options.snapEngineId;
    s.datastores = std::move(datastores);
    s.appId1 = 3;
    s.appId2 = 17;
    s.instanceType = options.instanceType;
    s.mediaAgentName = "ma01";
    s.mediaAgentClientId = 2;
    s.archGroupId = 11;
    s.copyId = 1;
    s.copyPrecedence = 1;
    return s;
}

// The rows of the host home's catalog that describe the snapshot: the media agent, the
// application, the copy and one archive file per datastore.
void AddCatalogRows(SampleSnapshot& s, const SampleOptions& options) {
    vshost::Catalog catalog;
    if (!catalog.ClientId(s.mediaAgentName)) catalog.AddClient(s.mediaAgentClientId, s.mediaAgentName);
    vshost::AppRecord app;
    app.appId1 = s.appId1;
    app.appId2 = s.appId2;
    app.instanceType = s.instanceType;
    app.clientId = s.mediaAgentClientId;
    catalog.AddApplication(app);
    catalog.AddCopy(s.archGroupId, s.copyId, s.copyPrecedence);
    std::vector<vshost::ArchiveFileRecord> volumes;
    for (size_t i = 0; i < s.datastores.size(); ++i) {
        vshost::ArchiveFileRecord afile;
        afile.afileId = options.firstAfileId + i;
        afile.appId2 = s.appId2;
        afile.backupJobId = s.snapJobId;
        afile.name = "SNAP_" + std::to_string(s.snapJobId) + "_" + s.datastores[i];
        afile.volume = std::to_string(s.snapJobId) + "/" + s.datastores[i];
        afile.datastore = s.datastores[i];
        volumes.push_back(afile);
        s.afileIds.push_back(afile.afileId);
        s.afileList += (i ? "|" : "") + std::to_string(afile.afileId);
    }
    catalog.AddSnapshot({s.snapJobId, s.snapEngineId, 0}, volumes);
}

}  // namespace

const SampleVM& SampleSnapshot::vm(const std::string& name) const {
    for (const SampleVM& v : vms)
        if (v.name == name) return v;
    throw std::out_of_range("no sample VM " + name);
}

namespace {

// web01: a monolithic flat disk on ds1 and a split flat disk on ds2.
SampleVM Web01(const fs::path& ds1, const fs::path& ds2, uint64_t size) {
    SampleVM vm;
    vm.name = "web01";
    vm.biosUuid = "564d1a2b-3c4d-5e6f-7081-92a3b4c5d6e7";
    vm.vcUuid = "5003e1f2-a3b4-c5d6-e7f8-091a2b3c4d5e";
    vm.folder = (ds1 / "web01").string();
    ConfigFiles(vm, ds1 / "web01",
                Vmx(vm, {{"scsi0.present", "TRUE"},
                         {"scsi0:0.present", "TRUE"},
                         {"scsi0:0.fileName", "web01.vmdk"},
                         {"scsi0:1.present", "TRUE"},
                         {"scsi0:1.fileName", "[ds2] web01/web01_1.vmdk"}}));
    WriteText(ds1 / "web01/web01.vmdk",
              Descriptor("monolithicFlat", {"RW " + Sectors(size) + " FLAT \"web01-flat.vmdk\" 0"}));
    SparseFile flat(ds1 / "web01/web01-flat.vmdk", size);
    FillDisk(flat, 0, size, 101);

    const uint64_t half = size / 2;
    WriteText(ds2 / "web01/web01_1.vmdk",
              Descriptor("twoGbMaxExtentFlat", {"RW " + Sectors(half) + " FLAT \"web01_1-f001.vmdk\" 0",
                                                "RW " + Sectors(size - half) + " FLAT \"web01_1-f002.vmdk\" 0"}));
    SparseFile f1(ds2 / "web01/web01_1-f001.vmdk", half);
    SparseFile f2(ds2 / "web01/web01_1-f002.vmdk", size - half);
    f1.WriteRange(0, uint64_t{64} * 1024, 201);
    // Data across the boundary between the two extent files.
    f1.WriteRange(half - uint64_t{256} * 1024, uint64_t{256} * 1024, 202);
    f2.WriteRange(0, uint64_t{256} * 1024, 203);
    f2.WriteRange(size - half - kMiB, 4096, 204);

    vm.disks = {Disk("web01.vmdk", "ds1", "web01", ds1 / "web01/web01.vmdk", size),
                Disk("web01_1.vmdk", "ds2", "web01", ds2 / "web01/web01_1.vmdk", size)};
    return vm;
}

// db01: a VMFS flat disk with blanks in its extent name, and two guest volumes.
SampleVM Db01(const fs::path& ds1, uint64_t size) {
    SampleVM vm;
    vm.name = "db01";
    vm.biosUuid = "564d9f8e-7d6c-5b4a-3928-17f6e5d4c3b2";
    vm.vcUuid = "50037a6b-5c4d-3e2f-1a0b-9c8d7e6f5a4b";
    vm.folder = (ds1 / "db01").string();
    ConfigFiles(vm, ds1 / "db01",
                Vmx(vm, {{"sata0.present", "TRUE"},
                         {"sata0:0.present", "TRUE"},
                         {"sata0:0.fileName", "db01.vmdk"},
                         {"ide1:0.present", "TRUE"},
                         {"ide1:0.deviceType", "cdrom-image"},
                         {"ide1:0.fileName", "/iso/install.iso"}}));
    WriteText(ds1 / "db01/db01.vmdk", Descriptor("vmfs", {"RW " + Sectors(size) + " VMFS \"db01 system-flat.vmdk\""}));
    SparseFile flat(ds1 / "db01/db01 system-flat.vmdk", size);
    FillDisk(flat, 0, size, 301);
    vm.disks = {Disk("db01.vmdk", "ds1", "db01", ds1 / "db01/db01.vmdk", size)};

    const fs::path guest = ds1 / "db01/guest";
    WriteText(guest / "C/Windows/win.ini", "[fonts]\n[extensions]\n");
    WriteText(guest / "C/Users/admin/report.txt", std::string(100000, 'r'));
    WriteText(guest / "D/data/table.db", std::string(300000, 'd'));
    WriteText(guest / "D/data/empty.log", "");
    vm.guestVolumeGuids = {"{6f1c2d3e-4a5b-11ee-9c8d-0a1b2c3d4e5f}", "{7a2b3c4d-5e6f-11ee-8d9c-1b2c3d4e5f60}"};
    nlohmann::json sidecar = {{"guestVolumes",
                               {{{"guid", vm.guestVolumeGuids[0]},
                                 {"name", "C:"},
                                 {"folder", "guest/C"},
                                 {"devicePath", "\\\\?\\Volume" + vm.guestVolumeGuids[0] + "\\"}},
                                {{"guid", vm.guestVolumeGuids[1]},
                                 {"name", "D:"},
                                 {"folder", "guest/D"},
                                 {"devicePath", "\\\\?\\Volume" + vm.guestVolumeGuids[1] + "\\"}}}}};
    WriteText(ds1 / "db01/vmguest.json", sidecar.dump(2));
    return vm;
}

// The bytes of the files under `folder`: a file collection's size.
uint64_t TreeBytes(const fs::path& folder) {
    uint64_t n = 0;
    for (const auto& e : fs::recursive_directory_iterator(folder))
        if (e.is_regular_file()) n += e.file_size();
    return n;
}

// fs01: a disk read as a file collection, and a raw image on an NVMe controller.
SampleVM Fs01(const fs::path& ds2, uint64_t size) {
    SampleVM vm;
    vm.name = "fs01";
    vm.biosUuid = "564d0011-2233-4455-6677-8899aabbccdd";
    vm.vcUuid = "5003ffee-ddcc-bbaa-9988-776655443322";
    vm.folder = (ds2 / "fs01").string();
    ConfigFiles(vm, ds2 / "fs01",
                Vmx(vm, {{"scsi0:0.present", "TRUE"},
                         {"scsi0:0.fileName", "fs01.vmdk"},
                         {"nvme0:0.present", "TRUE"},
                         {"nvme0:0.fileName", "fs01_data.img"}}));
    const fs::path files = ds2 / "fs01/fs01.files";
    WriteText(files / "etc/hostname", "fs01\n");
    WriteText(files / "srv/share/big.bin", std::string(40000, 'b'));
    WriteText(files / "srv/share/notes.txt", "file collection sample\n");
    fs::create_directories(files / "srv/empty");
    // Nested folders, names with blanks, an empty file, and a file larger than the
    // collection's read-ahead.
    WriteText(files / "srv/share/My Documents/budget 2024.txt", "rent 1200\nfood 400\n");
    WriteText(files / "srv/share/My Documents/2024/Q1/plan.txt", std::string(5000, 'p'));
    WriteText(files / "var/log/empty.log", "");
    {
        const uint64_t archiveBytes = 2 * kMiB + 12345;
        SparseFile archive(files / "srv/media/archive.bin", archiveBytes);
        archive.WriteRange(0, archiveBytes, 501);
    }
    // A second collection that the configuration does not name: a disk of its own.
    const fs::path homeFiles = ds2 / "fs01/home.files";
    WriteText(homeFiles / "alice/.profile", "export EDITOR=vi\n");
    WriteText(homeFiles / "alice/notes 1.txt", std::string(9000, 'a'));
    fs::create_directories(homeFiles / "bob");
    nlohmann::json sidecar = {
        {"fileCollectionDisks",
         {{{"name", "fs01.vmdk"}, {"folder", "fs01.files"}}, {{"name", "fs01_home"}, {"folder", "home.files"}}}}};
    WriteText(ds2 / "fs01/vmguest.json", sidecar.dump(2));
    SparseFile raw(ds2 / "fs01/fs01_data.img", size);
    FillDisk(raw, 0, size, 401);
    vm.disks = {Disk("fs01.vmdk", "ds2", "fs01", files, TreeBytes(files), 2),
                Disk("fs01_data.img", "ds2", "fs01", ds2 / "fs01/fs01_data.img", size),
                Disk("fs01_home", "ds2", "fs01", homeFiles, TreeBytes(homeFiles), 2)};
    return vm;
}

}  // namespace

SampleSnapshot GenerateSample(const SampleOptions& options) {
    const std::string home = vshost::HomeDir();
    if (home.empty()) throw std::runtime_error("no host home is open");
    if (options.diskSize < 4 * kMiB || options.diskSize % kMiB != 0)
        throw std::runtime_error("disk size must be a whole number of MiB, at least 4");

    SampleSnapshot s = Identity(options, {"ds1", "ds2"});
    const fs::path root = fs::path(home) / "Snapshots" / std::to_string(s.snapJobId);
    const fs::path ds1 = root / "ds1";
    const fs::path ds2 = root / "ds2";
    const uint64_t size = options.diskSize;

    s.vms.push_back(Web01(ds1, ds2, size));

    s.vms.push_back(Db01(ds1, size));

    s.vms.push_back(Fs01(ds2, size));

    AddCatalogRows(s, options);
    return s;
}

SampleSnapshot GenerateImageSnapshot(const std::string& image, const SampleOptions& options) {
    return GenerateImagesSnapshot({image}, options);
}

SampleSnapshot GenerateImagesSnapshot(const std::vector<std::string>& images, const SampleOptions& options) {
    const std::string home = vshost::HomeDir();
    if (home.empty()) throw std::runtime_error("no host home is open");
    if (images.empty() || images.size() > 99) throw std::runtime_error("a snapshot of images holds 1 to 99 of them");
    std::error_code ec;
    for (const std::string& image : images)
        if (!fs::is_regular_file(image, ec)) throw std::runtime_error(image + " is not a regular file");

    SampleSnapshot s = Identity(options, {"ds1"});
    const fs::path root = fs::path(home) / "Snapshots" / std::to_string(s.snapJobId);
    for (size_t i = 0; i < images.size(); ++i) {
        char number[8];
        (void)std::snprintf(number, sizeof number, "%02zu", (i + 1) % 100);
        SampleVM vm;
        vm.name = std::string("img") + number;
        // The first VM keeps the identity it had when snapshots held one image.
        vm.biosUuid = std::string("564d5a11-0b0c-4d0e-8f10-1112131415") + (i == 0 ? "aa" : number);
        vm.vcUuid = std::string("5003a0b1-c2d3-e4f5-0617-28394a5b6c") + (i == 0 ? "7d" : number);
        const fs::path folder = root / "ds1" / vm.name;
        vm.folder = folder.string();
        // A qcow2 image keeps its kind in its name: the disk reader takes the format from it.
        const std::string file = vm.name + (fs::path(images[i]).extension() == ".qcow2" ? ".qcow2" : ".img");
        ConfigFiles(vm, folder,
                    Vmx(vm, {{"scsi0.present", "TRUE"}, {"scsi0:0.present", "TRUE"}, {"scsi0:0.fileName", file}}));
        // A hard link, not a copy: the image may be large, and the reader must see its
        // holes as they are.
        const fs::path disk = folder / file;
        fs::create_hard_link(images[i], disk, ec);
        if (ec)
            throw std::runtime_error("cannot link " + images[i] + " into the snapshot as " + disk.string() + ": " +
                                     ec.message() + " (the image must be on the host home's file system)");
        vm.disks = {Disk(file, "ds1", vm.name, disk, fs::file_size(disk))};
        s.vms.push_back(vm);
    }

    AddCatalogRows(s, options);
    return s;
}

SampleSnapshot GenerateFilesSnapshot(const std::string& folder, const SampleOptions& options) {
    const std::string home = vshost::HomeDir();
    if (home.empty()) throw std::runtime_error("no host home is open");
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) throw std::runtime_error(folder + " is not a folder");

    SampleSnapshot s = Identity(options, {"ds1"});
    SampleVM vm;
    vm.name = "files01";
    vm.biosUuid = "564d5a11-0b0c-4d0e-8f10-11121314f001";
    vm.vcUuid = "5003a0b1-c2d3-e4f5-0617-28394a5bf001";
    const fs::path vmFolder = fs::path(home) / "Snapshots" / std::to_string(s.snapJobId) / "ds1" / vm.name;
    vm.folder = vmFolder.string();
    ConfigFiles(vm, vmFolder, Vmx(vm, {{"scsi0:0.present", "TRUE"}, {"scsi0:0.fileName", "files01.vmdk"}}));
    // Links, not copies: the tree may be large, and what is read must be its files.
    const fs::path files = vmFolder / "files";
    fs::copy(folder, files, fs::copy_options::recursive | fs::copy_options::create_hard_links, ec);
    if (ec)
        throw std::runtime_error("cannot link " + folder + " into the snapshot as " + files.string() + ": " +
                                 ec.message() + " (the folder must be on the host home's file system)");
    vm.guestVolumeGuids = {"{0f11e5a1-0000-4000-8000-00000000f001}"};
    const nlohmann::json sidecar = {{"fileCollectionDisks", {{{"name", "files01.vmdk"}, {"folder", "files"}}}},
                                    {"guestVolumes",
                                     {{{"guid", vm.guestVolumeGuids[0]},
                                       {"name", "C:"},
                                       {"folder", "files"},
                                       {"devicePath", "\\\\?\\Volume" + vm.guestVolumeGuids[0] + "\\"}}}}};
    WriteText(vmFolder / "vmguest.json", sidecar.dump(2));
    vm.disks = {Disk("files01.vmdk", "ds1", vm.name, files, TreeBytes(files), 2)};
    s.vms.push_back(std::move(vm));
    AddCatalogRows(s, options);
    return s;
}

SampleSnapshot GenerateFleet(unsigned count, const SampleOptions& options) {
    const std::string home = vshost::HomeDir();
    if (home.empty()) throw std::runtime_error("no host home is open");
    if (count == 0 || count > 99999) throw std::runtime_error("a fleet holds 1 to 99999 VMs");
    if (options.diskSize == 0 || options.diskSize % kMiB != 0)
        throw std::runtime_error("disk size must be a whole number of MiB");

    SampleSnapshot s = Identity(options, {"ds1", "ds2"});
    const fs::path root = fs::path(home) / "Snapshots" / std::to_string(s.snapJobId);
    const uint64_t size = options.diskSize;
    s.vms.reserve(count);
    for (unsigned i = 1; i <= count; ++i) {
        char name[16], bios[40], vc[40];
        (void)std::snprintf(name, sizeof name, "vm%04u", i);
        (void)std::snprintf(bios, sizeof bios, "564d%04x-0000-4000-8000-%012x", i & 0xffff, i);
        (void)std::snprintf(vc, sizeof vc, "5003%04x-0000-4000-8000-%012x", i & 0xffff, i);
        const std::string own = i % 2 ? "ds1" : "ds2";
        const std::string other = i % 2 ? "ds2" : "ds1";
        SampleVM vm;
        vm.name = name;
        vm.biosUuid = bios;
        vm.vcUuid = vc;
        vm.folder = (root / own / vm.name).string();
        const std::string image = vm.name + "_1.img";
        ConfigFiles(vm, vm.folder,
                    Vmx(vm, {{"scsi0:0.present", "TRUE"},
                             {"scsi0:0.fileName", vm.name + ".vmdk"},
                             {"scsi0:1.present", "TRUE"},
                             {"scsi0:1.fileName", "[" + other + "] " + vm.name + "/" + image}}));
        const fs::path vmdk = fs::path(vm.folder) / (vm.name + ".vmdk");
        WriteText(vmdk,
                  Descriptor("monolithicFlat", {"RW " + Sectors(size) + " FLAT \"" + vm.name + "-flat.vmdk\" 0"}));
        const fs::path raw = root / other / vm.name / image;
        for (const fs::path& file : {fs::path(vm.folder) / (vm.name + "-flat.vmdk"), raw}) {
            SparseFile disk(file, size);
            const uint32_t seed = i * 4 + (file == raw ? 2 : 0);
            disk.WriteRange(0, uint64_t{16} * 1024, seed);
            disk.WriteRange(size / 2, 4096, seed + 1);
            disk.WriteRange(size - 8192, 8192, seed + 2);
        }
        vm.disks = {Disk(vm.name + ".vmdk", own, vm.name, vmdk, size), Disk(image, other, vm.name, raw, size)};
        s.vms.push_back(std::move(vm));
    }
    AddCatalogRows(s, options);
    return s;
}

nlohmann::json JobFor(const SampleSnapshot& s, int64_t jobId) {
    return {{"jobId", jobId},
            {"appId", {s.appId1, s.appId2}},
            {"jobOptions", nlohmann::json::object()},
            {"reader", "extent"},
            {"instanceType", s.instanceType},
            {"snapEngineId", s.snapEngineId},
            {"mediaAgent", s.mediaAgentName},
            {"archiveFiles", s.afileIds},
            {"open", {{"archGroupId", s.archGroupId}, {"copyId", s.copyId}}}};
}

}  // namespace vssample
