// VMDK descriptor reading, as common disk tools write descriptors: monolithic flat, split
// flat (several extent files), VMFS flat, zero extents, quoted names with blanks, and the
// sparse kinds and parent of delta disks (which qemu reads).
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
    out.strict = out.access == "RW" && token == out.type;
    if (out.IsZero()) return true;
    if (!IsFlatKind(out.type) && !out.IsSparse()) {
        why = "extent kind " + out.type + " is not supported";
        return false;
    }
    if (!NextToken(line, pos, token, quoted) || token.empty()) {
        why = "extent line without a file name: " + line;
        return false;
    }
    // A name qemu would cut at a line break is not the name checked here.
    out.strict = out.strict && quoted &&
                 std::none_of(token.begin(), token.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; });
    // Extent files lie beside their descriptor (or below its folder): a name that starts
    // elsewhere could make any file of this host part of the disk.
    bool leaves = token.front() == '/';
    for (const auto& part : std::filesystem::path(token)) leaves = leaves || part == "..";
    if (leaves) {
        why = "extent file \"" + token + "\" leaves the descriptor's folder: absolute names and .. are refused";
        return false;
    }
    out.name = token;
    out.file = dir + "/" + token;
    const bool hasOffset = NextToken(line, pos, token, quoted);
    if (hasOffset && !ParseNumber(token, out.offsetSectors)) {
        why = "extent line with a bad offset: " + line;
        return false;
    }
    out.strict = out.strict && hasOffset == (out.type == "FLAT");
    return true;
}

bool ParseHex32(const std::string& s, uint32_t& value) {
    if (s.empty() || s.size() > 8) return false;
    value = 0;
    for (char c : s) {
        const int d = std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
                      : (c >= 'a' && c <= 'f')                    ? c - 'a' + 10
                      : (c >= 'A' && c <= 'F')                    ? c - 'A' + 10
                                                                  : -1;
        if (d < 0) return false;
        value = value * 16 + static_cast<uint32_t>(d);
    }
    return true;
}

std::string Unquote(std::string value) {
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
    return value;
}

// A `key = value` line of the descriptor's header.
bool ParseHeaderLine(const std::string& key, const std::string& value, Descriptor& out, std::string& why) {
    if (key == "CREATETYPE") {
        out.createType = value;
    } else if (key == "PARENTFILENAMEHINT") {
        out.parentHint = value;
    } else if (key == "CID") {
        out.hasCid = ParseHex32(value, out.cid);
    } else if (key == "PARENTCID" && !ParseHex32(value, out.parentCid)) {
        why = "parentCID is not a number: " + value;
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

bool Descriptor::Flat() const {
    for (const Extent& e : extents)
        if (e.IsSparse()) return false;
    return parentHint.empty();
}

bool LooksLikeDescriptor(const std::string& head, uint64_t fileSize) {
    // Disk tools pad a descriptor file with zeros to a whole sector; zeros elsewhere make it binary.
    const size_t end = head.find_last_not_of('\0');
    return fileSize <= kMaxDescriptorBytes && end != std::string::npos && head.find('\0') > end &&
           (head.rfind("# Disk DescriptorFile", 0) == 0 || head.find("createType") != std::string::npos);
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

        // Any blank ends the first word, as it does for qemu, which reads the same lines.
        size_t wordEnd = 0;
        while (wordEnd < line.size() && !std::isspace(static_cast<unsigned char>(line[wordEnd]))) ++wordEnd;
        const std::string word = Upper(line.substr(0, wordEnd));
        if (word == "RW" || word == "RDONLY" || word == "NOACCESS") {
            Extent extent;
            if (!ParseExtent(line, dir, extent, why)) return false;
            out.extents.push_back(extent);
            continue;
        }
        const size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        if (!ParseHeaderLine(Upper(Trim(line.substr(0, eq))), Unquote(Trim(line.substr(eq + 1))), out, why))
            return false;
    }
    if (out.extents.empty()) {
        why = "no extent lines in the descriptor";
        return false;
    }
    return true;
}

bool IsVmdkName(const std::string& path) {
    return path.size() > 5 && Upper(path.substr(path.size() - 5)) == ".VMDK";
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

    if (IsVmdkName(path) && (head.compare(0, 4, "KDMV") == 0 || head.compare(0, 4, "COWD") == 0)) return Kind::Sparse;
    if (!LooksLikeDescriptor(head, static_cast<uint64_t>(st.st_size))) return Kind::RawImage;

    if (!Parse(head, DirOf(path), out, why)) return Kind::Unreadable;
    for (const Extent& extent : out.extents) {
        if (extent.IsZero()) continue;
        std::string whyNot;
        if (!snapfile::Open(base, extent.file, whyNot).valid()) {
            why = "extent file " + whyNot;
            return Kind::Unreadable;
        }
    }
    return out.Flat() ? Kind::Descriptor : Kind::Sparse;
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
        case Kind::Sparse:
            why = "a sparse or delta disk: its size is qemu's to read";
            break;
        case Kind::Unreadable:
            break;
    }
    return false;
}

}  // namespace vshost::vmdk
