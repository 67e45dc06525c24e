// The host catalog (catalog.db of the home, SQLite, or a PostgreSQL database that
// several hosts share: [Catalog] sConnection): clients, applications and their
// credentials, archive files, copies. Later features add tables through the schema
// migrations.
#pragma once

#include "hostapi/records.h"
#include "hostapi/types.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vshost {

struct AppRecord {
    unsigned long appId1 = 0;
    unsigned long appId2 = 0;
    int instanceType = 0;
    std::string serverHostName;
    std::string snapMountEsxServer;
    bool indexingV2 = false;
    bool hasSettings = true;        // instance settings can be queried
    unsigned long parentAppId = 0;  // parent instance of a VM application
    unsigned long clientId = 0;
    unsigned long backupSetId = 0;
    bool backupSetSettings = true;  // backup-set settings can be queried
    bool proxyDetailsSet = false;
    int snapFailoverResult = 0;  // answer of the snap failover query (6 = failure)
    unsigned long hubcellId = 0;
    unsigned long subclientId = 0;
    std::string subclientGuid;
};

struct ArchiveFileRecord {
    uint64_t afileId = 0;
    unsigned long appId2 = 0;
    int64_t backupJobId = 0;
    std::string name;
    std::string volume;  // folder of the datastore volume: absolute, or under <home>/Snapshots
    unsigned int snapEngineId = 0;
    int64_t snapJobId = 0;  // the snapshot job that made the volume
    std::string datastore;  // datastore name, as "[datastore] path" names it
};

// A datastore snapshot registered in the home; its volumes are the archive files of its
// snapshot job.
struct SnapshotRecord {
    int64_t snapJobId = 0;
    unsigned int snapEngineId = 0;
    int64_t added = 0;  // when it was registered, seconds since 1970-01-01 UTC
};

// Access to the catalog of the open home: catalog.db in it, or the PostgreSQL database its
// setting [Catalog] sConnection names (a libpq connection string). Every call opens its
// own connection (PostgreSQL's come from a per-process pool), so objects are cheap and
// may be used from any thread. Failures throw std::runtime_error with the database's
// message.
class VS_HOST_API Catalog {
public:
    Catalog();  // throws when no home is open

    void AddClient(unsigned long id, const std::string& name);
    std::optional<unsigned long> ClientId(const std::string& name) const;
    std::optional<std::string> ClientName(unsigned long id) const;

    void AddApplication(const AppRecord& app);
    std::optional<AppRecord> Application(unsigned long appId1, unsigned long appId2) const;
    // The application whose second id is `appId2` (the one an archive file names), the
    // lowest first id first.
    std::optional<AppRecord> ApplicationWithId2(unsigned long appId2) const;

    // Appends a credential record to an application; the password is given in clear and
    // stored encrypted.
    void AddCredential(unsigned long appId1, unsigned long appId2, const SHostCredentials& clearCreds);
    // The application's credential records in the order they were added, passwords in
    // their stored (encrypted) form.
    std::vector<SHostCredentials> Credentials(unsigned long appId1, unsigned long appId2) const;
    // Every credential record stored for server `server` (any application), stored form.
    std::vector<SHostCredentials> CredentialsForServer(const std::string& server) const;

    void AddArchiveFile(const ArchiveFileRecord& afile);
    std::optional<ArchiveFileRecord> ArchiveFile(uint64_t afileId) const;
    // Every archive file made by snapshot job `snapJobId`, by id.
    std::vector<ArchiveFileRecord> ArchiveFilesOfSnapJob(int64_t snapJobId) const;

    // Registers a snapshot and its volumes in one transaction; returns the volumes as
    // recorded. A volume without an archive-file id is given one beyond every id in use.
    // Throws when the snapshot job is registered already or an id is taken.
    std::vector<ArchiveFileRecord> AddSnapshot(const SnapshotRecord& snapshot, std::vector<ArchiveFileRecord> volumes);
    std::optional<SnapshotRecord> Snapshot(int64_t snapJobId) const;
    std::vector<SnapshotRecord> Snapshots() const;
    // Forgets a snapshot and its archive files; false when it was not registered.
    bool RemoveSnapshot(int64_t snapJobId);
    // A job id for a job this home makes itself, beyond every job id the catalog has seen.
    int64_t NewJobId(int64_t snapJobId);

    void AddCopy(unsigned long archGroupId, unsigned long copyId, unsigned long precedence);
    std::optional<unsigned long> CopyPrecedence(unsigned long archGroupId, unsigned long copyId) const;
    // The copy of the lowest precedence: (archive group id, copy id).
    std::optional<std::pair<unsigned long, unsigned long>> FirstCopy() const;

    // Where the catalog is, for catalog/db.h: the SQLite file's absolute path, or the
    // connection string, which may carry a password and is never shown.
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

// Stored form of passwords: base64 of nonce and secretbox ciphertext under the key in
// keys/ of the open home (created on first use).
VS_HOST_API std::string EncryptSecret(const std::string& plain);
// False when `stored` is not a stored form made with this home's key.
VS_HOST_API bool DecryptSecret(const std::string& stored, std::string& plain);

}  // namespace vshost
