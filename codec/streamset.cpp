// Stream-set manifests: JSON, small; reading them.
#include "vscodec/streamset.h"

#include <nlohmann/json.hpp>

#include <unistd.h>
#include <cerrno>
#include <cstring>

namespace vshost {
namespace {

// A manifest names at most a few dozen members; anything much larger is not one.
constexpr size_t kMaxManifestBytes = 1 << 20;

}  // namespace

std::string StreamSetMemberPath(const std::string& out, unsigned k) {
    return out + "." + std::to_string(k);
}

bool LooksLikeStreamSet(int fd) {
    char first = 0;
    return ::pread(fd, &first, 1, 0) == 1 && first == '{';
}

bool ReadStreamSet(int fd, StreamSet& set, std::string& why) {
    std::string text;
    char buf[4096];
    for (off_t at = 0;;) {
        const ssize_t n = ::pread(fd, buf, sizeof buf, at);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            why = std::string("cannot read the stream set: ") + std::strerror(errno);
            return false;
        }
        if (n == 0) break;
        text.append(buf, static_cast<size_t>(n));
        at += n;
        if (text.size() > kMaxManifestBytes) {
            why = "not a stream set: larger than any manifest";
            return false;
        }
    }
    const nlohmann::json doc = nlohmann::json::parse(text, nullptr, false);
    if (doc.is_discarded() || !doc.is_object() || doc.value("format", std::string()) != kStreamSetFormat) {
        why = "neither a stream nor a stream set";
        return false;
    }
    if (!doc.contains("version") || !doc["version"].is_number_integer() ||
        doc["version"].get<int>() != kStreamSetVersion) {
        why = "stream set of a version this tool does not know";
        return false;
    }
    if (!doc.contains("jobId") || !doc["jobId"].is_number_integer()) {
        why = "stream set without a job id";
        return false;
    }
    if (!doc.contains("streams") || !doc["streams"].is_array() || doc["streams"].empty()) {
        why = "stream set without streams";
        return false;
    }
    StreamSet out;
    out.jobId = doc["jobId"].get<int64_t>();
    for (const auto& m : doc["streams"]) {
        // Members lie beside the manifest; a name that leads elsewhere is refused.
        if (!m.is_string() || m.get<std::string>().empty() || m.get<std::string>().find('/') != std::string::npos ||
            m.get<std::string>() == "." || m.get<std::string>() == "..") {
            why = "stream set with a member name that is not a file name beside it";
            return false;
        }
        out.members.push_back(m.get<std::string>());
    }
    set = std::move(out);
    return true;
}

}  // namespace vshost
