// Client-form paths of a collect file placed on this host, never outside their volume.
#include "hostapi/filebackup.h"

#include <strings.h>

namespace {

bool StartsWithNoCase(const std::string& text, const std::string& prefix) {
    return text.size() >= prefix.size() && strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

// Appends the "/"-separated components of `path` to `out`, dropping empty and "."
// components; false on a ".." component, which could climb out of the volume.
bool AppendComponents(const std::string& path, std::string& out) {
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        const std::string part = path.substr(start, end - start);
        if (part == "..") return false;
        if (!part.empty() && part != ".") out += (out.empty() ? "" : "/") + part;
        start = end + 1;
    }
    return true;
}

}  // namespace

FSIDANameMapper::~FSIDANameMapper() = default;

void FSIDANameMapper::ResetMappings() {
    m_mappings.clear();
}

void FSIDANameMapper::AddMapping(const std::string& clientPrefix, const std::string& localPrefix) {
    m_mappings.emplace_back(clientPrefix, localPrefix);
}

bool FSIDANameMapper::Map(const std::string& clientPath, MappedPath& out, std::string& why) const {
    const std::pair<std::string, std::string>* best = nullptr;
    for (const auto& m : m_mappings)
        if (!m.first.empty() && StartsWithNoCase(clientPath, m.first) && (!best || m.first.size() > best->first.size()))
            best = &m;
    if (!best) {
        why = "no mapping covers [" + clientPath + "]";
        return false;
    }
    std::string below;  // what lies below the root, before normalising
    if (!best->second.empty()) {
        out.root = best->second;
        below = clientPath.substr(best->first.size());
    } else {
        // No local prefix: the client prefix names the VM and the volume,
        // "<VM>\<volume>[/more]", and the live-browse mounts know where that volume is.
        const size_t sep = clientPath.find('\\');
        if (sep == std::string::npos || sep == 0) {
            why = "[" + clientPath + "] names no VM and volume";
            return false;
        }
        const std::string vm = clientPath.substr(0, sep);
        size_t volEnd = clientPath.find_first_of("/\\", sep + 1);
        if (volEnd == std::string::npos) volEnd = clientPath.size();
        const std::string volume = clientPath.substr(sep + 1, volEnd - sep - 1);
        if (volume.empty() || !VMLivebrowse::FindVolume(vm, volume, out.root)) {
            why = "volume [" + volume + "] of VM [" + vm + "] is not mounted";
            return false;
        }
        below = volEnd < clientPath.size() ? clientPath.substr(volEnd + 1) : std::string();
    }
    out.relative.clear();
    if (!AppendComponents(below, out.relative)) {
        why = "[" + clientPath + "] climbs out of its volume with \"..\"";
        return false;
    }
    return true;
}
