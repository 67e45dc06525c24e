// Disk images for the format tests: raw images with data where a test puts it, the
// formats qemu-img writes, and the two VMware delta formats qemu reads but cannot write
// (VMFS sparse "COWD" and SESPARSE), written here from the public VMDK format
// description. Every image is made by the test that uses it and removed with its home.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace vstest::images {

constexpr uint64_t kSector = 512;

// Runs a shell command; its output (stdout and stderr) and exit status.
inline int Sh(const std::string& command, std::string* output = nullptr) {
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    if (!p) return -1;
    std::array<char, 4096> buf{};
    size_t n = 0;
    std::string out;
    while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) out.append(buf.data(), n);
    const int rc = pclose(p);
    if (output) *output = out;
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : 128;
}

inline std::string Quote(const std::string& s) {
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// A sparse raw image of `size` bytes.
inline void MakeRaw(const std::string& path, uint64_t size) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(size)) != 0) throw std::runtime_error("cannot make " + path);
    ::close(fd);
}

// Writes `length` bytes of a pattern that has no zero byte at `offset`.
inline void Fill(const std::string& path, uint64_t offset, uint64_t length, uint32_t seed) {
    std::vector<char> bytes(length);
    std::mt19937 gen(seed);
    for (char& c : bytes) c = static_cast<char>(gen() | 1);
    const int fd = ::open(path.c_str(), O_RDWR);
    const bool ok =
        fd >= 0 && ::pwrite(fd, bytes.data(), length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
    if (fd >= 0) ::close(fd);
    if (!ok) throw std::runtime_error("cannot write " + path);
}

// qemu-nbd processes holding a file under `dir` open (serving a disk, or left behind).
inline size_t QemuNbdUsing(const std::string& dir) {
    size_t n = 0;
    std::error_code ec;
    for (const auto& proc : std::filesystem::directory_iterator("/proc", ec)) {
        std::string comm;
        if (!(std::ifstream(proc.path() / "comm") >> comm) || comm != "qemu-nbd") continue;
        for (const auto& fd : std::filesystem::directory_iterator(proc.path() / "fd", ec))
            if (std::filesystem::read_symlink(fd.path(), ec).string().rfind(dir, 0) == 0) {
                ++n;
                break;
            }
    }
    return n;
}

// `qemu-img compare` of two images (formats given, "" to let qemu-img tell): empty when
// they read the same, else what qemu-img said.
inline std::string Compare(const std::string& a, const std::string& aFormat, const std::string& b,
                           const std::string& bFormat) {
    std::string out;
    const std::string cmd = "qemu-img compare " + (aFormat.empty() ? "" : "-f " + aFormat + " ") +
                            (bFormat.empty() ? "" : "-F " + bFormat + " ") + Quote(a) + " " + Quote(b);
    const int rc = Sh(cmd, &out);
    return rc == 0 ? std::string() : "exit " + std::to_string(rc) + ": " + out;
}

enum class DeltaKind { VmfsSparse, SeSparse };

// A VMware delta disk: a descriptor naming its parent and one extent file holding the
// grains of `source` (a raw image of the disk's size) that are not all zeros. Grains
// listed in `zeroGrains` (SESPARSE only) are written as grains that read as zeros,
// whatever the parent holds there.
struct Delta {
    DeltaKind kind = DeltaKind::SeSparse;
    std::string source;
    std::vector<uint64_t> zeroGrains;
    std::string parentHint;  // empty: a delta without a parent (reads zeros where it holds nothing)
    uint32_t cid = 0x1234abcd;
    uint32_t parentCid = 0xffffffff;
};

namespace detail {

inline void Put(std::string& buf, size_t at, uint64_t value, size_t bytes) {
    for (size_t i = 0; i < bytes; ++i) buf[at + i] = static_cast<char>((value >> (8 * i)) & 0xff);
}

inline uint64_t DivUp(uint64_t a, uint64_t b) {
    return (a + b - 1) / b;
}

// The grains of `source` that hold data, as (grain number, bytes).
inline std::vector<std::pair<uint64_t, std::string>> DataGrains(const std::string& source, uint64_t grainBytes,
                                                                uint64_t& size) {
    std::ifstream in(source, std::ios::binary | std::ios::ate);
    size = static_cast<uint64_t>(in.tellg());
    in.seekg(0);
    std::vector<std::pair<uint64_t, std::string>> grains;
    std::string grain(grainBytes, '\0');
    for (uint64_t g = 0; g * grainBytes < size; ++g) {
        in.read(grain.data(), static_cast<std::streamsize>(grainBytes));
        if (grain.find_first_not_of('\0') != std::string::npos) grains.emplace_back(g, grain);
    }
    return grains;
}

// SESPARSE: a 512-byte constant header (magic 0xcafebabe, version 2.1, 4 KiB grains,
// grain tables of 4096 entries, the offsets and sizes of each area in sectors), a
// volatile header (magic 0xcafecafe, no journal to replay), the grain directory (one
// 64-bit entry per grain table: 0x1 in the top nibble and the table's number), the grain
// tables (64-bit entries: 0x3 in the top nibble and the grain's number, its low 12 bits
// in bits 48-59 and the rest in bits 0-47; 0x2 in the top nibble for a zero grain), then
// the grains.
inline std::string SeSparse(const Delta& d, uint64_t& sectors) {
    constexpr uint64_t kGrain = 8, kTableEntries = 4096, kTableSectors = 64;
    uint64_t size = 0;
    const auto grains = DataGrains(d.source, kGrain * kSector, size);
    sectors = size / kSector;
    const uint64_t directoryEntries = DivUp(sectors, kGrain * kTableEntries);
    const uint64_t directorySectors = DivUp(directoryEntries * 8, kSector);
    std::vector<int64_t> tableOf(directoryEntries, -1);
    uint64_t tables = 0;
    auto useTable = [&](uint64_t grain) {
        int64_t& t = tableOf[grain / kTableEntries];
        if (t < 0) t = static_cast<int64_t>(tables++);
    };
    for (const auto& g : grains) useTable(g.first);
    for (uint64_t z : d.zeroGrains) useTable(z);
    const uint64_t directoryAt = 4, tablesAt = directoryAt + directorySectors;
    const uint64_t grainsAt = DivUp(tablesAt + tables * kTableSectors + 2, kGrain) * kGrain;
    std::string file((grainsAt + grains.size() * kGrain) * kSector, '\0');
    const uint64_t header[] = {0xcafebabe,
                               0x0000000200000001,
                               sectors,
                               kGrain,
                               kTableSectors,
                               0,
                               0,
                               0,
                               0,
                               0,
                               1,
                               1,
                               2,
                               1,
                               3,
                               1,  // volatile header, journal header, journal
                               directoryAt,
                               directorySectors,
                               tablesAt,
                               tables * kTableSectors,
                               tablesAt + tables * kTableSectors,
                               1,  // free bitmap
                               tablesAt + tables * kTableSectors + 1,
                               1,  // back map
                               grainsAt,
                               grains.size() * kGrain};
    for (size_t i = 0; i < std::size(header); ++i) Put(file, i * 8, header[i], 8);
    const uint64_t volatileHeader[] = {0xcafecafe, tables, 1, 0};
    for (size_t i = 0; i < std::size(volatileHeader); ++i) Put(file, kSector + i * 8, volatileHeader[i], 8);
    for (uint64_t e = 0; e < directoryEntries; ++e)
        if (tableOf[e] >= 0)
            Put(file, directoryAt * kSector + e * 8, 0x1000000000000000ull | static_cast<uint64_t>(tableOf[e]), 8);
    auto entryAt = [&](uint64_t grain) {
        return (tablesAt + static_cast<uint64_t>(tableOf[grain / kTableEntries]) * kTableSectors) * kSector +
               (grain % kTableEntries) * 8;
    };
    for (size_t n = 0; n < grains.size(); ++n) {
        const uint64_t g = grains[n].first;
        Put(file, entryAt(g), 0x3000000000000000ull | ((n & 0xfff) << 48) | (n >> 12), 8);
        file.replace((grainsAt + n * kGrain) * kSector, kGrain * kSector, grains[n].second);
    }
    for (uint64_t z : d.zeroGrains) Put(file, entryAt(z), 0x2000000000000000ull, 8);
    return file;
}

// VMFS sparse (COWD): a 2048-byte header (magic "COWD", version 1, flags 3, the disk's
// sectors, the grain size, the grain directory's sector and entry count, the next free
// sector), the grain directory (32-bit sector numbers of grain tables), grain tables of
// 4096 32-bit sector numbers of grains, then the grains (one sector each here, as ESX
// writes them).
inline std::string VmfsSparse(const Delta& d, uint64_t& sectors) {
    constexpr uint64_t kGrain = 1, kTableEntries = 4096, kTableSectors = kTableEntries * 4 / kSector;
    uint64_t size = 0;
    const auto grains = DataGrains(d.source, kGrain * kSector, size);
    sectors = size / kSector;
    const uint64_t directoryEntries = DivUp(sectors, kGrain * kTableEntries);
    const uint64_t directoryAt = 4, tablesAt = directoryAt + DivUp(directoryEntries * 4, kSector);
    std::vector<int64_t> tableOf(directoryEntries, -1);
    uint64_t tables = 0;
    for (const auto& g : grains)
        if (tableOf[g.first / kTableEntries] < 0) tableOf[g.first / kTableEntries] = static_cast<int64_t>(tables++);
    const uint64_t grainsAt = tablesAt + tables * kTableSectors;
    std::string file((grainsAt + grains.size() * kGrain) * kSector, '\0');
    file.replace(0, 4, "COWD");
    const uint64_t header[] = {1, 3, sectors, kGrain, directoryAt, directoryEntries, grainsAt + grains.size() * kGrain};
    for (size_t i = 0; i < std::size(header); ++i) Put(file, 4 + i * 4, header[i], 4);
    for (uint64_t e = 0; e < directoryEntries; ++e)
        if (tableOf[e] >= 0)
            Put(file, directoryAt * kSector + e * 4, tablesAt + static_cast<uint64_t>(tableOf[e]) * kTableSectors, 4);
    for (size_t n = 0; n < grains.size(); ++n) {
        const uint64_t g = grains[n].first;
        const uint64_t table = tablesAt + static_cast<uint64_t>(tableOf[g / kTableEntries]) * kTableSectors;
        Put(file, table * kSector + (g % kTableEntries) * 4, grainsAt + n * kGrain, 4);
        file.replace((grainsAt + n * kGrain) * kSector, kGrain * kSector, grains[n].second);
    }
    return file;
}

inline std::string Hex(uint32_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "%08x", v);
    return text;
}

}  // namespace detail

