// Disk chains: which images a disk is read from, checked before qemu reads any of them.
// qemu opens whatever names an image holds (backing files, extents, data files); the
// host passes it only files it opened itself beneath the volume, so every name an image
// holds is either resolved here or refused here.
#include "vshost/vmdk.h"

#include "disk/qemu.h"
#include "vshost/beneath.h"

#include <nlohmann/json.hpp>

#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <utility>

namespace vshost::diskchain {

namespace {

namespace fs = std::filesystem;

// What a child says its parent is.
enum class Expect { Any, Vmdk, Qcow2, Raw };

constexpr size_t kHeaderBytes = 512;
constexpr size_t kMaxInfoBytes = size_t{1} << 20;
constexpr int kInfoSeconds = 60;

bool Fail(std::string& why, std::string text) {
    why = std::move(text);
    return false;
}

std::string DirOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool EndsWith(const std::string& s, const char* suffix) {
    const size_t n = std::strlen(suffix);
    if (s.size() < n) return false;
    for (size_t i = 0; i < n; ++i)
        if (std::tolower(static_cast<unsigned char>(s[s.size() - n + i])) != suffix[i]) return false;
    return true;
}

uint64_t LittleEndian(const std::string& s, size_t at, size_t bytes) {
    uint64_t v = 0;
    for (size_t i = bytes; i-- > 0;) v = (v << 8) | static_cast<unsigned char>(s[at + i]);
    return v;
}

uint64_t BigEndian(const std::string& s, size_t at, size_t bytes) {
    uint64_t v = 0;
    for (size_t i = 0; i < bytes; ++i) v = (v << 8) | static_cast<unsigned char>(s[at + i]);
    return v;
}

bool IsQcow2(const std::string& head) {
    return head.size() >= 4 && head.compare(0, 4, "QFI\xfb") == 0;
}
bool IsKdmv(const std::string& head) {
    return head.compare(0, 4, "KDMV") == 0;
}
bool IsCowd(const std::string& head) {
    return head.compare(0, 4, "COWD") == 0;
}

// The first `bytes` of the file (fewer when it is shorter).
bool ReadHead(int fd, uint64_t fileSize, size_t bytes, std::string& head, std::string& why, const std::string& path) {
    head.assign(static_cast<size_t>(std::min<uint64_t>(fileSize, bytes)), '\0');
    size_t done = 0;
    while (done < head.size()) {
        const ssize_t n = ::pread(fd, head.data() + done, head.size() - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return Fail(why, path + ": cannot be read: " + std::strerror(errno));
        if (n == 0) break;
        done += static_cast<size_t>(n);
    }
    head.resize(done);
    return true;
}

// A hosted-sparse header whose capacity is 0 carries a descriptor in place of data, and
// qemu would open the extent files that descriptor names, wherever they are.
bool CheckKdmv(const std::string& head, const std::string& path, std::string& why) {
    if (head.size() < kHeaderBytes) return Fail(why, path + ": too short for a sparse VMDK header");
    if (LittleEndian(head, 12, 8) == 0)
        return Fail(why, path + ": a sparse VMDK header that holds a descriptor of its own is not read");
    return true;
}

// A qcow2 image with an external data file names a second file qemu would open itself.
bool CheckQcow2(const std::string& head, const std::string& path, std::string& why) {
    constexpr uint64_t kExternalDataFile = 1u << 2;
    if (head.size() < 72) return Fail(why, path + ": too short for a qcow2 header");
    if (BigEndian(head, 4, 4) >= 3 && head.size() >= 80 && (BigEndian(head, 72, 8) & kExternalDataFile))
        return Fail(why, path + ": a qcow2 image with an external data file is not read");
    return true;
}

// What qemu-img said of a file, by the file's identity and state: a VM's mount and the
// opening of its disk describe the same image moments apart, and each qemu-img costs a
// process. A file replaced, written or resized since is another key.
class InfoCache {
public:
    static std::string Key(int fd, Format format) {
        struct stat st {};
        if (::fstat(fd, &st) != 0) return {};
        return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) + ":" + std::to_string(st.st_size) + ":" +
               std::to_string(st.st_mtim.tv_sec) + "." + std::to_string(st.st_mtim.tv_nsec) + ":" +
               std::to_string(st.st_ctim.tv_sec) + "." + std::to_string(st.st_ctim.tv_nsec) + ":" +
               std::to_string(static_cast<int>(format));
    }
    bool Find(const std::string& key, nlohmann::json& info) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto it = m_infos.find(key);
        if (key.empty() || it == m_infos.end()) return false;
        info = it->second;
        return true;
    }
    void Keep(const std::string& key, const nlohmann::json& info) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (key.empty()) return;
        if (m_infos.size() >= kMaxEntries) m_infos.clear();
        m_infos[key] = info;
    }

private:
    static constexpr size_t kMaxEntries = 1024;
    std::mutex m_mutex;
    std::map<std::string, nlohmann::json> m_infos;
};

