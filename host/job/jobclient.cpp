// Job clients over the catalog: every pending cause raised is a row of pending_causes,
// numbered per job.
#include "hostapi/jobclient.h"
#include "catalog/db.h"
#include "detail.h"
#include "hostapi/platform.h"
#include "vshost/catalog.h"
#include "vshost/pending.h"

#include <nlohmann/json.hpp>

#include <strings.h>
#include <exception>
#include <stdexcept>

namespace {

// The central server this home belongs to. It defaults to this machine, as does the hub
// server name, so a plain home accepts its own hub server.
std::string CentralServerName() {
    if (auto name = vshost::detail::Setting("Host", "sCatalogServerName")) return *name;
    return KTPlatformInfo().getPhysicalMachine();
}

std::string ArgumentsJson(const std::vector<std::string>& args) {
    // Names from the VM-info library need not be UTF-8; a replaced byte beats losing the
    // whole cause.
    return nlohmann::json(args).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

EvEvent& EvEvent::operator<<(const char* argument) {
    try {
        m_eventArgs.emplace_back(argument ? argument : "");
    } catch (const std::exception& e) {
        KTlog(nullptr, KTLOG_ALWAYS, "EvEvent: event argument dropped: %s", e.what());
    }
    return *this;
}

int KTJobClient::setPendingCauseAndEvent(int causeId, int arg2, int arg3, bool flag1, EvMessageType messageType,
                                         bool flag2, JMGUIAlertColorLevel alertLevel, JMPendingCauseFlags flags,
                                         unsigned int value1, unsigned int value2) {
    int rc = 0;
    try {
        const std::string args = ArgumentsJson(EventArguments());
        vshost::Catalog catalog;
        vshost::db::Connection conn(catalog.Path());
        // The write transaction is taken before the number is read, so two processes (or
        // hosts) raising causes on one job never pick the same one.
        vshost::db::InTransaction(conn, [&] {
            vshost::db::Statement next(conn, "SELECT COALESCE(MAX(seq), 0) + 1 FROM pending_causes WHERE job_id = ?1");
            next.Bind(1, static_cast<int64_t>(m_jobId));
            const int64_t seq = next.Step() ? next.Int(0) : 1;
            vshost::db::Statement(conn,
                                  "INSERT INTO pending_causes (job_id, seq, cause_id, event_args, arg2, arg3, flag1, "
                                  "message_type, flag2, alert_level, flags, value1, value2, client_ready) "
                                  "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14)")
                .Bind(1, static_cast<int64_t>(m_jobId))
                .Bind(2, seq)
                .Bind(3, causeId)
                .Bind(4, args)
                .Bind(5, arg2)
                .Bind(6, arg3)
                .Bind(7, flag1 ? 1 : 0)
                .Bind(8, messageType)
                .Bind(9, flag2 ? 1 : 0)
                .Bind(10, alertLevel)
                .Bind(11, static_cast<int64_t>(flags))
                .Bind(12, static_cast<int64_t>(value1))
                .Bind(13, static_cast<int64_t>(value2))
                .Bind(14, m_bReady ? 1 : 0)
                .Run();
        });
    } catch (const std::exception& e) {
        KTlog(nullptr, KTLOG_ALWAYS,
              "KTJobClient::setPendingCauseAndEvent: cause [0x%X] of job [%lld] not recorded: %s",
              static_cast<unsigned>(causeId), m_jobId, e.what());
        rc = -1;
    } catch (...) {
        KTlog(nullptr, KTLOG_ALWAYS, "KTJobClient::setPendingCauseAndEvent: cause [0x%X] of job [%lld] not recorded",
              static_cast<unsigned>(causeId), m_jobId);
        rc = -1;
    }
    // The arguments belong to this cause whether or not it was recorded.
    ClearEventArguments();
    return rc;
}

bool KTRstJobClient::init(const char* serverHostName, long long jobId, KTS_PLATFORMTYPE, bool, const char*) {
    m_jobId = jobId;
    m_bReady = false;
    try {
        const std::string central = CentralServerName();
        const char* server = serverHostName ? serverHostName : "";
        m_bReady = !central.empty() && strcasecmp(server, central.c_str()) == 0;
        if (!m_bReady)
            KTlog(nullptr, 1, "KTRstJobClient::init: [%s] is not the central server [%s] of this host", server,
                  central.c_str());
    } catch (const std::exception& e) {
        KTlog(nullptr, KTLOG_ALWAYS, "KTRstJobClient::init: %s", e.what());
    }
    return m_bReady;
}

namespace vshost {

std::vector<PendingCause> PendingCauses(KTJobID jobId) {
    Catalog catalog;
    db::Connection conn(catalog.Path());
    db::Statement q(conn,
                    "SELECT job_id, seq, cause_id, event_args, arg2, arg3, flag1, message_type, flag2, alert_level, "
                    "flags, value1, value2, client_ready FROM pending_causes WHERE job_id = ?1 ORDER BY seq");
    q.Bind(1, static_cast<int64_t>(jobId));
    std::vector<PendingCause> causes;
    while (q.Step()) {
        PendingCause c;
        c.jobId = q.Int(0);
        c.seq = static_cast<int>(q.Int(1));
        c.causeId = static_cast<int>(q.Int(2));
        try {
            c.eventArgs = nlohmann::json::parse(q.Text(3)).get<std::vector<std::string>>();
        } catch (const nlohmann::json::exception& e) {
            throw std::runtime_error("catalog: pending cause " + std::to_string(c.seq) + " of job " +
                                     std::to_string(jobId) + " has malformed event arguments: " + e.what());
        }
        c.arg2 = static_cast<int>(q.Int(4));
        c.arg3 = static_cast<int>(q.Int(5));
        c.flag1 = q.Int(6) != 0;
        c.messageType = static_cast<int>(q.Int(7));
        c.flag2 = q.Int(8) != 0;
        c.alertLevel = static_cast<int>(q.Int(9));
        c.flags = static_cast<unsigned>(q.Int(10));
        c.value1 = static_cast<unsigned>(q.Int(11));
        c.value2 = static_cast<unsigned>(q.Int(12));
        c.clientReady = q.Int(13) != 0;
        causes.push_back(std::move(c));
    }
    return causes;
}

}  // namespace vshost