// Writes the delta's descriptor at `descriptor` (a .vmdk path) and its extent file beside it.
inline void WriteDelta(const Delta& d, const std::string& descriptor) {
    const bool se = d.kind == DeltaKind::SeSparse;
    uint64_t sectors = 0;
    const std::string extent = se ? detail::SeSparse(d, sectors) : detail::VmfsSparse(d, sectors);
    const size_t slash = descriptor.rfind('/');
    const std::string stem = descriptor.substr(slash + 1, descriptor.size() - slash - 1 - 5);
    const std::string extentName = stem + (se ? "-sesparse.vmdk" : "-delta.vmdk");
    std::ofstream(descriptor.substr(0, slash + 1) + extentName, std::ios::binary) << extent;
    std::ofstream out(descriptor, std::ios::binary);
    out << "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=" << detail::Hex(d.cid)
        << "\nparentCID=" << detail::Hex(d.parentCid) << "\ncreateType=\"" << (se ? "seSparse" : "vmfsSparse")
        << "\"\n";
    if (!d.parentHint.empty()) out << "parentFileNameHint=\"" << d.parentHint << "\"\n";
    out << "\n# Extent description\nRW " << sectors << (se ? " SESPARSE \"" : " VMFSSPARSE \"") << extentName
        << "\"\n\n# The Disk Data Base\n#DDB\n\nddb.virtualHWVersion = \"14\"\n";
}

