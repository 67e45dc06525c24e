#include "Snapshot.h"

#include "vshost/beneath.h"
#include "vshost/vmdk.h"
#include "vshost/vminfohost.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <memory>
#include <set>
#include <string_view>

namespace fs = std::filesystem;

namespace vminfo {

namespace {

bool Fail(Failure& f, int code, std::string reason) {
    f.code = code;
    f.reason = std::move(reason);
    return false;
}

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// VM folders are the volume's subfolders; each .vmx in one is a VM.
bool ScanVolume(const Volume& volume, size_t index, std::vector<VMRecord>& vms, Failure& f) {
    std::error_code ec;
    std::vector<fs::path> vmxFiles;
    for (fs::directory_iterator it(volume.path, ec), end; !ec && it != end; it.increment(ec)) {
        if (!it->is_directory(ec)) continue;
        std::error_code inner;
        for (fs::directory_iterator f2(it->path(), inner), e2; !inner && f2 != e2; f2.increment(inner))
            if (f2->path().extension() == ".vmx" && f2->is_regular_file(inner)) vmxFiles.push_back(f2->path());
    }
    if (ec) return Fail(f, kErrVMList, volume.path + ": cannot list VMs: " + ec.message());
    std::sort(vmxFiles.begin(), vmxFiles.end());
    for (const fs::path& vmx : vmxFiles) {
        VMRecord rec;
        rec.folder = vmx.parent_path().string();
        rec.vmxPath = vmx.string();
        rec.volume = index;
        std::string text, why;
        if (!vshost::snapfile::ReadText(volume.path, rec.vmxPath, text, why))
            rec.problem = why;
        else
            rec.cfg = ParseVmx(text);
        vms.push_back(std::move(rec));
    }
    return true;
}

// FNV-1a: a stable id for what is the same disk in every snapshot.
std::string StableHash(const std::string& text) {
    uint64_t h = 1469598103934665603ull;
    for (unsigned char c : text) h = (h ^ c) * 1099511628211ull;
    char buf[17];
    (void)std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(h));
    return buf;
}

bool Wanted(const std::vector<SDiskFilter>& filters, const std::string& name, const std::string& secondName) {
    if (filters.empty()) return true;
    for (const SDiskFilter& filter : filters) {
        const std::string want = Lower(filter.sDiskName);
        if (want == Lower(name) || want == Lower(secondName) ||
            want == Lower(fs::path(secondName.substr(secondName.find(']') + 1)).filename().string()))
            return true;
    }
    return false;
}

// Where a .vmx disk entry points: relative to the VM folder, "[datastore] path" or
// "/vmfs/volumes/<datastore>/path". Absolute paths elsewhere and ".." never leave the
// snapshot.
bool ResolveDisk(const Snapshot& snap, const VMRecord& vm, const std::string& fileName, std::string& datastore,
                 std::string& localPath, std::string& secondName, std::string& root, Failure& f) {
    const Volume& home = snap.volumes[vm.volume];
    const Volume* volume = &home;
    fs::path rel;
    if (!fileName.empty() && fileName.front() == '[') {
        const size_t close = fileName.find(']');
        if (close == std::string::npos)
            return Fail(f, kErrDiskOpen, "disk [" + fileName + "]: malformed datastore path");
        const std::string ds = fileName.substr(1, close - 1);
        volume = snap.VolumeOfDatastore(ds);
        if (!volume)
            return Fail(f, kErrDiskOpen,
                        "disk [" + fileName + "]: datastore [" + ds + "] is not in the mounted snapshot");
        size_t start = close + 1;
        while (start < fileName.size() && fileName[start] == ' ') ++start;
        rel = fileName.substr(start);
    } else if (fileName.rfind("/vmfs/volumes/", 0) == 0) {
        const std::string rest = fileName.substr(std::string("/vmfs/volumes/").size());
        const size_t slash = rest.find('/');
        const std::string ds = rest.substr(0, slash);
        volume = snap.VolumeOfDatastore(ds);
        if (!volume || slash == std::string::npos)
            return Fail(f, kErrDiskOpen,
                        "disk [" + fileName + "]: datastore [" + ds + "] is not in the mounted snapshot");
        rel = rest.substr(slash + 1);
    } else if (!fileName.empty() && fileName.front() == '/') {
        return Fail(f, kErrDiskOpen, "disk [" + fileName + "]: lies outside the snapshot");
    } else {
        rel = fs::path(vm.folder).lexically_relative(home.path) / fileName;
    }
    rel = rel.lexically_normal();
    if (rel.empty() || rel.is_absolute() || *rel.begin() == "..")
        return Fail(f, kErrDiskOpen, "disk [" + fileName + "]: lies outside its datastore");
    datastore = volume->datastore;
    root = volume->path;
    localPath = (fs::path(volume->path) / rel).string();
    secondName = "[" + datastore + "] " + rel.generic_string();
    return true;
}

}  // namespace

