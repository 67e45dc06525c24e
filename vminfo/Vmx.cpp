#include "Vmx.h"

#include "vshost/beneath.h"

#include <nlohmann/json.hpp>

#include <cctype>
#include <cerrno>
#include <filesystem>
#include <map>
#include <sstream>

namespace vminfo {

namespace {

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string Trim(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
    return s.substr(b, e - b);
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// Configuration values escape special characters as |XX.
std::string Unescape(const std::string& v) {
    std::string out;
    for (size_t i = 0; i < v.size(); ++i) {
        if (v[i] == '|' && i + 2 < v.size()) {
            const int hi = HexValue(v[i + 1]), lo = HexValue(v[i + 2]);
            if (hi >= 0 && lo >= 0) {
                out += static_cast<char>(hi * 16 + lo);
                i += 2;
                continue;
            }
        }
        out += v[i];
    }
    return out;
}

bool IsDiskDevice(const std::string& device) {
    for (const char* bus : {"scsi", "sata", "nvme", "ide"}) {
        const std::string prefix = bus;
        if (device.rfind(prefix, 0) != 0) continue;
        const std::string rest = device.substr(prefix.size());
        const size_t colon = rest.find(':');
        if (colon == 0 || colon == std::string::npos || colon + 1 == rest.size()) return false;
        for (size_t i = 0; i < rest.size(); ++i)
            if (i != colon && !std::isdigit(static_cast<unsigned char>(rest[i]))) return false;
        return true;
    }
    return false;
}

bool Inside(const std::filesystem::path& base, const std::filesystem::path& p) {
    const auto rel = p.lexically_normal().lexically_relative(base.lexically_normal());
    return !rel.empty() && *rel.begin() != "..";
}

}  // namespace

std::string CanonicalGuid(const std::string& text) {
    std::string hex;
    for (char c : text) {
        if (HexValue(c) >= 0)
            hex += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        else if (c != ' ' && c != '-' && c != '{' && c != '}')
            return {};
    }
    if (hex.size() != 32) return {};
    return hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-" + hex.substr(12, 4) + "-" + hex.substr(16, 4) + "-" +
           hex.substr(20);
}

namespace {

// `key = "value"` lines: keys in lower case, values unquoted and unescaped, the first
// spelling of each key kept in `order`.
std::map<std::string, std::string> ParseKeyValues(const std::string& text, std::vector<std::string>& order) {
    std::map<std::string, std::string> values;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        line = Trim(line);
        if (line.empty() || line[0] == '#') continue;
        const size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        const std::string key = Lower(Trim(line.substr(0, eq)));
        std::string value = Trim(line.substr(eq + 1));
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
        if (!values.count(key)) order.push_back(key);
        values[key] = Unescape(value);
    }
    return values;
}

// "snapshot12.disk0.filename" into 12 and "disk0.filename"; false for other keys.
bool SnapshotKey(const std::string& key, unsigned& index, std::string& rest) {
    const std::string prefix = "snapshot";
    if (key.rfind(prefix, 0) != 0) return false;
    size_t at = prefix.size();
    index = 0;
    while (at < key.size() && std::isdigit(static_cast<unsigned char>(key[at])) && at < prefix.size() + 6)
        index = index * 10 + static_cast<unsigned>(key[at++] - '0');
    if (at == prefix.size() || at >= key.size() || key[at] != '.') return false;
    rest = key.substr(at + 1);
    return true;
}

unsigned long long Number(const std::string& s) {
    unsigned long long n = 0;
    for (char c : s) {
        if (!std::isdigit(static_cast<unsigned char>(c)) || n > (~0ull - 9) / 10) return 0;
        n = n * 10 + static_cast<unsigned>(c - '0');
    }
    return n;
}

}  // namespace

VmsdConfig ParseVmsd(const std::string& text) {
    std::vector<std::string> order;
    const std::map<std::string, std::string> values = ParseKeyValues(text, order);
    VmsdConfig cfg;
    if (auto it = values.find("snapshot.current"); it != values.end()) cfg.currentUid = it->second;
    std::map<unsigned, VmsdSnapshot> snapshots;
    std::map<unsigned, std::map<std::string, std::pair<std::string, std::string>>> disks;  // file, node
    for (const auto& [key, value] : values) {
        unsigned index = 0;
        std::string rest;
        if (!SnapshotKey(key, index, rest)) continue;
        if (rest == "uid") snapshots[index].uid = value;
        if (rest == "displayname") snapshots[index].displayName = value;
        const size_t dot = rest.find('.');
        if (rest.rfind("disk", 0) == 0 && dot != std::string::npos) {
            auto& disk = disks[index][rest.substr(0, dot)];
            if (rest.substr(dot + 1) == "filename") disk.first = value;
            if (rest.substr(dot + 1) == "node") disk.second = Lower(value);
        }
    }
    for (auto& [index, snap] : snapshots) {
        for (const auto& [name, disk] : disks[index])
            if (!disk.first.empty() && !disk.second.empty()) snap.diskFiles[disk.second] = disk.first;
        if (!snap.uid.empty()) cfg.snapshots.push_back(snap);
    }
    return cfg;
}

const VmsdSnapshot* VmsdConfig::Current() const {
    const VmsdSnapshot* newest = nullptr;
    for (const VmsdSnapshot& s : snapshots) {
        if (!currentUid.empty() && s.uid == currentUid) return &s;
        if (!newest || Number(s.uid) > Number(newest->uid)) newest = &s;
    }
    return currentUid.empty() ? newest : nullptr;
}

VmxConfig ParseVmx(const std::string& text) {
    std::vector<std::string> order;
    const std::map<std::string, std::string> values = ParseKeyValues(text, order);
    auto get = [&](const std::string& key) {
        auto it = values.find(key);
        return it == values.end() ? std::string() : it->second;
    };

    VmxConfig cfg;
    cfg.displayName = get("displayname");
    cfg.biosUuid = CanonicalGuid(get("uuid.bios"));
    cfg.vcUuid = CanonicalGuid(get("vc.uuid"));
    const std::string suffix = ".filename";
    for (const std::string& key : order) {
        if (key.size() <= suffix.size() || key.compare(key.size() - suffix.size(), suffix.size(), suffix) != 0)
            continue;
        const std::string device = key.substr(0, key.size() - suffix.size());
        if (!IsDiskDevice(device)) continue;
        if (Lower(get(device + ".present")) == "false") continue;
        const std::string type = Lower(get(device + ".devicetype"));
        if (type.find("cdrom") != std::string::npos || type.find("atapi") != std::string::npos) continue;
        const std::string file = get(key);
        if (file.empty() || Lower(file).ends_with(".iso")) continue;
        cfg.disks.push_back(VmxDisk{device, file});
    }
    return cfg;
}

bool LoadSidecar(const std::string& vmFolder, const std::string& root, GuestSidecar& out, std::string& why) {
    namespace fs = std::filesystem;
    out = GuestSidecar{};
    const fs::path path = fs::path(vmFolder) / kSidecarName;
    std::string content;
    if (!vshost::snapfile::ReadText(root, path.string(), content, why)) return errno == ENOENT;
    const nlohmann::json doc = nlohmann::json::parse(content, nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) {
        why = path.string() + ": not a JSON object";
        return false;
    }
    auto folderOf = [&](const nlohmann::json& entry, std::string& folder) {
        if (!entry.is_object() || !entry.contains("folder") || !entry["folder"].is_string()) {
            why = path.string() + ": an entry has no \"folder\"";
            return false;
        }
        const fs::path abs = (fs::path(vmFolder) / entry["folder"].get<std::string>()).lexically_normal();
        if (!Inside(vmFolder, abs)) {
            why = path.string() + ": folder " + entry["folder"].get<std::string>() + " lies outside the VM folder";
            return false;
        }
        folder = abs.string();
        return true;
    };
    auto text = [](const nlohmann::json& entry, const char* key) {
        return entry.contains(key) && entry[key].is_string() ? entry[key].get<std::string>() : std::string();
    };
    for (const auto& v : doc.value("guestVolumes", nlohmann::json::array())) {
        GuestVolume vol;
        if (!folderOf(v, vol.folder)) return false;
        vol.guid = text(v, "guid");
        vol.name = text(v, "name");
        vol.devicePath = text(v, "devicePath");
        out.volumes.push_back(vol);
    }
    for (const auto& d : doc.value("fileCollectionDisks", nlohmann::json::array())) {
        FileCollectionDisk disk;
        if (!folderOf(d, disk.folder)) return false;
        disk.name = text(d, "name");
        if (disk.name.empty()) {
            why = path.string() + ": a file-collection disk has no \"name\"";
            return false;
        }
        out.fileCollectionDisks.push_back(disk);
    }
    return true;
}

}  // namespace vminfo
