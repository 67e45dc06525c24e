// Internal interfaces shared by the host's source files; not installed.
#pragma once

#include "hostapi/types.h"

#include <cstdarg>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace vshost::db {
class Connection;
}

namespace vshost::detail {

using SettingsSection = std::map<std::string, std::string>;
using SettingsMap = std::map<std::string, SettingsSection>;

// Everything the process knows about its home. Guarded by the lock of LockedState.
struct HomeState {
    std::string dir;  // empty when no home is open
    SettingsMap settings;
    int logFd = -1;
    bool autoOpenDone = false;  // $VSHOST_HOME is looked at once, and never after OpenHome
};

// Holds the process-wide lock for its life. Taking it performs the deferred opening of
// $VSHOST_HOME, so every service sees the same home whichever of them runs first.
class LockedState {
public:
    // `openEnvHome` false is for OpenHome and CloseHome, which decide the home themselves.
    explicit LockedState(bool openEnvHome = true);
    HomeState* operator->() { return m_state; }
    HomeState& operator*() { return *m_state; }

private:
    std::unique_lock<std::mutex> m_lock;
    HomeState* m_state;
};

// Home folder, or empty.
std::string Home();
// Value of a setting, when present.
std::optional<std::string> Setting(const std::string& section, const std::string& key);
// A non-negative whole number in C notation (decimal, 0x hex, 0 octal), surrounding
// blanks allowed; nothing else.
std::optional<unsigned long> ParseWholeNumber(const std::string& text);

// settings.ini reading and writing; parse errors name the file and the line.
SettingsMap ReadSettingsFile(const std::string& path);
void WriteSettingsFile(const std::string& path, const SettingsMap& settings);

// Inside a write transaction of the catalog: refuses (throws) when the catalog's stored
// passwords are under another key than this home's, else records this home's key as the
// catalog's. Only a fingerprint of the key is stored.
void CheckSecretKey(db::Connection& conn);

// Inside a write transaction of the catalog that records completed disks of job `jobId`:
// throws, so that nothing is recorded, when this process holds a lease on an item of that
// job (vshost/queue.h) that is no longer its own.
void CheckHeldLease(db::Connection& conn, int64_t jobId);

// Appends one line (newline added here) to the open home's log file, if any.
void AppendToLogFile(const std::string& line);
// Filters by level, formats and delivers one log line.
void EmitLog(const std::string& tag, KTJobID jobId, const std::string& debugKey, int level, const std::string& message);

// vsnprintf into a string of any length.
std::string VFormat(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

}  // namespace vshost::detail