// A flat VMDK as ESX keeps a base disk: a "vmfs" descriptor and its flat file, a hard
// link to `raw` (so the raw image is also the reference it is compared with).
inline void WriteFlat(const std::string& raw, const std::string& descriptor, uint32_t cid) {
    const size_t slash = descriptor.rfind('/');
    const std::string stem = descriptor.substr(slash + 1, descriptor.size() - slash - 1 - 5);
    const std::string flat = stem + "-flat.vmdk";
    if (::link(raw.c_str(), (descriptor.substr(0, slash + 1) + flat).c_str()) != 0)
        throw std::runtime_error("cannot link " + raw);
    std::ifstream in(raw, std::ios::binary | std::ios::ate);
    const uint64_t sectors = static_cast<uint64_t>(in.tellg()) / kSector;
    std::ofstream(descriptor, std::ios::binary)
        << "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=" << detail::Hex(cid)
        << "\nparentCID=ffffffff\ncreateType=\"vmfs\"\n\n# Extent description\nRW " << sectors << " VMFS \"" << flat
        << "\"\n\n# The Disk Data Base\n#DDB\n\nddb.virtualHWVersion = \"14\"\n";
}

// A VM folder as a datastore holds it: a hand-written .vmx whose scsi0:0 is `disk`, and
// a .vmsd listing one snapshot per entry of `snapshots` (the disk file scsi0:0 had when
// it was taken), the last one current. No .vmsd when `snapshots` is empty.
inline void WriteVM(const std::string& folder, const std::string& name, const std::string& biosUuid,
                    const std::string& disk, const std::vector<std::string>& snapshots) {
    std::ofstream(folder + "/" + name + ".vmx")
        << ".encoding = \"UTF-8\"\nconfig.version = \"8\"\ndisplayName = \"" << name << "\"\nuuid.bios = \"" << biosUuid
        << "\"\nscsi0.present = \"TRUE\"\nscsi0:0.present = \"TRUE\"\nscsi0:0.fileName = \"" << disk << "\"\n";
    if (snapshots.empty()) return;
    std::ofstream vmsd(folder + "/" + name + ".vmsd");
    vmsd << ".encoding = \"UTF-8\"\nsnapshot.lastUID = \"" << snapshots.size() << "\"\nsnapshot.current = \""
         << snapshots.size() << "\"\n";
    for (size_t i = 0; i < snapshots.size(); ++i) {
        const std::string at = "snapshot" + std::to_string(i) + ".";
        vmsd << at << "uid = \"" << i + 1 << "\"\n"
             << at << "filename = \"" << name << "-Snapshot" << i + 1 << ".vmsn\"\n"
             << at << "displayName = \"snapshot " << i + 1 << "\"\n"
             << at << "numDisks = \"1\"\n"
             << at << "disk0.fileName = \"" << snapshots[i] << "\"\n"
             << at << "disk0.node = \"scsi0:0\"\n";
    }
    vmsd << "snapshot.numSnapshots = \"" << snapshots.size() << "\"\n";
}

}  // namespace vstest::images
