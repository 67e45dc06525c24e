// The host catalog: catalog.db of the open home, or the PostgreSQL catalog its settings
// name.
#include "vshost/catalog.h"
#include "catalog/db.h"
#include "detail.h"
#include "vshost/home.h"

#include <ctime>
#include <stdexcept>

namespace vshost {
namespace {

int64_t Id(unsigned long v) {
    return static_cast<int64_t>(v);
}
unsigned long ULong(int64_t v) {
    return static_cast<unsigned long>(v);
}

SHostCredentials CredentialFrom(const db::Statement& q) {
    SHostCredentials c;
    c.sHost = q.Text(0);
    c.sServer = q.Text(1);
    c.sUser = q.Text(2);
    c.sPassword = q.Text(3);
    c.nType = static_cast<int32_t>(q.Int(4));
    return c;
}

}  // namespace

Catalog::Catalog() {
    std::string home = detail::Home();
    if (home.empty()) throw std::runtime_error("catalog: no host home is open");
    std::string connection;
    if (settings::Get("Catalog", "sConnection", connection) &&
        connection.find_first_not_of(" \t") != std::string::npos) {
        connection.erase(0, connection.find_first_not_of(" \t"));
        connection.erase(connection.find_last_not_of(" \t") + 1);
        // An absolute path would open as a SQLite file: say so rather than guess. A SQLite
        // file that the homes of one machine share is named as such, "file:/path".
        if (connection[0] == '/')
            throw std::runtime_error(
                "catalog: [Catalog] sConnection must be a PostgreSQL connection string "
                "(host=... dbname=...) or file:/PATH of a SQLite catalog, not a path");
        if (connection.rfind("file:", 0) == 0) {
            connection.erase(0, 5);
            if (connection.empty() || connection[0] != '/')
                throw std::runtime_error("catalog: [Catalog] sConnection=file: needs an absolute path");
        }
        m_path = connection;
    } else {
        m_path = home + "/catalog.db";
    }
    db::Connection conn(m_path);
    db::Migrate(conn);
}

// A duplicate id or name is an error: silently replacing a client would re-point
// another client's name.
void Catalog::AddClient(unsigned long id, const std::string& name) {
    db::Connection conn(m_path);
    db::Statement(conn, "INSERT INTO clients (id, name) VALUES (?1, ?2)").Bind(1, Id(id)).Bind(2, name).Run();
}

std::optional<unsigned long> Catalog::ClientId(const std::string& name) const {
    db::Connection conn(m_path);
    // The column's NOCASE collation makes the comparison case-insensitive.
    db::Statement q(conn, "SELECT id FROM clients WHERE name = ?1");
    q.Bind(1, name);
    if (!q.Step()) return std::nullopt;
    return ULong(q.Int(0));
}

std::optional<std::string> Catalog::ClientName(unsigned long id) const {
    db::Connection conn(m_path);
    db::Statement q(conn, "SELECT name FROM clients WHERE id = ?1");
    q.Bind(1, Id(id));
    if (!q.Step()) return std::nullopt;
    return q.Text(0);
}

void Catalog::AddApplication(const AppRecord& app) {
    db::Connection conn(m_path);
    db::Statement(conn,
                  "INSERT INTO applications (app_id1, app_id2, instance_type, server_host, "
                  "snap_mount_esx, indexing_v2, has_settings, parent_app_id, client_id, backup_set_id, "
                  "backup_set_settings, proxy_details_set, snap_failover_rc, hubcell_id, subclient_id, "
                  "subclient_guid) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15, ?16) "
                  "ON CONFLICT (app_id1, app_id2) DO UPDATE SET instance_type = excluded.instance_type, "
                  "server_host = excluded.server_host, snap_mount_esx = excluded.snap_mount_esx, "
                  "indexing_v2 = excluded.indexing_v2, has_settings = excluded.has_settings, "
                  "parent_app_id = excluded.parent_app_id, client_id = excluded.client_id, "
                  "backup_set_id = excluded.backup_set_id, backup_set_settings = excluded.backup_set_settings, "
                  "proxy_details_set = excluded.proxy_details_set, snap_failover_rc = excluded.snap_failover_rc, "
                  "hubcell_id = excluded.hubcell_id, subclient_id = excluded.subclient_id, "
                  "subclient_guid = excluded.subclient_guid")
        .Bind(1, Id(app.appId1))
        .Bind(2, Id(app.appId2))
        .Bind(3, app.instanceType)
        .Bind(4, app.serverHostName)
        .Bind(5, app.snapMountEsxServer)
        .Bind(6, app.indexingV2 ? 1 : 0)
        .Bind(7, app.hasSettings ? 1 : 0)
        .Bind(8, Id(app.parentAppId))
        .Bind(9, Id(app.clientId))
        .Bind(10, Id(app.backupSetId))
        .Bind(11, app.backupSetSettings ? 1 : 0)
        .Bind(12, app.proxyDetailsSet ? 1 : 0)
        .Bind(13, app.snapFailoverResult)
        .Bind(14, Id(app.hubcellId))
        .Bind(15, Id(app.subclientId))
        .Bind(16, app.subclientGuid)
        .Run();
}

std::optional<AppRecord> Catalog::Application(unsigned long appId1, unsigned long appId2) const {
    db::Connection conn(m_path);
    db::Statement q(conn,
                    "SELECT instance_type, server_host, snap_mount_esx, indexing_v2, has_settings, parent_app_id, "
                    "client_id, backup_set_id, backup_set_settings, proxy_details_set, snap_failover_rc, "
                    "hubcell_id, subclient_id, subclient_guid FROM applications "
                    "WHERE app_id1 = ?1 AND app_id2 = ?2");
    q.Bind(1, Id(appId1)).Bind(2, Id(appId2));
    if (!q.Step()) return std::nullopt;
    AppRecord app;
    app.appId1 = appId1;
    app.appId2 = appId2;
    app.instanceType = static_cast<int>(q.Int(0));
    app.serverHostName = q.Text(1);
    app.snapMountEsxServer = q.Text(2);
    app.indexingV2 = q.Int(3) != 0;
    app.hasSettings = q.Int(4) != 0;
    app.parentAppId = ULong(q.Int(5));
    app.clientId = ULong(q.Int(6));
    app.backupSetId = ULong(q.Int(7));
    app.backupSetSettings = q.Int(8) != 0;
    app.proxyDetailsSet = q.Int(9) != 0;
    app.snapFailoverResult = static_cast<int>(q.Int(10));
    app.hubcellId = ULong(q.Int(11));
    app.subclientId = ULong(q.Int(12));
    app.subclientGuid = q.Text(13);
    return app;
}

std::optional<AppRecord> Catalog::ApplicationWithId2(unsigned long appId2) const {
    db::Connection conn(m_path);
    db::Statement q(conn, "SELECT MIN(app_id1) FROM applications WHERE app_id2 = ?1 HAVING COUNT(*) > 0");
    q.Bind(1, Id(appId2));
    if (!q.Step()) return std::nullopt;
    return Application(ULong(q.Int(0)), appId2);
}

void Catalog::AddCredential(unsigned long appId1, unsigned long appId2, const SHostCredentials& clearCreds) {
    const std::string stored = EncryptSecret(clearCreds.sPassword);
    db::Connection conn(m_path);
    // In a write transaction, so concurrent writers (other hosts too) cannot both take
    // the same sequence number.
    db::InTransaction(conn, [&] {
        detail::CheckSecretKey(conn);
        db::Statement(conn,
                      "INSERT INTO app_credentials (app_id1, app_id2, seq, host, server, \"user\", password_enc, "
                      "type) SELECT ?1, ?2, COALESCE(MAX(seq), 0) + 1, ?3, ?4, ?5, ?6, ?7 FROM app_credentials "
                      "WHERE app_id1 = ?1 AND app_id2 = ?2")
            .Bind(1, Id(appId1))
            .Bind(2, Id(appId2))
            .Bind(3, clearCreds.sHost)
            .Bind(4, clearCreds.sServer)
            .Bind(5, clearCreds.sUser)
            .Bind(6, stored)
            .Bind(7, clearCreds.nType)
            .Run();
    });
}

std::vector<SHostCredentials> Catalog::Credentials(unsigned long appId1, unsigned long appId2) const {
    db::Connection conn(m_path);
    db::Statement q(conn,
                    "SELECT host, server, \"user\", password_enc, type FROM app_credentials "
                    "WHERE app_id1 = ?1 AND app_id2 = ?2 ORDER BY seq");
    q.Bind(1, Id(appId1)).Bind(2, Id(appId2));
    std::vector<SHostCredentials> out;
    while (q.Step()) out.push_back(CredentialFrom(q));
    return out;
}

std::vector<SHostCredentials> Catalog::CredentialsForServer(const std::string& server) const {
    db::Connection conn(m_path);
    // Host names are case-insensitive.
    db::Statement q(conn,
                    "SELECT host, server, \"user\", password_enc, type FROM app_credentials "
                    "WHERE server = ?1 COLLATE NOCASE ORDER BY app_id1, app_id2, seq");
    q.Bind(1, server);
    std::vector<SHostCredentials> out;
    while (q.Step()) out.push_back(CredentialFrom(q));
    return out;
}

namespace {

// Writes the row of `afile`; `then` follows the values (a conflict clause, or nothing).
void InsertArchiveFile(db::Connection& conn, const ArchiveFileRecord& afile, const char* then) {
    db::Statement(conn,
                  (std::string("INSERT INTO archive_files (afile_id, app_id2, backup_job_id, name, volume, "
                               "snap_engine_id, snap_job_id, datastore) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)") +
                   then)
                      .c_str())
        .Bind(1, static_cast<int64_t>(afile.afileId))
        .Bind(2, Id(afile.appId2))
        .Bind(3, afile.backupJobId)
        .Bind(4, afile.name)
        .Bind(5, afile.volume)
        .Bind(6, static_cast<int64_t>(afile.snapEngineId))
        .Bind(7, afile.snapJobId)
        .Bind(8, afile.datastore)
        .Run();
}

}  // namespace

void Catalog::AddArchiveFile(const ArchiveFileRecord& afile) {
    db::Connection conn(m_path);
    InsertArchiveFile(conn, afile,
                      " ON CONFLICT (afile_id) DO UPDATE SET app_id2 = excluded.app_id2, backup_job_id = "
                      "excluded.backup_job_id, name = excluded.name, volume = excluded.volume, snap_engine_id = "
                      "excluded.snap_engine_id, snap_job_id = excluded.snap_job_id, datastore = excluded.datastore");
}

namespace {

ArchiveFileRecord ArchiveFileRow(db::Statement& q) {
    ArchiveFileRecord rec;
    rec.afileId = static_cast<uint64_t>(q.Int(0));
    rec.appId2 = ULong(q.Int(1));
    rec.backupJobId = q.Int(2);
    rec.name = q.Text(3);
    rec.volume = q.Text(4);
    rec.snapEngineId = static_cast<unsigned int>(q.Int(5));
    rec.snapJobId = q.Int(6);
    rec.datastore = q.Text(7);
    return rec;
}

constexpr const char* kArchiveFileColumns =
    "SELECT afile_id, app_id2, backup_job_id, name, volume, snap_engine_id, snap_job_id, datastore FROM archive_files ";

}  // namespace

std::optional<ArchiveFileRecord> Catalog::ArchiveFile(uint64_t afileId) const {
    db::Connection conn(m_path);
    db::Statement q(conn, (std::string(kArchiveFileColumns) + "WHERE afile_id = ?1").c_str());
    q.Bind(1, static_cast<int64_t>(afileId));
    if (!q.Step()) return std::nullopt;
    return ArchiveFileRow(q);
}

std::vector<ArchiveFileRecord> Catalog::ArchiveFilesOfSnapJob(int64_t snapJobId) const {
    db::Connection conn(m_path);
    db::Statement q(conn, (std::string(kArchiveFileColumns) + "WHERE snap_job_id = ?1 ORDER BY afile_id").c_str());
    q.Bind(1, snapJobId);
    std::vector<ArchiveFileRecord> out;
    while (q.Step()) out.push_back(ArchiveFileRow(q));
    return out;
}

std::vector<ArchiveFileRecord> Catalog::AddSnapshot(const SnapshotRecord& snapshot,
                                                    std::vector<ArchiveFileRecord> volumes) {
    db::Connection conn(m_path);
    db::InTransaction(conn, [&] {
        db::Statement known(conn, "SELECT 1 FROM snapshots WHERE snap_job_id = ?1");
        known.Bind(1, snapshot.snapJobId);
        if (known.Step())
            throw std::runtime_error("snapshot " + std::to_string(snapshot.snapJobId) + " is registered already");
        db::Statement(conn, "INSERT INTO snapshots (snap_job_id, snap_engine_id, added) VALUES (?1, ?2, ?3)")
            .Bind(1, snapshot.snapJobId)
            .Bind(2, static_cast<int64_t>(snapshot.snapEngineId))
            .Bind(3, snapshot.added)
            .Run();
        db::Statement next(conn, "SELECT COALESCE(MAX(afile_id), 0) + 1 FROM archive_files");
        int64_t id = next.Step() ? next.Int(0) : 1;
        for (ArchiveFileRecord& v : volumes) {
            if (v.afileId == 0) v.afileId = static_cast<uint64_t>(id++);
            v.snapJobId = snapshot.snapJobId;
            v.snapEngineId = snapshot.snapEngineId;
            // A given id must be free: a volume never takes over another's archive file.
            InsertArchiveFile(conn, v, "");
        }
    });
    return volumes;
}

namespace {

SnapshotRecord SnapshotRow(db::Statement& q) {
    SnapshotRecord s;
    s.snapJobId = q.Int(0);
    s.snapEngineId = static_cast<unsigned int>(q.Int(1));
    s.added = q.Int(2);
    return s;
}

}  // namespace

std::optional<SnapshotRecord> Catalog::Snapshot(int64_t snapJobId) const {
    db::Connection conn(m_path);
    db::Statement q(conn, "SELECT snap_job_id, snap_engine_id, added FROM snapshots WHERE snap_job_id = ?1");
    q.Bind(1, snapJobId);
    if (!q.Step()) return std::nullopt;
    return SnapshotRow(q);
}

std::vector<SnapshotRecord> Catalog::Snapshots() const {
    db::Connection conn(m_path);
    db::Statement q(conn, "SELECT snap_job_id, snap_engine_id, added FROM snapshots ORDER BY snap_job_id");
    std::vector<SnapshotRecord> out;
    while (q.Step()) out.push_back(SnapshotRow(q));
    return out;
}

bool Catalog::RemoveSnapshot(int64_t snapJobId) {
    db::Connection conn(m_path);
    bool found = false;
    db::InTransaction(conn, [&] {
        db::Statement known(conn, "SELECT 1 FROM snapshots WHERE snap_job_id = ?1");
        known.Bind(1, snapJobId);
        found = known.Step();
        db::Statement(conn, "DELETE FROM snapshots WHERE snap_job_id = ?1").Bind(1, snapJobId).Run();
        db::Statement(conn, "DELETE FROM archive_files WHERE snap_job_id = ?1").Bind(1, snapJobId).Run();
    });
    return found;
}

int64_t Catalog::NewJobId(int64_t snapJobId) {
    db::Connection conn(m_path);
    int64_t id = 0;
    db::InTransaction(conn, [&] {
        // Each inner MAX reads one end of a primary key.
        db::Statement next(conn,
                           "SELECT MAX(m) + 1 FROM (SELECT COALESCE(MAX(job_id), 0) AS m FROM home_jobs "
                           "UNION ALL SELECT COALESCE(MAX(job_id), 0) FROM job_disks "
                           "UNION ALL SELECT COALESCE(MAX(job_id), 0) FROM pending_causes) AS ends");
        id = next.Step() ? next.Int(0) : 1;
        db::Statement(conn, "INSERT INTO home_jobs (job_id, snap_job_id, created) VALUES (?1, ?2, ?3)")
            .Bind(1, id)
            .Bind(2, snapJobId)
            .Bind(3, static_cast<int64_t>(std::time(nullptr)))
            .Run();
    });
    return id;
}

void Catalog::AddCopy(unsigned long archGroupId, unsigned long copyId, unsigned long precedence) {
    db::Connection conn(m_path);
    db::Statement(conn,
                  "INSERT INTO copies (arch_group_id, copy_id, precedence) VALUES (?1, ?2, ?3) "
                  "ON CONFLICT (arch_group_id, copy_id) DO UPDATE SET precedence = excluded.precedence")
        .Bind(1, Id(archGroupId))
        .Bind(2, Id(copyId))
        .Bind(3, Id(precedence))
        .Run();
}

std::optional<unsigned long> Catalog::CopyPrecedence(unsigned long archGroupId, unsigned long copyId) const {
    db::Connection conn(m_path);
    db::Statement q(conn, "SELECT precedence FROM copies WHERE arch_group_id = ?1 AND copy_id = ?2");
    q.Bind(1, Id(archGroupId)).Bind(2, Id(copyId));
    if (!q.Step()) return std::nullopt;
    return ULong(q.Int(0));
}

std::optional<std::pair<unsigned long, unsigned long>> Catalog::FirstCopy() const {
    db::Connection conn(m_path);
    db::Statement q(conn,
                    "SELECT arch_group_id, copy_id FROM copies ORDER BY precedence, arch_group_id, copy_id LIMIT 1");
    if (!q.Step()) return std::nullopt;
    return std::make_pair(ULong(q.Int(0)), ULong(q.Int(1)));
}

}  // namespace vshost
