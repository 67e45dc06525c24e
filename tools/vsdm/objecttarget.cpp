#include "objecttarget.h"

#include "objectbytes.h"

#include "hostapi/appmgr.h"
#include "vshost/home.h"
#include "vshost/streamset.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

namespace vsdm {

namespace {

// The AWS_* variable when set, else the home's setting.
std::string Setting(const char* variable, const char* key) {
    if (const char* v = std::getenv(variable); v && *v) return v;
    std::string value;
    return vshost::settings::Get("ObjectStore", key, value) ? value : std::string();
}

}  // namespace

bool IsObject(const std::string& path, vsobj::S3Location* at) {
    vsobj::S3Location here;
    try {
        const bool object = vsobj::ParseS3Url(path, here);
        if (object && at) *at = here;
        return object;
    } catch (const std::invalid_argument& e) {
        throw UsageError(e.what());
    }
}

vsobj::S3Settings ObjectStoreSettings() {
    vsobj::S3Settings s;
    s.endpoint = Setting("AWS_ENDPOINT_URL", "sEndpoint");
    if (const std::string region = Setting("AWS_REGION", "sRegion"); !region.empty()) s.region = region;
    s.accessKey = Setting("AWS_ACCESS_KEY_ID", "sAccessKey");
    if (const char* v = std::getenv("AWS_SECRET_ACCESS_KEY"); v && *v) {
        s.secretKey = v;
    } else if (std::string stored; vshost::settings::Get("ObjectStore", "sSecretKey", stored) && !stored.empty()) {
        // Kept as vshost-passwd makes it, under the home's key.
        if (vsAppMgr().decryptPassword(stored, &s.secretKey) != 0)
            throw std::runtime_error(
                "object storage: [ObjectStore] sSecretKey does not decrypt under this home's key (store it with "
                "vshost-passwd --home of this home)");
    }
    for (const auto& [value, what] : {std::pair{&s.endpoint, "AWS_ENDPOINT_URL or [ObjectStore] sEndpoint"},
                                      std::pair{&s.accessKey, "AWS_ACCESS_KEY_ID or [ObjectStore] sAccessKey"},
                                      std::pair{&s.secretKey, "AWS_SECRET_ACCESS_KEY or [ObjectStore] sSecretKey"}})
        if (value->empty()) throw std::runtime_error(std::string("object storage: no ") + what + " is set");
    while (!s.endpoint.empty() && s.endpoint.back() == '/') s.endpoint.pop_back();
    return s;
}

std::unique_ptr<Target> OpenTarget(const std::string& out) {
    vsobj::S3Location at;
    if (IsObject(out, &at)) return std::make_unique<ObjectTarget>(at);
    return std::make_unique<StreamTarget>(out);
}

ObjectTarget::ObjectTarget(const vsobj::S3Location& at) {
    const vsobj::S3Settings settings = ObjectStoreSettings();
    vsobj::S3Client client(settings);
    for (const std::string& id : client.UploadsOf(at)) client.AbortUpload(at, id);
    m_writer = std::make_unique<vsobj::ObjectWriter>(settings, at);
}

bool ObjectTarget::Publish(std::string& why) {
    if (!m_writer) return true;
    const bool stored = m_writer->Finish(why);
    m_writer.reset();
    return stored;
}

void ObjectTarget::Discard() {
    if (m_writer) m_writer->Abort();
    m_writer.reset();
}

StreamSource::StreamSource(const std::string& path) {
    vsobj::S3Location at;
    if (IsObject(path, &at)) {
        try {
            m_object = std::make_unique<vsobj::ObjectReader>(ObjectStoreSettings(), at);
        } catch (const std::exception& e) {
            throw UsageError("cannot open the stream " + path + ": " + e.what());
        }
        return;
    }
    m_file = vshost::Fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!m_file.valid()) throw UsageError("cannot open the stream " + path + ": " + std::strerror(errno));
}

