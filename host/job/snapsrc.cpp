// The options XML of an item (element names in docs/options-xml.md).
#include "hostapi/snapsrc.h"

#include <pugixml.hpp>

#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace VirtualServer {

namespace {

constexpr const char* kRoot = "SnapSrcPathOptions";

bool Number(const pugi::xml_node& node, const char* name, int64_t& out, std::string& why) {
    const pugi::xml_attribute attr = node.attribute(name);
    if (!attr) return true;
    const char* text = attr.value();
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text, &end, 0);
    if (end == text || *end != '\0' || errno == ERANGE) {
        why = std::string("attribute ") + name + " of <" + node.name() + "> is not a number: [" + text + "]";
        return false;
    }
    out = value;
    return true;
}

}  // namespace

bool SnapSrcPathOptions::Unserialize(const std::string& xml, std::string& why) {
    *this = SnapSrcPathOptions{};
    SnapSrcPathOptions decoded;
    if (!decoded.Decode(xml, why)) return false;
    *this = std::move(decoded);
    return true;
}

bool SnapSrcPathOptions::Decode(const std::string& xml, std::string& why) {
    pugi::xml_document doc;
    const pugi::xml_parse_result parsed = doc.load_buffer(xml.data(), xml.size());
    if (!parsed) {
        why = std::string("malformed XML at offset ") + std::to_string(parsed.offset) + ": " + parsed.description();
        return false;
    }
    const pugi::xml_node root = doc.child(kRoot);
    if (!root) {
        why = std::string("no <") + kRoot + "> element";
        return false;
    }
    if (!Number(root, "useCBT", useCBT, why)) return false;
    for (const pugi::xml_node& node : root.children()) {
        const std::string name = node.name();
        if (name == "diskInfo") {
            SnapSrcPathDiskInfo disk;
            disk.diskName = node.attribute("diskName").value();
            disk.alternateDiskName = node.attribute("alternateDiskName").value();
            disk.changeId = node.attribute("changeId").value();
            if (!Number(node, "processed", disk.processed, why) || !Number(node, "startExtent", disk.startExtent, why))
                return false;
            diskInfo.push_back(disk);
        } else if (name == "mountDisk") {
            mountDiskNames.push_back(node.attribute("name").value());
        }
    }
    return true;
}

std::string SnapSrcPathOptions::Serialize() const {
    pugi::xml_document doc;
    pugi::xml_node root = doc.append_child(kRoot);
    root.append_attribute("useCBT") = static_cast<long long>(useCBT);
    for (const SnapSrcPathDiskInfo& disk : diskInfo) {
        pugi::xml_node node = root.append_child("diskInfo");
        node.append_attribute("diskName") = disk.diskName.c_str();
        if (!disk.alternateDiskName.empty())
            node.append_attribute("alternateDiskName") = disk.alternateDiskName.c_str();
        if (!disk.changeId.empty()) node.append_attribute("changeId") = disk.changeId.c_str();
        if (disk.processed) node.append_attribute("processed") = static_cast<long long>(disk.processed);
        if (disk.startExtent) node.append_attribute("startExtent") = static_cast<long long>(disk.startExtent);
    }
    for (const std::string& name : mountDiskNames)
        root.append_child("mountDisk").append_attribute("name") = name.c_str();
    std::ostringstream out;
    doc.save(out, "", pugi::format_raw);
    return out.str();
}

}  // namespace VirtualServer