bool Snapshot::Mount(const std::vector<uint64_t>& afileIds, unsigned snapEngineId, Snapshot& out, Failure& f) {
    out = Snapshot{};
    if (afileIds.empty()) return Fail(f, kErrVolSnapInfo, "no archive files to mount");
    try {
        for (uint64_t id : afileIds) {
            const auto rec = vshost::vminfohost::VolumeOfArchiveFile(id);
            if (!rec) return Fail(f, kErrVolSnapInfo, "archive file " + std::to_string(id) + " is not in the catalog");
            if (rec->folder.empty() || rec->snapJobId == 0)
                return Fail(f, kErrVolSnapInfo, "archive file " + std::to_string(id) + " holds no datastore snapshot");
            if (out.jobId != 0 && rec->snapJobId != out.jobId)
                return Fail(f, kErrVolSnapInfo,
                            "archive files of snapshot jobs " + std::to_string(out.jobId) + " and " +
                                std::to_string(rec->snapJobId) + " cannot be mounted together");
            if (rec->snapEngineId != snapEngineId)
                return Fail(f, kErrMountSnapVolumes,
                            "archive file " + std::to_string(id) + " was made by snap engine " +
                                std::to_string(rec->snapEngineId) + ", not " + std::to_string(snapEngineId));
            out.jobId = rec->snapJobId;
            Volume volume{id, rec->name, rec->datastore, rec->folder};
            std::error_code ec;
            if (!fs::is_directory(volume.path, ec) || ::access(volume.path.c_str(), R_OK | X_OK) != 0)
                return Fail(
                    f, kErrMountSnapVolumes,
                    "volume " + volume.path + " of archive file " + std::to_string(id) + " is missing or unreadable");
            if (!vshost::vminfohost::SnapshotRegistered(out.jobId))
                return Fail(f, kErrSnapMetadata,
                            "snapshot " + std::to_string(out.jobId) + " of archive file " + std::to_string(id) +
                                " is not registered in the host home");
            if (!out.VolumeOfDatastore(volume.datastore)) out.volumes.push_back(volume);
        }
    } catch (const std::exception& e) {
        return Fail(f, kErrVolSnapInfo, std::string("catalog unavailable: ") + e.what());
    }
    for (size_t i = 0; i < out.volumes.size(); ++i)
        if (!ScanVolume(out.volumes[i], i, out.vms, f)) return false;
    return true;
}

const VMRecord* Snapshot::Find(const std::string& key) const {
    const std::string guid = CanonicalGuid(key);
    for (const VMRecord& vm : vms)
        if (vm.problem.empty() && vm.cfg.displayName == key) return &vm;
    if (!guid.empty())
        for (const VMRecord& vm : vms)
            if (vm.problem.empty() && (vm.cfg.biosUuid == guid || vm.cfg.vcUuid == guid)) return &vm;
    // A VM whose configuration cannot be read is known only by its folder's name.
    for (const VMRecord& vm : vms)
        if (!vm.problem.empty() && fs::path(vm.folder).filename() == key) return &vm;
    return nullptr;
}

const Volume* Snapshot::VolumeOfDatastore(const std::string& datastore) const {
    for (const Volume& v : volumes)
        if (v.datastore == datastore) return &v;
    return nullptr;
}

const Volume* Snapshot::VolumeOfAfile(uint64_t afileId) const {
    for (const Volume& v : volumes)
        if (v.afileId == afileId) return &v;
    return nullptr;
}