bool StreamExists(const std::string& path) {
    vsobj::S3Location at;
    if (!IsObject(path, &at)) {
        std::error_code ec;
        return std::filesystem::exists(path, ec);
    }
    try {
        vsobj::S3Client(ObjectStoreSettings()).Size(at);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

namespace {

// A tool's report in a sentence of the worker's own.
std::string OneLine(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    std::replace(text.begin(), text.end(), '\n', ';');
    return text;
}

}  // namespace

bool KeepCutObject(const std::string& path, std::string& said) {
    vsobj::S3Location at;
    if (!IsObject(path, &at)) return false;
    try {
        const vsobj::S3Settings settings = ObjectStoreSettings();
        vsobj::S3Client client(settings);
        const uint64_t kept = vsobj::KeepUploadedParts(client, at);
        if (kept == 0) {
            said = "no part of its upload was stored";
            return false;
        }
        said = "its upload was never completed: the " + std::to_string(kept) +
               " bytes of its parts stored are kept as the stream " + path;
        // Indexed as a written stream is, so that vsstream serve reads it as it is.
        std::ostringstream out, problems;
        vsstream::IndexStream(*vsstream::ObjectBytes(settings, at), out, problems);
        said += out.str().empty() ? " (not indexed: " + OneLine(problems.str()) + ")" : ", " + OneLine(out.str());
        return true;
    } catch (const std::exception& e) {
        // A writer that finished meanwhile completed the upload itself.
        said = e.what();
        return StreamExists(path);
    }
}

bool PublishStreamSet(const std::string& path, const vshost::StreamSet& set, std::string& why) {
    vsobj::S3Location at;
    if (!IsObject(path, &at)) return vshost::WriteStreamSet(path, set, why) && SyncFolderOf(path, why);
    try {
        vsobj::S3Client(ObjectStoreSettings()).Put(at, vshost::StreamSetText(set));
        return true;
    } catch (const std::exception& e) {
        why = std::string("cannot write the stream set: ") + e.what();
        return false;
    }
}

std::string IndexFolderOf(const std::string& out) {
    if (IsObject(out)) return std::filesystem::temp_directory_path().string();
    if (out == "-") return {};
    struct stat sb {};
    if (::stat(out.c_str(), &sb) == 0 && !S_ISREG(sb.st_mode)) return {};
    const std::string folder = std::filesystem::path(out).parent_path().string();
    return folder.empty() ? "." : folder;
}

bool PublishIndex(const std::string& out, vsstream::IndexRecorder& recorder, uint64_t streamBytes, std::string& why) {
    const auto fill = [&](vsstream::IndexEncoder& encoder, std::string& what) {
        return recorder.Write(encoder, streamBytes, what);
    };
    vsobj::S3Location at;
    if (!IsObject(out, &at)) return vsstream::WriteIndexFile(vsstream::IndexPath(out), fill, true, why);
    at.key = vsstream::IndexPath(at.key);
    try {
        // Through the pipe of an upload, as a stream is: the index is never held whole.
        vsobj::ObjectWriter writer(ObjectStoreSettings(), at);
        vsstream::IndexEncoder encoder(writer.fd());
        std::string what;
        if (!fill(encoder, what) || !encoder.Finish(what)) {
            writer.Abort();
            why = "cannot write " + at.Url() + ": " + what;
            return false;
        }
        if (writer.Finish(what)) return true;
        why = "cannot store " + at.Url() + ": " + what;
    } catch (const std::exception& e) {
        why = "cannot store " + at.Url() + ": " + e.what();
    }
    return false;
}

void RemoveIndex(const std::string& out) {
    vsobj::S3Location at;
    if (IsObject(out, &at)) {
        at.key = vsstream::IndexPath(at.key);
        try {
            vsobj::S3Client(ObjectStoreSettings()).Delete(at);
        } catch (const std::exception&) {
            // None there, or the store is away: a reader then finds none, or one that does not match.
        }
        return;
    }
    if (out != "-") ::unlink(vsstream::IndexPath(out).c_str());
}

void RemoveStream(const std::string& path) {
    vsobj::S3Location at;
    if (IsObject(path, &at)) {
        try {
            vsobj::S3Client(ObjectStoreSettings()).Delete(at);
        } catch (const std::exception&) {
            // None there, or the store is away: the run's own upload fails then, and says so.
        }
        return;
    }
    // Anything but a regular file (a FIFO a consumer reads) is written to as a single run would.
    std::error_code ec;
    if (std::filesystem::is_regular_file(std::filesystem::symlink_status(path, ec))) std::filesystem::remove(path, ec);
}

}  // namespace vsdm
