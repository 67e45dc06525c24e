// Stream-set manifests are written atomically, so that a reader never sees half of one.
#include "vshost/streamset.h"

#include "files/atomicfile.h"

#include <nlohmann/json.hpp>

namespace vshost {

std::string StreamSetText(const StreamSet& set) {
    const nlohmann::json doc = {
        {"format", kStreamSetFormat}, {"version", kStreamSetVersion}, {"jobId", set.jobId}, {"streams", set.members}};
    return doc.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

bool WriteStreamSet(const std::string& path, const StreamSet& set, std::string& why) {
    const std::string text = StreamSetText(set);
    detail::AtomicFile file(path, 0644);
    if (file.Ok() && file.Write(text.data(), text.size()) && file.Commit()) return true;
    why = "cannot write the stream set " + path + ": " + file.Error();
    return false;
}

}  // namespace vshost
