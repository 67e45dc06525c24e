// The process's host home: opening, closing, the deferred $VSHOST_HOME and the log file.
#include "vshost/home.h"
#include "detail.h"
#include "hostapi/fileutil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace vshost {
namespace detail {
namespace {

std::mutex& StateMutex() {
    // Never destroyed: host services may still run from other static destructors.
    static auto* m = new std::mutex;
    return *m;
}

HomeState& State() {
    static auto* s = new HomeState;
    return *s;
}

void MakeFolder(const std::string& path, unsigned mode) {
    CQiError err = FXFolder::Create(path, mode);
    if (err.IsError()) throw std::runtime_error("cannot create host home folder: " + err.AsString());
}

// True when the settings put the catalog on a PostgreSQL server ([Catalog] sConnection).
bool NamesAnotherCatalog(const SettingsMap& settings) {
    const auto section = settings.find("Catalog");
    if (section == settings.end()) return false;
    const auto conn = section->second.find("sConnection");
    return conn != section->second.end() && !conn->second.empty();
}

// Builds the state of `dir` without touching the current one, so a failure leaves the
// previous home in place.
HomeState LoadHome(const std::string& dir) {
    if (dir.empty()) throw std::runtime_error("host home folder name is empty");
    HomeState st;
    st.dir = std::filesystem::absolute(dir).lexically_normal().string();
    if (st.dir.size() > 1 && st.dir.back() == '/') st.dir.pop_back();

    // Everything here is the owner's alone: the catalog holds stored credentials, the
    // logs and job results name servers, VMs and guest files.
    MakeFolder(st.dir, 0700);
    const std::string keys = st.dir + "/keys";
    MakeFolder(keys, 0700);
    // The key folder may predate us or the umask may have widened it; it holds secrets.
    struct stat sb {};
    if (stat(keys.c_str(), &sb) != 0 || ((sb.st_mode & 07777) != 0700 && chmod(keys.c_str(), 0700) != 0)) {
        CQiError err = CQiError::FromErrno("chmod " + keys);
        throw std::runtime_error("cannot restrict the key folder to its owner: " + err.AsString());
    }
    MakeFolder(st.dir + "/IndexCache", 0700);
    MakeFolder(st.dir + "/JobResults", 0700);
    MakeFolder(st.dir + "/Log Files", 0700);
    const std::string ini = st.dir + "/settings.ini";
    if (CQiPath::Exists(ini)) st.settings = ReadSettingsFile(ini);

    // SQLite would create the catalog with the umask's mode, and its journals follow it.
    // A home whose catalog is on PostgreSQL has no file of it.
    if (!NamesAnotherCatalog(st.settings)) {
        const std::string catalog = st.dir + "/catalog.db";
        const int db = open(catalog.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (db < 0) throw std::runtime_error("cannot create the catalog: " + CQiError::FromErrno(catalog).AsString());
        close(db);
    }

    const std::string log = st.dir + "/Log Files/vsreader.log";
    st.logFd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (st.logFd < 0) throw std::runtime_error("cannot open log file: " + CQiError::FromErrno(log).AsString());
    return st;
}

void Install(HomeState& current, HomeState&& next) {
    if (current.logFd >= 0) close(current.logFd);
    current = std::move(next);
    current.autoOpenDone = true;
}

}  // namespace

LockedState::LockedState(bool openEnvHome) : m_lock(StateMutex()), m_state(&State()) {
    if (!openEnvHome || m_state->autoOpenDone) return;
    m_state->autoOpenDone = true;
    const char* env = std::getenv("VSHOST_HOME");
    if (!env || !*env) return;
    try {
        Install(*m_state, LoadHome(env));
    } catch (const std::exception& e) {
        // No caller to report to: the service runs without a home, as documented.
        (void)std::fprintf(stderr, "vshost: cannot open VSHOST_HOME %s: %s\n", env, e.what());
    }
}

std::string Home() {
    LockedState st;
    return st->dir;
}

void AppendToLogFile(const std::string& line) {
    std::string out = line + "\n";
    LockedState st;
    if (st->logFd < 0) return;
    // One write per line: O_APPEND keeps lines of concurrent processes whole.
    ssize_t n;
    do {
        n = write(st->logFd, out.data(), out.size());
    } while (n < 0 && errno == EINTR);
}

}  // namespace detail

void OpenHome(const std::string& dir) {
    detail::HomeState next = detail::LoadHome(dir);
    detail::LockedState st(false);
    detail::Install(*st, std::move(next));
}

void CloseHome() {
    detail::LockedState st(false);
    detail::Install(*st, detail::HomeState{});
}

std::string HomeDir() {
    return detail::Home();
}

std::string LogFilePath() {
    std::string home = detail::Home();
    return home.empty() ? std::string() : home + "/Log Files/vsreader.log";
}

}  // namespace vshost
