#include "queue.h"

#include "objecttarget.h"

#include "vshost/queue.h"

#include <nlohmann/json.hpp>

#include <ctime>
#include <filesystem>
#include <iomanip>
#include <sstream>

namespace fs = std::filesystem;

namespace vsdm {
namespace {

// A local prefix is made absolute, so that workers started in any folder write to the
// same place; its folder must exist. An object prefix (s3://BUCKET/KEY) must name a
// bucket; the store itself is the workers' to reach.
std::string CheckedPrefix(const std::string& prefix) {
    if (prefix.empty()) throw UsageError("no stream prefix: give --out PREFIX (a folder ending in /, or a name start)");
    if (IsObject(prefix + "x")) return prefix;
    std::string absolute = fs::absolute(prefix).string();
    const fs::path folder = fs::path(absolute).parent_path();
    std::error_code ec;
    if (!fs::is_directory(folder, ec))
        throw UsageError("--out " + prefix + ": the folder " + folder.string() + " does not exist");
    return absolute;
}

std::string Human(int64_t bytes) {
    std::ostringstream out;
    if (bytes < 1024)
        out << bytes << " B";
    else
        out << std::fixed << std::setprecision(1) << static_cast<double>(bytes) / 1048576.0 << " MiB";
    return out.str();
}

std::string LeaseText(const vshost::queue::Item& it) {
    const int64_t left = it.leaseExpires - static_cast<int64_t>(std::time(nullptr));
    return left >= 0 ? "lease " + std::to_string(left) + " s left"
                     : "lease EXPIRED " + std::to_string(-left) + " s ago (the next worker takes it over)";
}

}  // namespace

std::string ItemStreamName(const std::string& prefix, int64_t jobId, int64_t itemNo, int64_t generation) {
    return prefix + "job" + std::to_string(jobId) + ".item" + std::to_string(itemNo) + "." + std::to_string(generation);
}

int64_t CreateQueuedJob(const QueuedJobRequest& request, std::ostream& report) {
    BackupRequest backup = request.backup;
    backup.out = CheckedPrefix(backup.out);
    nlohmann::json doc = nlohmann::json::parse(BackupJobText(backup, report));
    const nlohmann::json items = doc["items"];
    doc.erase("items");
    doc.erase("out");
    vshost::queue::WorkJob job;
    job.jobId = doc["jobId"].get<int64_t>();
    job.snapJobId = backup.snapJobId;
    job.spec = doc.dump();
    job.outPrefix = backup.out;
    job.compress = request.compressLevel;
    job.created = static_cast<int64_t>(std::time(nullptr));
    std::vector<vshost::queue::NewItem> queued;
    for (const auto& item : items) queued.push_back({item["path"].get<std::string>(), item.dump()});
    // The job's fields and items must make a job a worker can load: found out now, not on
    // every worker later.
    for (size_t i = 0; i < queued.size(); ++i)
        (void)ItemJob(job.spec, queued[i].spec, job.jobId, static_cast<int64_t>(i + 1));
    vshost::queue::CreateJob(job, queued);
    report << "job " << job.jobId << ": " << queued.size() << " item(s) of snapshot " << backup.snapJobId
           << " queued; streams " << ItemStreamName(backup.out, job.jobId, 1, 1) << " ...\n";
    return job.jobId;
}

DataMoverJob ItemJob(const std::string& jobSpec, const std::string& itemSpec, int64_t jobId, int64_t itemNo) {
    nlohmann::json doc = nlohmann::json::parse(jobSpec);
    doc["items"] = nlohmann::json::array({nlohmann::json::parse(itemSpec)});
    return ParseJob(doc.dump(), "job " + std::to_string(jobId) + " item " + std::to_string(itemNo), "/");
}

void PrintJobStatus(int64_t jobId, std::ostream& out) {
    const auto job = vshost::queue::FindJob(jobId);
    if (!job) throw UsageError("job " + std::to_string(jobId) + " was never queued (vsdm job create)");
    const auto items = vshost::queue::Items(jobId);
    std::map<std::string, size_t> counts;
    for (const auto& it : items) ++counts[it.state];
    out << "job " << jobId << " (snapshot " << job->snapJobId << ", streams " << job->outPrefix
        << "...): " << items.size() << " item(s), " << counts["done"] << " done, " << counts["running"] << " running, "
        << counts["queued"] << " queued, " << counts["failed"] << " failed\n";
    for (const auto& it : items) {
        out << "  item " << it.itemNo << " " << it.path << ": " << it.state;
        if (it.generation > 0) out << ", attempt " << it.generation << " on " << it.owner;
        if (it.state == "running") out << ", " << LeaseText(it);
        if (it.generation > 0) out << ", read " << Human(it.progress);
        out << "\n";
        if (!it.failure.empty()) out << "    reason: " << it.failure << "\n";
        for (const std::string& s : it.streams) out << "    stream " << s << "\n";
    }
}

}  // namespace vsdm
