// A host home in a fresh temporary folder, opened for the life of the object.
#pragma once

#include "vshost/home.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace vstest {

// Plain passwords this test hands to the system. Before a home is removed, every file
// in it (logs, catalog, settings, job results, streams, restores) is searched for them:
// a password may only ever be kept in its stored form.
inline std::set<std::string>& PlainSecrets() {
    static std::set<std::string> secrets;
    return secrets;
}
inline std::string Secret(const std::string& plain) {
    PlainSecrets().insert(plain);
    return plain;
}

// The files under `dir` that hold one of the plain passwords, with the password.
inline std::vector<std::string> FilesHoldingSecrets(const std::string& dir) {
    std::vector<std::string> found;
    if (PlainSecrets().empty()) return found;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(dir, ec);
         !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
        // Disk images of many GiB (mostly holes) hold no password a test gave: passed over.
        if (!it->is_regular_file(ec) || it->is_symlink(ec) || it->file_size(ec) > (1ull << 30)) continue;
        std::ifstream in(it->path(), std::ios::binary);
        // In pieces, each searched with the end of the one before, so that memory stays small.
        std::string window, piece(1u << 20, '\0');
        std::set<std::string> hits;
        while (in.read(piece.data(), static_cast<std::streamsize>(piece.size())) || in.gcount() > 0) {
            window.append(piece.data(), static_cast<size_t>(in.gcount()));
            for (const std::string& secret : PlainSecrets())
                if (window.find(secret) != std::string::npos) hits.insert(secret);
            window.erase(0, window.size() > 4096 ? window.size() - 4096 : 0);
        }
        for (const std::string& secret : hits) found.push_back(it->path().string() + ": " + secret);
    }
    return found;
}

inline std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Its folder made first when missing.
inline void WriteFile(const std::string& path, const std::string& bytes) {
    if (const auto dir = std::filesystem::path(path).parent_path(); !dir.empty())
        std::filesystem::create_directories(dir);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// Every entry under `dir` (links not followed) with its size and its change and
// modification times: what a folder that must stay as it was is compared by.
inline std::map<std::string, std::string> FileStates(const std::string& dir) {
    std::map<std::string, std::string> out;
    for (const auto& e : std::filesystem::recursive_directory_iterator(dir)) {
        struct stat st {};
        ::lstat(e.path().c_str(), &st);
        out[e.path().string()] = std::to_string(st.st_size) + " " + std::to_string(st.st_ctim.tv_sec) + "." +
                                 std::to_string(st.st_ctim.tv_nsec) + " " + std::to_string(st.st_mtim.tv_sec) + "." +
                                 std::to_string(st.st_mtim.tv_nsec);
    }
    return out;
}

class TempHome {
public:
    // `catalogConnection`, when given, puts the home's catalog on that PostgreSQL
    // database ([Catalog] sConnection, set in-process; settings::Save writes it out).
    explicit TempHome(const std::string& catalogConnection = "") {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/vshome-XXXXXX";
        if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
        m_path = pattern;
        vshost::OpenHome(m_path);
        if (catalogConnection.empty()) return;
        vshost::settings::Set("Catalog", "sConnection", catalogConnection);
        // Made by OpenHome before the setting was there; its absence shows nothing went to it.
        std::filesystem::remove(sub("catalog.db"));
    }
    ~TempHome() {
        vshost::CloseHome();
        // A leak ends the test loudly and leaves the home in place as the evidence.
        const std::vector<std::string> leaks = FilesHoldingSecrets(m_path);
        for (const std::string& hit : leaks) std::fprintf(stderr, "plain password in %s\n", hit.c_str());
        if (!leaks.empty()) std::abort();
        std::error_code ec;
        std::filesystem::remove_all(m_path, ec);
    }
    TempHome(const TempHome&) = delete;
    TempHome& operator=(const TempHome&) = delete;

    const std::string& path() const { return m_path; }
    std::string sub(const std::string& rel) const { return m_path + "/" + rel; }

private:
    std::string m_path;
};

}  // namespace vstest
