// VMDK descriptor reading, as common disk tools write descriptors: monolithic flat, split
// flat (several extent files), VMFS flat, zero extents, quoted names with blanks.
#include "vshost/vmdk.h"

#include "vshost/beneath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>

namespace vshost::vmdk {

namespace {

// Descriptors are small text files; anything larger is an image.
constexpr size_t kMaxDescriptorBytes = size_t{64} * 1024;

std::string Trim(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return s.substr(b, e - b);
}

// Drops a comment that starts outside quotes.
std::string StripComment(const std::string& line) {
    bool quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '"') quoted = !quoted;
        if (line[i] == '#' && !quoted) return line.substr(0, i);
    }
    return line;
}

std::string Upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

// Next blank-separated token from `pos`; a quoted token may hold blanks.
bool NextToken(const std::string& s, size_t& pos, std::string& token, bool& wasQuoted) {
    while (pos < s.size() && std::isspace(static_cast<unsigned char>(s[pos]))) ++pos;
    if (pos >= s.size()) return false;
    token.clear();
    wasQuoted = s[pos] == '"';
    if (wasQuoted) {
        const size_t close = s.find('"', pos + 1);
        if (close == std::string::npos) return false;
        token = s.substr(pos + 1, close - pos - 1);
        pos = close + 1;
        return true;
    }
    while (pos < s.size() && !std::isspace(static_cast<unsigned char>(s[pos]))) token += s[pos++];
    return true;
}

bool ParseNumber(const std::string& s, uint64_t& value) {
    if (s.empty() || s.size() > 19) return false;
    value = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<uint64_t>(c - '0');
    }
    return true;
}

bool IsSparseKind(const std::string& type) {
    return type == "SPARSE" || type == "VMFSSPARSE" || type == "SESPARSE";
}

bool IsFlatKind(const std::string& type) {
    return type == "FLAT" || type == "VMFS" || type == "VMFSRAW" || type == "VMFSRDM";
}

// One extent line, or false with the reason.
bool ParseExtent(const std::string& line, const std::string& dir, Extent& out, std::string& why) {
    size_t pos = 0;
    std::string token;
    bool quoted = false;
    NextToken(line, pos, out.access, quoted);
    if (!NextToken(line, pos, token, quoted) || !ParseNumber(token, out.sectors)) {
        why = "extent line without a sector count: " + line;
        return false;
    }
    if (!NextToken(line, pos, token, quoted)) {
        why = "extent line without a kind: " + line;
        return false;
    }
    out.type = Upper(token);
    if (IsSparseKind(out.type)) {
        why = "extent kind " + out.type + " (sparse) is not supported";
        return false;
    }
    if (out.IsZero()) return true;
    if (!IsFlatKind(out.type)) {
        why = "extent kind " + out.type + " is not supported";
        return false;
    }
    if (!NextToken(line, pos, token, quoted) || token.empty()) {
        why = "extent line without a file name: " + line;
        return false;
    }
    // Extent files lie beside their descriptor (or below its folder): a name that starts
    // elsewhere could make any file of this host part of the disk.
    bool leaves = token.front() == '/';
    for (const auto& part : std::filesystem::path(token)) leaves = leaves || part == "..";
    if (leaves) {
        why = "extent file \"" + token + "\" leaves the descriptor's folder: absolute names and .. are refused";
        return false;
    }
    out.file = dir + "/" + token;
    if (NextToken(line, pos, token, quoted) && !ParseNumber(token, out.offsetSectors)) {
        why = "extent line with a bad offset: " + line;
        return false;
    }
    return true;
}

std::string DirOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

uint64_t Descriptor::SizeBytes() const {
    uint64_t sectors = 0;
    for (const Extent& e : extents) sectors += e.sectors;
    return sectors * 512;
}

bool Parse(const std::string& text, const std::string& dir, Descriptor& out, std::string& why) {
    out = Descriptor{};
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        const std::string line = Trim(StripComment(text.substr(start, end - start)));
        start = end + 1;
        if (line.empty()) continue;

        const std::string word = Upper(line.substr(0, line.find_first_of(" \t")));
        if (word == "RW" || word == "RDONLY" || word == "NOACCESS") {
            Extent extent;
            if (!ParseExtent(line, dir, extent, why)) return false;
            out.extents.push_back(extent);
            continue;
        }
        const size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        if (Upper(Trim(line.substr(0, eq))) == "CREATETYPE") {
            std::string value = Trim(line.substr(eq + 1));
            if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
                value = value.substr(1, value.size() - 2);
            out.createType = value;
        }
    }
    if (out.extents.empty()) {
        why = "no extent lines in the descriptor";
        return false;
    }
    return true;
}

Kind Inspect(const std::string& path, Descriptor& out, std::string& why, const std::string& root) {
    out = Descriptor{};
    const std::string base = root.empty() ? DirOf(path) : root;
    Fd fd = snapfile::Open(base, path, why);
    if (!fd.valid()) return Kind::Unreadable;
    struct stat st {};
    if (fstat(fd.get(), &st) != 0) {
        why = std::string("cannot stat: ") + std::strerror(errno);
        return Kind::Unreadable;
    }
    std::string head(std::min<uint64_t>(static_cast<uint64_t>(st.st_size), kMaxDescriptorBytes), '\0');
    const ssize_t n = head.empty() ? 0 : ::pread(fd.get(), head.data(), head.size(), 0);
    if (n < 0) {
        why = std::string("cannot read: ") + std::strerror(errno);
        return Kind::Unreadable;
    }
    head.resize(static_cast<size_t>(n));

    if (head.compare(0, 4, "KDMV") == 0) {
        why = "hosted sparse disk (monolithicSparse) is not supported";
        return Kind::Unreadable;
    }
    if (head.compare(0, 4, "COWD") == 0) {
        why = "VMFS sparse disk (vmfsSparse) is not supported";
        return Kind::Unreadable;
    }
    const bool small = static_cast<uint64_t>(st.st_size) <= kMaxDescriptorBytes;
    const bool text = head.find('\0') == std::string::npos;
    const bool looksLikeDescriptor =
        head.rfind("# Disk DescriptorFile", 0) == 0 || head.find("createType") != std::string::npos;
    if (!(small && text && looksLikeDescriptor)) return Kind::RawImage;

    if (!Parse(head, DirOf(path), out, why)) return Kind::Unreadable;
    for (const Extent& extent : out.extents) {
        if (extent.IsZero()) continue;
        std::string whyNot;
        if (!snapfile::Open(base, extent.file, whyNot).valid()) {
            why = "extent file " + whyNot;
            return Kind::Unreadable;
        }
    }
    return Kind::Descriptor;
}

bool DiskSize(const std::string& path, uint64_t& size, std::string& why) {
    Descriptor descriptor;
    switch (Inspect(path, descriptor, why)) {
        case Kind::Descriptor:
            size = descriptor.SizeBytes();
            return true;
        case Kind::RawImage: {
            struct stat st {};
            if (::stat(path.c_str(), &st) != 0) {
                why = std::string("cannot stat: ") + std::strerror(errno);
                return false;
            }
            size = static_cast<uint64_t>(st.st_size);
            return true;
        }
        case Kind::Unreadable:
            break;
    }
    return false;
}

}  // namespace vshost::vmdk
