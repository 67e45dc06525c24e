// The VM-info library's view of the host: the catalog's archive files and credentials,
// and the settings, each through the one implementation the host has.
#include "vshost/vminfohost.h"

#include "vshost/catalog.h"
#include "vshost/home.h"

#include <filesystem>

namespace vshost::vminfohost {

std::optional<ArchiveVolume> VolumeOfArchiveFile(uint64_t afileId) {
    const auto rec = Catalog().ArchiveFile(afileId);
    if (!rec) return std::nullopt;
    namespace fs = std::filesystem;
    ArchiveVolume v;
    v.afileId = rec->afileId;
    v.name = rec->name;
    v.datastore = rec->datastore;
    // A relative volume lies in the home's snapshot folder.
    if (!rec->volume.empty())
        v.folder =
            (rec->volume.front() == '/' ? fs::path(rec->volume) : fs::path(HomeDir()) / "Snapshots" / rec->volume)
                .lexically_normal()
                .string();
    v.snapJobId = rec->snapJobId;
    v.snapEngineId = rec->snapEngineId;
    return v;
}

bool SnapshotRegistered(int64_t snapJobId) {
    return Catalog().Snapshot(snapJobId).has_value();
}

std::vector<SHostCredentials> StoredCredentials(const std::string& server) {
    return Catalog().CredentialsForServer(server);
}

bool Setting(const std::string& section, const std::string& key, std::string& value) {
    return settings::Get(section, key, value);
}

}  // namespace vshost::vminfohost
