// Everything the VM-info library asks of the host it runs in, and nothing more: the
// datastore volume an archive file names, the credentials stored for a server, and a
// value of the host's settings. Files of a volume are opened through vshost/beneath.h
// and VMDK descriptors read through vshost/vmdk.h. A host other than this one that loads
// libVMInfo.so provides these few calls; the library reaches no other part of the host.
#pragma once

#include "hostapi/records.h"
#include "hostapi/types.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vshost::vminfohost {

// One datastore volume of a snapshot, as an archive file names it.
struct ArchiveVolume {
    uint64_t afileId = 0;
    std::string name;       // the archive file's name, reported as the volume's snapshot name
    std::string datastore;  // as "[datastore] path" disk names use it
    std::string folder;     // absolute, normalised
    int64_t snapJobId = 0;  // 0: the archive file holds no datastore snapshot
    unsigned snapEngineId = 0;
};

// The volume of archive file `afileId`; nullopt when the catalog has no such archive file.
// Throws std::runtime_error when the catalog cannot be read.
VS_HOST_API std::optional<ArchiveVolume> VolumeOfArchiveFile(uint64_t afileId);

// Whether the host has snapshot job `snapJobId` registered (vsdm snapshot add): a volume
// of a snapshot it does not know is not mounted. Throws std::runtime_error when the
// catalog cannot be read.
VS_HOST_API bool SnapshotRegistered(int64_t snapJobId);

// Every credential stored for `server`, passwords in their stored (encrypted) form.
// Throws std::runtime_error when the catalog cannot be read.
VS_HOST_API std::vector<SHostCredentials> StoredCredentials(const std::string& server);

// The value of `key` in settings section `section`; false when it is not set.
VS_HOST_API bool Setting(const std::string& section, const std::string& key, std::string& value);

}  // namespace vshost::vminfohost