namespace {

// What a VM mount of one VM works with: its record, its home volume and sidecar.
struct VMSource {
    const Snapshot& snap;
    const VMRecord& vm;
    const Volume& home;
    std::string folderRel;  // the VM folder, relative to its volume
    GuestSidecar sidecar;
};

bool VMNotFound(const Snapshot& snap, const std::string& key, Failure& f) {
    // The VM asked for may be one whose configuration could not be read: say which those are.
    std::string unreadable;
    for (const VMRecord& r : snap.vms)
        if (!r.problem.empty()) unreadable += (unreadable.empty() ? "" : ", ") + fs::path(r.folder).filename().string();
    return Fail(f, kErrVMNotFound,
                "VM [" + key + "] is not in snapshot job " + std::to_string(snap.jobId) +
                    (unreadable.empty() ? "" : " (VMs whose configuration cannot be read: " + unreadable + ")"));
}

bool AddConfigFiles(const VMSource& src, MountedVM& out, Failure& f) {
    std::error_code ec;
    std::vector<fs::path> configFiles;
    for (fs::directory_iterator it(src.vm.folder, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string ext = Lower(it->path().extension().string());
        if ((ext == ".vmx" || ext == ".vmxf" || ext == ".vmsd" || ext == ".nvram") && it->is_regular_file())
            configFiles.push_back(it->path());
    }
    if (ec) return Fail(f, kErrConfigFilePath, src.vm.folder + ": cannot be listed: " + ec.message());
    std::sort(configFiles.begin(), configFiles.end());
    std::string why;
    for (const fs::path& p : configFiles) {
        VMInfoStructs::SDisk file;
        file.sDiskName = p.filename().string();
        file.sSecondName = "[" + src.home.datastore + "] " + src.folderRel + "/" + file.sDiskName;
        file.sDiskPath = p.string();
        file.sDatastore = src.home.datastore;
        file.nBackupType = VMInfoStructs::kBackupTypeConfigFile;
        // Listed through links, but only what stays on the volume is backed up.
        const vshost::Fd fd = vshost::snapfile::Open(src.home.path, file.sDiskPath, why);
        struct stat st {};
        if (!fd.valid()) return Fail(f, kErrDiskOpen, "configuration file " + why);
        if (fstat(fd.get(), &st) != 0) return Fail(f, kErrConfigFilePath, p.string() + ": cannot be examined");
        file.ullSize = static_cast<uint64_t>(st.st_size);
        // The text files are copied whole; one of gigabytes is damage, not a configuration.
        if (Lower(p.extension().string()) != ".nvram" && file.ullSize > vshost::snapfile::kMaxTextBytes)
            return Fail(f, kErrConfigFilePath,
                        p.string() + ": holds " + std::to_string(file.ullSize) + " bytes, more than the " +
                            std::to_string(vshost::snapfile::kMaxTextBytes) +
                            " bytes a text file of a snapshot may hold");
        out.items.push_back(file);
    }
    return true;
}

// A disk read as a file collection: the folder that stands for it.
bool AsFileCollection(const FileCollectionDisk& fc, VMInfoStructs::SDisk& disk, Failure& f) {
    std::error_code ec;
    if (!fs::is_directory(fc.folder, ec))
        return Fail(f, kErrDiskOpen, "disk " + disk.sSecondName + ": folder " + fc.folder + " is missing");
    disk.sDiskPath = fc.folder;
    disk.nBackupType = VMInfoStructs::kBackupTypeFileCollection;
    disk.nDiskType = kDiskTypeFolder;
    disk.ullSize = FolderBytes(fc.folder);
    return true;
}

// The disk file the VM's newest snapshot holds for `device`, resolved as a .vmx disk
// entry is. Empty `path` when the VM has no snapshot list or no snapshot.
bool SnapshotDisk(const VMSource& src, const std::string& device, std::string& path, std::string& what, Failure& f) {
    path.clear();
    const std::string vmsdPath = fs::path(src.vm.vmxPath).replace_extension(".vmsd").string();
    std::string text, why;
    if (!vshost::snapfile::ReadText(src.home.path, vmsdPath, text, why))
        return errno == ENOENT || Fail(f, kErrConfigFilePath, why);
    const VmsdConfig vmsd = ParseVmsd(text);
    const VmsdSnapshot* snap = vmsd.Current();
    if (!snap) return true;
    what = "VM snapshot [" + snap->displayName + "] (uid " + snap->uid + ") of " + vmsdPath;
    auto it = snap->diskFiles.find(Lower(device));
    if (it == snap->diskFiles.end()) return Fail(f, kErrDiskOpen, what + " holds no disk of device " + device);
    std::string datastore, secondName, root;
    return ResolveDisk(src.snap, src.vm, it->second, datastore, path, secondName, root, f);
}

// A delta disk is read as its newest VM snapshot left it: without the delta the VM has
// written to since (a backup from a storage snapshot takes a VM snapshot first, so that
// the array snapshot holds a consistent parent chain beneath the running delta).
bool PointOf(const VMSource& src, const VmxDisk& entry, const vshost::diskchain::Chain& chain, size_t& point,
             Failure& f) {
    const std::string& top = chain.images[0].path;
    std::string file, what;
    if (!SnapshotDisk(src, entry.device, file, what, f)) return false;
    if (file.empty())
        return Fail(f, kErrDiskOpen,
                    "disk " + top + " is a delta of " + chain.images[1].path +
                        ", but the VM's snapshot list names no snapshot: the point at which its chain is "
                        "consistent is not known");
    for (point = 1; point < chain.images.size(); ++point)
        if (chain.images[point].path == file) return true;
    return Fail(f, kErrDiskOpen,
                what + " holds " + file + " for device " + entry.device + ", which is not a parent of " + top);
}

int32_t DiskTypeOf(const vshost::diskchain::Chain& chain, size_t point) {
    using vshost::diskchain::Format;
    const Format format = chain.images[point].format;
    if (point + 1 == chain.images.size() && format == Format::Raw) return kDiskTypeRawImage;
    if (point + 1 == chain.images.size() && format == Format::FlatVmdk) return kDiskTypeFlatVmdk;
    return format == Format::Qcow2 ? kDiskTypeQcow2 : kDiskTypeQemuVmdk;
}

// A disk image, raw, VMDK or qcow2, alone or the top of a chain: what is read of it (the
// chain at its VM snapshot), its size, and its name: the base's, which stays the same
// while deltas come and go, so incrementals find the disk again.
bool AsImage(const VMSource& src, const VmxDisk& entry, const std::string& root, VMInfoStructs::SDisk& disk,
             Failure& f) {
    std::string why;
    vshost::diskchain::Chain chain;
    if (!vshost::diskchain::Inspect({root, disk.sDatastore}, disk.sDiskPath, chain, why))
        return Fail(f, kErrDiskOpen, "disk " + disk.sSecondName + ": " + why);
    size_t point = 0;
    if (chain.images.size() > 1 && !PointOf(src, entry, chain, point, f)) return false;
    const vshost::diskchain::Image& base = chain.images.back();
    disk.sDiskPath = chain.images[point].path;
    disk.ullSize = chain.images[point].size;
    disk.nDiskType = DiskTypeOf(chain, point);
    disk.nBackupType = VMInfoStructs::kBackupTypeDisk;
    if (chain.images.size() > 1) {
        disk.sDiskName = fs::path(base.path).filename().string();
        disk.sSecondName = "[" + disk.sDatastore + "] " + fs::path(base.path).lexically_relative(root).generic_string();
    }
    return true;
}

const FileCollectionDisk* CollectionNamed(const GuestSidecar& sidecar, const std::string& name) {
    for (const FileCollectionDisk& d : sidecar.fileCollectionDisks)
        if (d.name == name) return &d;
    return nullptr;
}

// One disk of the .vmx: false fails the mount; `disk` is left without a name when the
// filters leave the disk out.
bool AddVmxDisk(const VMSource& src, const VmxDisk& entry, const std::vector<SDiskFilter>& filters,
                const std::set<std::string>& names, VMInfoStructs::SDisk& disk, const FileCollectionDisk*& fc,
                Failure& f) {
    std::string root;
    const std::string asWritten = fs::path(entry.fileName).filename().string();
    if (!ResolveDisk(src.snap, src.vm, entry.fileName, disk.sDatastore, disk.sDiskPath, disk.sSecondName, root, f))
        return !Wanted(filters, asWritten, entry.fileName);
    disk.sDiskName = fs::path(disk.sDiskPath).filename().string();
    const bool named = Wanted(filters, disk.sDiskName, disk.sSecondName);
    fc = CollectionNamed(src.sidecar, disk.sDiskName);
    if (!fc) {
        // A filter may name the disk as the .vmx does or by its base: a disk that cannot be
        // inspected fails the mount only when it is named as the .vmx does, or no filter is set.
        Failure inspect;
        if (!AsImage(src, entry, root, disk, inspect)) {
            disk.sDiskName.clear();
            return !(named || filters.empty()) || Fail(f, inspect.code, inspect.reason);
        }
    }
    // Two datastores may hold disks of one file name; the second is told apart by its datastore.
    if (names.count(disk.sDiskName)) disk.sDiskName = disk.sDatastore + "_" + disk.sDiskName;
    if (!named && !Wanted(filters, disk.sDiskName, disk.sSecondName)) disk.sDiskName.clear();
    return true;
}

bool AddDisks(const VMSource& src, const std::vector<SDiskFilter>& filters, MountedVM& out, Failure& f) {
    std::set<std::string> names;
    std::set<std::string> collectionsUsed;
    for (const VmxDisk& entry : src.vm.cfg.disks) {
        VMInfoStructs::SDisk disk;
        const FileCollectionDisk* fc = nullptr;
        if (!AddVmxDisk(src, entry, filters, names, disk, fc, f)) return false;
        if (disk.sDiskName.empty()) continue;
        names.insert(disk.sDiskName);
        disk.sChangeId = StableHash(out.guid + "|" + disk.sSecondName) + "/" + std::to_string(src.snap.jobId);
        if (fc) {
            collectionsUsed.insert(fc->name);
            if (!AsFileCollection(*fc, disk, f)) return false;
        }
        out.items.push_back(disk);
    }
    // File-collection disks that the configuration does not name are disks of their own.
    for (const FileCollectionDisk& fc : src.sidecar.fileCollectionDisks) {
        if (collectionsUsed.count(fc.name) || names.count(fc.name)) continue;
        VMInfoStructs::SDisk disk;
        disk.sDiskName = fc.name;
        disk.sSecondName = "[" + src.home.datastore + "] " + src.folderRel + "/" + fc.name;
        if (!Wanted(filters, disk.sDiskName, disk.sSecondName)) continue;
        if (!AsFileCollection(fc, disk, f)) return false;
        disk.sDatastore = src.home.datastore;
        disk.sChangeId = StableHash(out.guid + "|" + disk.sSecondName) + "/" + std::to_string(src.snap.jobId);
        names.insert(fc.name);
        out.items.push_back(disk);
    }
    return true;
}

}  // namespace

bool MountVMFrom(const Snapshot& snap, const std::string& key, const std::vector<SDiskFilter>& filters, MountedVM& out,
                 Failure& f) {
    out = MountedVM{};
    const VMRecord* vm = snap.Find(key);
    if (!vm) return VMNotFound(snap, key, f);
    if (!vm->problem.empty()) return Fail(f, kErrConfigFilePath, vm->problem);
    const Volume& home = snap.volumes[vm->volume];
    VMSource src{snap, *vm, home, fs::path(vm->folder).lexically_relative(home.path).generic_string(), {}};
    std::string why;
    if (!LoadSidecar(vm->folder, home.path, src.sidecar, why)) return Fail(f, kErrConfigFilePath, why);

    out.displayName = vm->cfg.displayName;
    out.guid = vm->cfg.biosUuid.empty() ? vm->cfg.vcUuid : vm->cfg.biosUuid;
    out.folder = vm->folder;
    out.guestVolumes = src.sidecar.volumes;
    return AddConfigFiles(src, out, f) && AddDisks(src, filters, out, f);
}

// Each step is taken from the open folder above it: a file costs a look-up of its own
// name, not of its whole path, and a volume of many small files is measured at the pace
// its folders are listed.
uint64_t FolderBytes(const std::string& folder) {
    using Dir = std::unique_ptr<DIR, int (*)(DIR*)>;
    std::vector<Dir> open;
    const auto enter = [&open](int fd) {
        if (fd < 0) return;
        DIR* d = ::fdopendir(fd);
        if (!d) {
            ::close(fd);
            return;
        }
        open.emplace_back(d, &::closedir);
    };
    enter(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    uint64_t total = 0;
    while (!open.empty()) {
        DIR* dir = open.back().get();
        const dirent* e = ::readdir(dir);
        if (!e) {
            open.pop_back();
            continue;
        }
        const std::string_view name = e->d_name;
        if (name == "." || name == ".." || e->d_type == DT_LNK) continue;
        const int at = ::dirfd(dir);
        if (e->d_type == DT_DIR) {
            enter(::openat(at, e->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            continue;
        }
        struct stat st {};
        if (::fstatat(at, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (S_ISREG(st.st_mode))
            total += static_cast<uint64_t>(st.st_size);
        else if (S_ISDIR(st.st_mode))  // a file system that does not say what an entry is
            enter(::openat(at, e->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    return total;
}

}  // namespace vminfo
