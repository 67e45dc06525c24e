// Platform information answered from the settings store and the home.
#include "hostapi/platform.h"
#include "detail.h"
#include "hostapi/fileutil.h"

#include <unistd.h>
#include <climits>

namespace {

std::string PhysicalMachine() {
    if (auto name = vshost::detail::Setting("Host", "sPhysicalMachine")) return *name;
    char buf[HOST_NAME_MAX + 1] = {};
    if (gethostname(buf, sizeof buf - 1) != 0) return {};
    return buf;
}

}  // namespace

std::string KTPlatformInfo::getPhysicalMachine() {
    return PhysicalMachine();
}

int KTPlatformInfo::getNumber(const char* section, const char* key, unsigned long* value) {
    if (!section || !key || !value) return 0;
    auto text = vshost::detail::Setting(section, key);
    if (!text) return 0;
    auto number = vshost::detail::ParseWholeNumber(*text);
    if (!number) return 0;
    *value = *number;
    return 1;
}

int KTPlatformInfo::getString(const char* section, const char* key, std::string* value) {
    if (!section || !key || !value) return 0;
    auto text = vshost::detail::Setting(section, key);
    if (!text) return 0;
    *value = std::move(*text);
    return 1;
}

KTPI_PlatformBase::KTPI_PlatformBase(unsigned long) {}
KTPI_PlatformBase::~KTPI_PlatformBase() = default;

const char* KTPI_PlatformBase::getHubServerHostName() {
    auto hub = vshost::detail::Setting("Host", "sHubServerHostName");
    std::string name = hub ? *hub : PhysicalMachine();
    // Assigning only on change keeps a pointer handed out earlier valid.
    if (name != m_hubServer) m_hubServer = std::move(name);
    return m_hubServer.c_str();
}

std::string KTPI_HubClient::getJobResultsDirectory(const std::string&) {
    // This host serves a single machine, so every machine shares one directory. A
    // configured value wins even when empty: that is how "none configured" is tested.
    if (auto dir = vshost::detail::Setting("Host", "sJobResultsDir")) return *dir;
    std::string home = vshost::detail::Home();
    return home.empty() ? std::string() : home + "/JobResults";
}

const char* KTPI_Base::getTesselDirectory() {
    auto base = vshost::detail::Setting("Host", "sBaseDir");
    m_dir = base ? *base : vshost::detail::Home();
    if (m_dir.empty() || !CQiPath::IsDirectory(m_dir)) return nullptr;
    return m_dir.c_str();
}

const char* KTPI_Focus::getFocus() {
    // The text must outlive the call; one per thread keeps it safe without a lock.
    thread_local std::string focus;
    focus = vshost::detail::Setting("Host", "sFocus").value_or("Instance001");
    return focus.c_str();
}
