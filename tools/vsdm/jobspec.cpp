#include "jobspec.h"

#include "vscodec/streamformat.h"
#include "vshost/jobfield.h"

#include <nlohmann/json.hpp>

#include <limits>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vsdm {

namespace {

using nlohmann::json;

template <typename T>
T Number(const json& doc, const char* field, const std::string& origin, T fallback,
         T min = std::numeric_limits<T>::min(), T max = std::numeric_limits<T>::max()) {
    if (!doc.contains(field)) return fallback;
    return vshost::JobNumber<T>(doc[field], origin, field, min, max);
}

std::string Text(const json& doc, const char* field, const std::string& origin, bool required = false) {
    if (!doc.contains(field)) {
        if (required) vshost::BadJobField(origin, field, "is missing");
        return {};
    }
    if (!doc[field].is_string()) vshost::BadJobField(origin, field, "must be a text");
    return doc[field].get<std::string>();
}

// Texts that go into one stream record (the media agent into the stream header, item
// paths into entry headers and disk records) must fit one record, with room left for the
// record's other fields: longer ones are refused at load rather than failing the stream.
constexpr size_t kMaxRecordText = vshost::stream::kMaxPayload / 4;

std::string RecordText(const json& doc, const char* field, const std::string& origin, bool required = false) {
    std::string text = Text(doc, field, origin, required);
    if (text.size() > kMaxRecordText)
        vshost::BadJobField(origin, field,
                            "is " + std::to_string(text.size()) +
                                " bytes long; it goes into one stream record, which holds at most " +
                                std::to_string(kMaxRecordText) + " bytes of it");
    return text;
}

std::vector<std::string> PathParts(const std::string& path) {
    std::vector<std::string> parts;
    size_t from = 0;
    for (size_t at; (at = path.find('\\', from)) != std::string::npos; from = at + 1)
        parts.push_back(path.substr(from, at - from));
    parts.push_back(path.substr(from));
    return parts;
}

// The extent reader keeps a disk open where its last read ended: after one extent of a
// disk, a later item of that whole disk would find it past that extent and send none of
// what came before, yet mark the disk as read. Such a job is refused before it starts.
void RefuseWholeDiskAfterItsExtent(const std::vector<JobItem>& items, const std::string& origin) {
    for (size_t i = 0; i < items.size(); ++i) {
        const auto extent = PathParts(items[i].path);
        if (extent.size() != 3) continue;
        for (size_t j = i + 1; j < items.size(); ++j) {
            const auto disk = PathParts(items[j].path);
            if (disk.size() == 2 && disk[0] == extent[0] && disk[1] == extent[1])
                throw std::runtime_error(origin + ": items[" + std::to_string(j) + "] (" + items[j].path +
                                         ") reads the whole disk after items[" + std::to_string(i) + "] (" +
                                         items[i].path +
                                         ") read one extent of it, which would leave it unread: "
                                         "put the whole disk first or run it as a job of its own");
        }
    }
}

}  // namespace

const char* ReaderName(ReaderKind kind) {
    switch (kind) {
        case ReaderKind::Extent:
            return "extent";
        case ReaderKind::FileCollection:
            return "fileCollection";
        case ReaderKind::FileLevel:
            return "fileLevel";
    }
    return "?";
}

