// A host home in a fresh temporary folder, opened for the life of the object.
#pragma once

#include "vshost/home.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace vstest {

class TempHome {
public:
    TempHome() {
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/vshome-XXXXXX";
        if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed for " + pattern);
        m_path = pattern;
        vshost::OpenHome(m_path);
    }
    ~TempHome() {
        vshost::CloseHome();
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
