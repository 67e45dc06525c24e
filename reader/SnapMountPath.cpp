// The snap mount path: one line telling the VM-info library where and as whom to mount.
#include "DataReaderVSBase.h"

#include "hostapi/platform.h"

namespace {

// Text between `marker` and the next `terminator` after it; empty when either is
// missing. Each field is searched from the start of the whole text.
std::string Field(const std::string& path, const char* marker, const char* terminator) {
    const size_t start = path.find(marker);
    if (start == std::string::npos) return {};
    const size_t end = path.find(terminator, start + 1);
    if (end == std::string::npos) return {};
    const size_t from = start + std::char_traits<char>::length(marker);
    return from <= end ? path.substr(from, end - from) : std::string();
}

}  // namespace

std::string DataReaderVSBase::getSnapMountPath() {
    KTPlatformInfo platform;
    std::string proxyEsx;
    const int configured = platform.getString("VirtualServer", "sProxyESX", &proxyEsx);
    platform.setFocus(KTPI_Focus::getFocus());
    if (configured) {
        // A configured proxy ESX host wins over the task's and the subclient's.
        KTlog(m_hLog, 1, "%s: Proxy ESX:[%s] found in the registry", "DataReaderVSBase::getSnapMountPath",
              proxyEsx.c_str());
        m_sESXServerName = proxyEsx;
    }
    std::string path = "{vcname:";
    path += m_sVCName;
    path += ",esxname:";
    path += m_sESXServerName;
    path += ",username:";
    path += m_sUserName;
    path += ",password:";
    path += m_sPassword;
    path += "}";
    return path;
}

void DataReaderVSBase::PrintSnapMountPath(const std::string& mountPath) {
    const std::string vc = Field(mountPath, "{vcname:", ",");
    const std::string esx = Field(mountPath, ",esxname:", ",");
    const std::string user = Field(mountPath, ",username:", ",");
    const std::string password = Field(mountPath, ",password:", "}");
    KTlog(m_hLog, 1, "%s: MountPath VC:[%s] ESX:[%s] User:[%s][%d]", "DataReaderVSBase::PrintSnapMountPath", vc.c_str(),
          esx.c_str(), user.c_str(), static_cast<int>(password.size()));
}