DataMoverJob ParseJob(const std::string& text, const std::string& origin, const std::string& baseDir) {
    DataMoverJob job;
    job.host = vshost::ParseJobText(text, origin);
    const json doc = json::parse(text, nullptr, false);  // well-formed: the host parse passed

    const std::string reader = Text(doc, "reader", origin);
    if (reader.empty() || reader == "extent")
        job.reader = ReaderKind::Extent;
    else if (reader == "fileCollection")
        job.reader = ReaderKind::FileCollection;
    else if (reader == "fileLevel")
        job.reader = ReaderKind::FileLevel;
    else
        vshost::BadJobField(origin, "reader",
                            "must be \"extent\", \"fileCollection\" or \"fileLevel\", not \"" + reader + "\"");

    job.instanceType = Number<int>(doc, "instanceType", origin, 102, 0);
    job.mountType = Number<int>(doc, "mountType", origin, 0, 0);
    if (doc.contains("blockLevel")) {
        if (!doc["blockLevel"].is_boolean()) vshost::BadJobField(origin, "blockLevel", "must be true or false");
        job.blockLevel = doc["blockLevel"].get<bool>();
    }
    job.snapEngineId = Number<unsigned>(doc, "snapEngineId", origin, 0);
    job.mediaAgent = RecordText(doc, "mediaAgent", origin, true);
    job.jobToken = Text(doc, "jobToken", origin);
    if (job.jobToken.size() >= 64) vshost::BadJobField(origin, "jobToken", "must be shorter than 64 characters");

    if (!doc.contains("archiveFiles") || !doc["archiveFiles"].is_array() || doc["archiveFiles"].empty())
        vshost::BadJobField(origin, "archiveFiles", "must be a list of one or more archive file ids");
    for (const json& id : doc["archiveFiles"])
        job.archiveFiles.push_back(vshost::JobNumber<uint32_t>(id, origin, "archiveFiles", 1));
    if (doc.contains("open")) {
        const json& open = doc["open"];
        if (!open.is_object()) vshost::BadJobField(origin, "open", "must be an object");
        // Each archive-file open and the stream carry these as 32-bit ids.
        job.archGroupId = Number<uint32_t>(open, "archGroupId", origin + " (open)", 0);
        job.copyId = Number<uint32_t>(open, "copyId", origin + " (open)", 0);
        job.hubcellId = Number<uint32_t>(open, "hubcellId", origin + " (open)", 0);
    }

    if (!doc.contains("items") || !doc["items"].is_array() || doc["items"].empty())
        vshost::BadJobField(origin, "items", "must be a list of one or more items");
    size_t n = 0;
    for (const json& item : doc["items"]) {
        const std::string where = origin + " (items[" + std::to_string(n++) + "])";
        if (!item.is_object()) vshost::BadJobField(where, "items", "must hold objects");
        JobItem it;
        it.path = RecordText(item, "path", where, true);
        if (it.path.empty()) vshost::BadJobField(where, "path", "must not be empty");
        it.optionsXml = Text(item, "options", where);
        it.clientPath = RecordText(item, "clientPath", where);
        if (it.clientPath.empty()) it.clientPath = it.path;
        it.fileFilterCount = Number<int32_t>(item, "filter", where, 0, 0);
        it.expectedBytes = Number<uint64_t>(item, "bytes", where, 0);
        job.items.push_back(it);
    }

    if (job.reader == ReaderKind::Extent) RefuseWholeDiskAfterItsExtent(job.items, origin);

    job.out = Text(doc, "out", origin);
    // A relative file is beside the job file; an object (s3://) is where it says.
    if (!job.out.empty() && job.out != "-" && job.out.rfind("s3://", 0) != 0 &&
        std::filesystem::path(job.out).is_relative())
        job.out = (std::filesystem::path(baseDir) / job.out).string();
    job.home = Text(doc, "home", origin);
    if (!job.home.empty() && std::filesystem::path(job.home).is_relative())
        job.home = (std::filesystem::path(baseDir) / job.home).lexically_normal().string();
    return job;
}

DataMoverJob LoadJob(const std::string& path) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) throw std::runtime_error(path + ": is a folder, not a job file");
    std::ifstream in(path);
    if (!in) throw std::runtime_error(path + ": cannot be read");
    std::stringstream text;
    text << in.rdbuf();
    const std::string base = std::filesystem::absolute(path).parent_path().string();
    return ParseJob(text.str(), path, base);
}

std::string ItemVM(const JobItem& item) {
    return item.path.substr(0, item.path.find('\\'));
}

void EditItemOptions(JobItem& item, const std::function<void(VirtualServer::SnapSrcPathOptions&)>& edit) {
    VirtualServer::SnapSrcPathOptions options;
    std::string why;
    if (!item.optionsXml.empty() && !options.Unserialize(item.optionsXml, why))
        throw std::runtime_error("item " + item.path + ": its options cannot be read: " + why);
    edit(options);
    item.optionsXml = options.Serialize();
}

VirtualServer::SnapSrcPathDiskInfo& DiskEntry(VirtualServer::SnapSrcPathOptions& options, const std::string& name) {
    for (auto& entry : options.diskInfo)
        if (entry.diskName == name) return entry;
    return options.diskInfo.emplace_back(VirtualServer::SnapSrcPathDiskInfo{name, "", "", 0, 0});
}

}  // namespace vsdm
