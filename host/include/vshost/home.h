// Configuration of the reference host: its home directory, settings store and log
// capture. Programs open a home once; tests open a temporary one per test.
//
// Home layout:
//   settings.ini   sections and keys, e.g. [VirtualServer] nEnableVMWareSnapBlocklevelBrowse=1
//   catalog.db     SQLite catalog (see catalog.h)
//   keys/          secret key for stored passwords (mode 0700, key file 0600)
//   IndexCache/    the index server's remote cache
//   JobResults/    job results directory of this machine
//   Log Files/     vsreader.log
#pragma once

#include "hostapi/types.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vshost {

// Opens `dir` as this process's host home, creating it and its folders as needed and
// loading settings.ini. Replaces a home opened earlier. Throws std::runtime_error with a
// readable reason when the folder cannot be made or settings.ini cannot be parsed.
VS_HOST_API void OpenHome(const std::string& dir);
// Forgets the open home (settings, catalog, log file). Safe to call when none is open.
VS_HOST_API void CloseHome();
// The open home, or empty. When none was opened, the first use of a host service opens
// $VSHOST_HOME if that is set.
VS_HOST_API std::string HomeDir();

// The settings store: settings.ini of the home, plus values set in-process.
namespace settings {
// True and the value when the key is present.
VS_HOST_API bool Get(const std::string& section, const std::string& key, std::string& value);
// Sets a value in-process (not written to disk until Save).
VS_HOST_API void Set(const std::string& section, const std::string& key, const std::string& value);
VS_HOST_API void Erase(const std::string& section, const std::string& key);
// Writes every value to settings.ini of the open home.
VS_HOST_API void Save();
}  // namespace settings

// While an object of this class lives, every host log line is also kept in memory.
// A capture that lives through a long job bounds itself: it keeps only the lines `keep`
// accepts, at most `maxLines` of them (the first ones), and always the latest line seen.
class VS_HOST_API LogCapture {
public:
    using Filter = bool (*)(std::string_view line);
    explicit LogCapture(Filter keep = nullptr, std::size_t maxLines = static_cast<std::size_t>(-1));
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> Lines() const;
    // Number of captured lines that contain `text`.
    std::size_t Count(std::string_view text) const;
    bool Contains(std::string_view text) const { return Count(text) > 0; }
    // The latest line logged since the capture began or was cleared, kept or not.
    std::string Last() const;
    void Clear();
};

// Path of the log file of the open home ("<home>/Log Files/vsreader.log"), or empty.
VS_HOST_API std::string LogFilePath();

}  // namespace vshost