InfoCache& Infos() {
    static auto* cache = new InfoCache;  // never destroyed: disks may close from static destructors
    return *cache;
}

// qemu-img's own description of the opened file: it reads the header, never a backing file.
bool QemuInfo(const Image& image, nlohmann::json& info, std::string& why) {
    const std::string key = InfoCache::Key(image.fd.get(), image.format);
    if (Infos().Find(key, info)) return true;
    const std::string tool = qemu::Tool("qemu-img", why);
    if (tool.empty()) return false;
    const std::string as = qemu::ChildFdPath(qemu::kFirstChildFd);
    qemu::SpawnSpec spec;
    spec.argv = {tool, "info", "--output=json", "--force-share", "-f", DriverOf(image.format), as};
    spec.inherit = {image.fd.get()};
    std::string text;
    if (!qemu::Run(spec, text, why, kMaxInfoBytes, kInfoSeconds)) {
        for (size_t at = why.find(as); at != std::string::npos; at = why.find(as, at + image.path.size()))
            why.replace(at, as.size(), image.path);
        return Fail(why, image.path + ": " + why);
    }
    info = nlohmann::json::parse(text, nullptr, false);
    if (info.is_discarded() || !info.is_object() || !info.contains("virtual-size") ||
        !info["virtual-size"].is_number_unsigned())
        return Fail(why, image.path + ": qemu-img did not describe it");
    Infos().Keep(key, info);
    return true;
}

std::string Text(const nlohmann::json& j, const char* key) {
    return j.contains(key) && j[key].is_string() ? j[key].get<std::string>() : std::string();
}

// A binary image (qcow2, hosted or VMFS sparse): its size, parent and content ids.
bool DescribeBinary(Image& image, const std::string& head, std::string& parentFormat, std::string& why) {
    if (image.format == Format::Qcow2 && !CheckQcow2(head, image.path, why)) return false;
    if (IsKdmv(head) && !CheckKdmv(head, image.path, why)) return false;
    nlohmann::json info;
    if (!QemuInfo(image, info, why)) return false;
    image.size = info["virtual-size"].get<uint64_t>();
    image.parentName = Text(info, "backing-filename");
    parentFormat = Text(info, "backing-filename-format");
    const nlohmann::json* data = nullptr;
    if (info.contains("format-specific") && info["format-specific"].is_object())
        data = &info["format-specific"]["data"];
    if (image.format == Format::SparseVmdk && data && data->is_object() && data->contains("cid") &&
        (*data)["cid"].is_number_unsigned()) {
        image.hasCid = true;
        image.cid = (*data)["cid"].get<uint32_t>();
        if (data->contains("parent-cid") && (*data)["parent-cid"].is_number_unsigned())
            image.parentCid = (*data)["parent-cid"].get<uint32_t>();
    }
    return true;
}

// A text descriptor: its extents, each opened beneath the volume.
bool DescribeDescriptor(const std::string& root, Image& image, const std::string& head, std::string& why) {
    if (!vmdk::Parse(head, DirOf(image.path), image.descriptor, why)) return Fail(why, image.path + ": " + why);
    image.descriptorText = head.substr(0, head.find_last_not_of('\0') + 1);
    image.size = image.descriptor.SizeBytes();
    image.parentName = image.descriptor.parentHint;
    image.hasCid = image.descriptor.hasCid;
    image.cid = image.descriptor.cid;
    image.parentCid = image.descriptor.parentCid;
    image.format = image.descriptor.Flat() ? Format::FlatVmdk : Format::SparseVmdk;
    for (const vmdk::Extent& extent : image.descriptor.extents) {
        image.extentFds.emplace_back();
        if (extent.IsZero()) continue;
        std::string whyNot;
        Fd fd = snapfile::Open(root, extent.file, whyNot);
        if (!fd.valid()) return Fail(why, "extent file " + whyNot + " (of " + image.path + ")");
        if (extent.IsSparse()) {
            std::string extentHead;
            if (!ReadHead(fd.get(), kHeaderBytes, kHeaderBytes, extentHead, why, extent.file)) return false;
            if (IsKdmv(extentHead) && !CheckKdmv(extentHead, extent.file, why)) return false;
        }
        image.extentFds.back() = std::move(fd);
    }
    return true;
}

