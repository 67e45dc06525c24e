// The nbdkit plug-in behind `vsstream serve`: one disk of a full backup and its
// incrementals, read through the streams' indexes (the newest extent wins), exported
// read-only. Block status reports the extents no stream holds data for as holes.
#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>

#include "objectbytes.h"
#include "streamindex.h"

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

// Each connection reads through a disk of its own (its own extent buffer and
// descriptors), one request at a time.
#define THREAD_MODEL NBDKIT_THREAD_MODEL_SERIALIZE_REQUESTS

namespace {

std::vector<std::string> g_streams;
std::string g_disk;

int Config(const char* key, const char* value) {
    const std::string k = key;
    if (k == "stream") {
        g_streams.emplace_back(value);
    } else if (k == "disk") {
        g_disk = value;
    } else {
        nbdkit_error("unknown parameter %s (stream=FILE ... disk=NAME)", key);
        return -1;
    }
    return 0;
}

int ConfigComplete() {
    if (g_streams.empty() || g_disk.empty()) {
        nbdkit_error("stream=FILE (oldest first, repeated) and disk=NAME are needed");
        return -1;
    }
    vsstream::ReadObjects();
    vsstream::ChainDisk probe;
    std::string why;
    if (!probe.Open(g_streams, g_disk, why)) {
        nbdkit_error("%s", why.c_str());
        return -1;
    }
    return 0;
}

void* OpenDisk(int) {
    auto disk = std::make_unique<vsstream::ChainDisk>();
    std::string why;
    if (!disk->Open(g_streams, g_disk, why)) {
        nbdkit_error("%s", why.c_str());
        return nullptr;
    }
    return disk.release();
}

void CloseDisk(void* handle) {
    delete static_cast<vsstream::ChainDisk*>(handle);
}

int64_t GetSize(void* handle) {
    return static_cast<int64_t>(static_cast<vsstream::ChainDisk*>(handle)->size());
}

int Pread(void* handle, void* buf, uint32_t count, uint64_t offset, uint32_t) {
    std::string why;
    if (static_cast<vsstream::ChainDisk*>(handle)->Read(static_cast<char*>(buf), count, offset, why)) return 0;
    nbdkit_error("%s", why.c_str());
    nbdkit_set_error(EIO);
    return -1;
}

int No(void*) {
    return 0;
}
int Yes(void*) {
    return 1;
}

int Extents(void* handle, uint32_t count, uint64_t offset, uint32_t, nbdkit_extents* extents) {
    const auto* disk = static_cast<vsstream::ChainDisk*>(handle);
    const uint64_t step = disk->extentSize();
    const uint64_t end = std::min(disk->size(), offset + count);
    for (uint64_t at = offset; at < end;) {
        const uint64_t next = std::min(end, (at / step + 1) * step);
        const uint32_t type = disk->IsHole(at) ? NBDKIT_EXTENT_HOLE | NBDKIT_EXTENT_ZERO : 0;
        if (nbdkit_add_extent(extents, at, next - at, type) != 0) return -1;
        at = next;
    }
    return 0;
}

nbdkit_plugin MakePlugin() {
    nbdkit_plugin p{};
    p.name = "vsstream";
    p.longname = "vsstream: a disk of a backup stream chain, read through its index";
    p.description = "Exports one disk of a full backup stream and its incrementals read-only.";
    p.config = Config;
    p.config_complete = ConfigComplete;
    p.config_help =
        "stream=FILE   a stream with its index (a file, or s3://BUCKET/KEY), oldest first (repeat)\n"
        "disk=NAME     the disk to export";
    p.open = OpenDisk;
    p.close = CloseDisk;
    p.get_size = GetSize;
    p.pread = Pread;
    p.can_write = No;
    p.can_multi_conn = Yes;
    p.can_extents = Yes;
    p.extents = Extents;
    p.can_cache = No;
    return p;
}

nbdkit_plugin plugin = MakePlugin();

}  // namespace

NBDKIT_REGISTER_PLUGIN(plugin)
