// Job descriptions: job files, the process's registry of jobs, and the task, event and
// job options read from them.
#include "hostapi/job.h"
#include "hostapi/appmgr.h"
#include "vshost/job.h"
#include "vshost/jobfield.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <stdexcept>

namespace vshost {
namespace {

struct Registry {
    std::mutex mutex;
    std::map<KTJobID, JobDescription> jobs;
};

Registry& Jobs() {
    static auto* r = new Registry;  // never destroyed: readers may ask during exit
    return *r;
}

using nlohmann::json;

using vshost::BadJobField;

}  // namespace

JobDescription ParseJobText(const std::string& text, const std::string& origin) {
    json doc;
    try {
        doc = json::parse(text);
    } catch (const json::exception& e) {
        // Syntax errors and numbers beyond what JSON numbers here can hold alike.
        throw std::runtime_error(origin + ": not valid JSON: " + e.what());
    }
    if (!doc.is_object()) throw std::runtime_error(origin + ": a job file holds one JSON object");

    JobDescription job;
    if (!doc.contains("jobId")) BadJobField(origin, "jobId", "missing");
    job.jobId = JobNumber<KTJobID>(doc["jobId"], origin, "jobId", 0);

    if (doc.contains("appId")) {
        const json& app = doc["appId"];
        if (!app.is_array() || app.size() != 2) BadJobField(origin, "appId", "expected two numbers");
        job.appId1 = JobNumber<unsigned long>(app[0], origin, "appId[0]");
        job.appId2 = JobNumber<unsigned long>(app[1], origin, "appId[1]");
    }
    if (doc.contains("taskOptions")) {
        const json& opts = doc["taskOptions"];
        if (!opts.is_object()) BadJobField(origin, "taskOptions", "expected an object of option number to text");
        for (const auto& [key, value] : opts.items()) {
            const int n = JobOptionKey<int>(key, origin, "taskOptions", 0);
            if (!value.is_string()) BadJobField(origin, "taskOptions." + key, "expected text");
            job.taskOptions[n] = value.get<std::string>();
        }
    }
    if (doc.contains("eventOptions")) {
        const json& opts = doc["eventOptions"];
        if (!opts.is_object()) BadJobField(origin, "eventOptions", "expected an object of option number to true/false");
        for (const auto& [key, value] : opts.items()) {
            const auto n = JobOptionKey<unsigned long long>(key, origin, "eventOptions");
            if (!value.is_boolean()) BadJobField(origin, "eventOptions." + key, "expected true or false");
            job.eventOptions[n] = value.get<bool>();
        }
    }
    if (doc.contains("jobOptions")) {
        const json& opts = doc["jobOptions"];
        if (!opts.is_object()) BadJobField(origin, "jobOptions", "expected an object");
        if (opts.contains("restoreOptions")) {
            const json& r = opts["restoreOptions"];
            if (!r.is_object()) BadJobField(origin, "jobOptions.restoreOptions", "expected an object");
            if (r.contains("lookupInstanceFromTask"))
                job.lookupInstanceFromTask = JobNumber<int>(r["lookupInstanceFromTask"], origin,
                                                            "jobOptions.restoreOptions.lookupInstanceFromTask", 0);
        }
        if (opts.contains("virtualServerRestoreOptions")) {
            const json& v = opts["virtualServerRestoreOptions"];
            if (!v.is_object()) BadJobField(origin, "jobOptions.virtualServerRestoreOptions", "expected an object");
            if (v.contains("instanceId"))
                job.instanceId = JobNumber<unsigned long>(v["instanceId"], origin,
                                                          "jobOptions.virtualServerRestoreOptions.instanceId");
        }
    } else {
        job.hasJobOptions = false;
    }
    return job;
}

JobDescription ParseJobFile(const std::string& path) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) throw std::runtime_error(path + ": is a folder, not a job file");
    std::ifstream in(path);
    if (!in) throw std::runtime_error(path + ": cannot open: " + std::strerror(errno));
    std::ostringstream text;
    text << in.rdbuf();
    return ParseJobText(text.str(), path);
}

void RegisterJob(const JobDescription& job) {
    Registry& r = Jobs();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.jobs[job.jobId] = job;
}

void UnregisterJob(KTJobID jobId) {
    Registry& r = Jobs();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.jobs.erase(jobId);
}

bool FindJob(KTJobID jobId, JobDescription& out) {
    Registry& r = Jobs();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.jobs.find(jobId);
    if (it == r.jobs.end()) return false;
    out = it->second;
    return true;
}

}  // namespace vshost

int SchedularInterfaceNet::GetTaskOptionString(long long jobId, ktTaskOptions option, char* buffer,
                                               unsigned long size) {
    if (!buffer || size == 0) return 0;
    vshost::JobDescription job;
    if (!vshost::FindJob(jobId, job)) return 0;
    auto it = job.taskOptions.find(static_cast<int>(option));
    if (it == job.taskOptions.end()) return 0;
    const size_t n = std::min<size_t>(it->second.size(), size - 1);
    std::memcpy(buffer, it->second.data(), n);
    buffer[n] = '\0';
    return 1;
}

EvTask::EvTask(unsigned long long jobId, int, void*, bool) : m_jobId(jobId) {}

int EvTask::getOptionBool(unsigned long long option, bool& value, void*) {
    vshost::JobDescription job;
    if (!vshost::FindJob(static_cast<KTJobID>(m_jobId), job)) return ENOENT;
    auto it = job.eventOptions.find(option);
    value = it != job.eventOptions.end() && it->second;
    return 0;
}

void vsJobMgr::setJobId(const char* jobId) {
    m_jobId = jobId ? jobId : "";
}

bool vsJobMgr::LoadJobOptions() {
    char* end = nullptr;
    errno = 0;
    const unsigned long long id = std::strtoull(m_jobId.c_str(), &end, 10);
    if (m_jobId.empty() || *end != '\0' || errno == ERANGE) return false;
    vshost::JobDescription job;
    if (!vshost::FindJob(static_cast<KTJobID>(id), job) || !job.hasJobOptions) return false;
    m_restoreOptions.nLookupInstanceFromTask = job.lookupInstanceFromTask;
    m_vsRestoreOptions.ulInstanceId = job.instanceId;
    return true;
}