// Which format the file is, from what its child (or, for the disk itself, its name)
// says and from its first bytes; false when the two disagree.
bool Classify(const std::string& path, Expect expect, const std::string& head, uint64_t fileSize, Format& format,
              std::string& why) {
    const bool text = vmdk::LooksLikeDescriptor(head, fileSize);
    const bool vmdkMagic = IsKdmv(head) || IsCowd(head);
    switch (expect) {
        case Expect::Raw:
            format = Format::Raw;
            return true;
        case Expect::Qcow2:
            format = Format::Qcow2;
            return IsQcow2(head) || Fail(why, path + ": not a qcow2 image");
        case Expect::Vmdk:
            format = text ? Format::FlatVmdk : Format::SparseVmdk;
            return text || vmdkMagic || Fail(why, path + ": not a VMDK (neither a descriptor nor a sparse header)");
        case Expect::Any:
            break;
    }
    if (EndsWith(path, ".qcow2")) {
        format = Format::Qcow2;
        return IsQcow2(head) || Fail(why, path + ": named .qcow2 but not a qcow2 image");
    }
    format = text ? Format::FlatVmdk : vmdkMagic && vmdk::IsVmdkName(path) ? Format::SparseVmdk : Format::Raw;
    return true;
}

// The format a qcow2 image records for its backing file, or the one the file's name says.
bool BackingExpect(const Image& child, const std::string& recorded, Expect& expect, std::string& why) {
    const std::string& name = child.parentName;
    if (recorded == "qcow2" || (recorded.empty() && EndsWith(name, ".qcow2"))) {
        expect = Expect::Qcow2;
    } else if (recorded == "vmdk" || (recorded.empty() && EndsWith(name, ".vmdk"))) {
        expect = Expect::Vmdk;
    } else if (recorded == "raw" || (recorded.empty() && EndsWith(name, ".raw"))) {
        expect = Expect::Raw;
    } else {
        return Fail(why, child.path + ": backing file " + name + " of format \"" + recorded +
                             "\" is not read (qcow2, vmdk and raw are; a backing file without a recorded format "
                             "must be named .qcow2, .vmdk or .raw)");
    }
    return true;
}

bool InspectImage(const std::string& root, const std::string& path, Expect expect, Image& image, Expect& parent,
                  std::string& why) {
    image.path = path;
    image.fd = snapfile::Open(root, path, why);
    if (!image.fd.valid()) return false;
    struct stat st {};
    if (::fstat(image.fd.get(), &st) != 0) return Fail(why, path + ": cannot be examined: " + std::strerror(errno));
    image.fileSize = static_cast<uint64_t>(st.st_size);
    std::string head;
    if (!ReadHead(image.fd.get(), image.fileSize, vmdk::kMaxDescriptorBytes, head, why, path)) return false;
    if (!Classify(path, expect, head, image.fileSize, image.format, why)) return false;
    std::string parentFormat;
    switch (image.format) {
        case Format::Raw:
            image.size = image.fileSize;
            return true;
        case Format::FlatVmdk:
        case Format::SparseVmdk:
            parent = Expect::Vmdk;
            if (IsKdmv(head) || IsCowd(head)) return DescribeBinary(image, head, parentFormat, why);
            return DescribeDescriptor(root, image, head, why);
        case Format::Qcow2:
            if (!DescribeBinary(image, head, parentFormat, why)) return false;
            return image.parentName.empty() || BackingExpect(image, parentFormat, parent, why);
    }
    return true;
}

// Where the parent a child names lies: beside the child (or below or above it, on the
// same volume), or /vmfs/volumes/<this datastore>/...; nowhere else.
bool ResolveParent(const Where& where, const std::string& root, const Image& child, std::string& parent,
                   std::string& why) {
    const std::string& name = child.parentName;
    const std::string vmfs = "/vmfs/volumes/";
    fs::path candidate;
    if (name.rfind(vmfs, 0) == 0) {
        const std::string rest = name.substr(vmfs.size());
        const size_t slash = rest.find('/');
        if (where.datastore.empty() || slash == std::string::npos || rest.substr(0, slash) != where.datastore)
            return Fail(why, child.path + ": its parent " + name + " is not on this disk's datastore" +
                                 (where.datastore.empty() ? "" : " [" + where.datastore + "]"));
        candidate = fs::path(root) / rest.substr(slash + 1);
    } else if (!name.empty() && name.front() == '/') {
        return Fail(why, child.path + ": names its parent by the absolute path " + name + ", outside its volume");
    } else {
        candidate = fs::path(DirOf(child.path)) / name;
    }
    candidate = candidate.lexically_normal();
    const fs::path rel = candidate.lexically_relative(fs::path(root).lexically_normal());
    if (rel.empty() || *rel.begin() == ".." || rel == ".")
        return Fail(why, child.path + ": its parent " + name + " leads out of the volume " + root);
    parent = candidate.string();
    return true;
}

// A VMDK delta records the content id its parent had when the delta was made; a parent
// written since is another disk, and the chain is broken.
bool CheckLink(const Image& child, const Image& parent, std::string& why) {
    if (child.format == Format::Qcow2 || parent.format == Format::Qcow2 || parent.format == Format::Raw) return true;
    if (child.parentCid == vmdk::Descriptor::kNoParentCid || !parent.hasCid || child.parentCid == parent.cid)
        return true;
    char text[96];
    (void)std::snprintf(text, sizeof text, "parent CID %08x, but its parent has CID %08x", child.parentCid, parent.cid);
    return Fail(why, "broken chain: " + child.path + " was made from " + parent.path + " with " + text);
}

// qemu reads extent lines of one form only; any other line it would pass over.
bool CheckQemuReadable(const Image& image, std::string& why) {
    for (const vmdk::Extent& e : image.descriptor.extents)
        if (!e.strict || !(e.type == "FLAT" || e.type == "VMFS" || e.IsSparse()))
            return Fail(why, image.path + ": extent " + (e.name.empty() ? e.type : e.name) +
                                 " is not written as qemu reads extent lines (RW, SECTORS, FLAT|VMFS|SPARSE|VMFSSPARSE|"
                                 "SESPARSE, a quoted name, an offset for FLAT), so this delta or sparse disk is not "
                                 "read");
    return true;
}

}  // namespace

const char* DriverOf(Format format) {
    switch (format) {
        case Format::Raw:
            return "raw";
        case Format::Qcow2:
            return "qcow2";
        case Format::FlatVmdk:
        case Format::SparseVmdk:
            break;
    }
    return "vmdk";
}

bool Chain::Native() const {
    return images.size() == 1 && (images[0].format == Format::Raw || images[0].format == Format::FlatVmdk);
}

bool Inspect(const Where& where, const std::string& path, Chain& out, std::string& why) {
    out = Chain{};
    std::string root = where.root.empty() ? DirOf(path) : where.root;
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    std::string current = fs::path(path).lexically_normal().string();
    Expect expect = Expect::Any;
    std::set<std::pair<dev_t, ino_t>> seen;
    for (;;) {
        Image image;
        Expect parent = Expect::Any;
        if (!InspectImage(root, current, expect, image, parent, why)) return false;
        struct stat st {};
        if (::fstat(image.fd.get(), &st) != 0 || !seen.insert({st.st_dev, st.st_ino}).second)
            return Fail(why, "the chain of " + path + " comes back to " + current);
        if (!out.images.empty() && !CheckLink(out.images.back(), image, why)) return false;
        out.images.push_back(std::move(image));
        const Image& added = out.images.back();
        if (added.parentName.empty()) break;
        if (out.images.size() == kMaxChainLength)
            return Fail(why, path + ": a chain of more than " + std::to_string(kMaxChainLength) + " images");
        if (!ResolveParent(where, root, added, current, why)) return false;
        expect = parent;
    }
    if (!out.Native())
        for (const Image& image : out.images)
            if (image.TextDescriptor() && !CheckQemuReadable(image, why)) return false;
    return true;
}

}  // namespace vshost::diskchain
