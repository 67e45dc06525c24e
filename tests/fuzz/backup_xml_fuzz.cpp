// Fuzz target: the snapshot backup XML on arbitrary bytes, through the host's loader and
// the reader's lookup of a VM in it. A file loads or is refused with one log line naming
// the file and a reason; what loads saves and loads again to the same backups; the
// reader's lookup succeeds exactly when the file loads. A crash, hang, leak or sanitizer
// report is a finding.
#include "probe.h"
#include "scratch_tmp.h"
#include "temp_home.h"

#include "hostapi/xmlfile.h"
#include "vshost/home.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

constexpr int64_t kBackupJob = 4711;

struct Setup {
    Setup() {
        probe.m_afileBackupJobId = kBackupJob;
        probe.m_sJobResultsDir = results;
        log.Clear();
    }
    vsfuzz::MemoryTmp tmp;
    vstest::TempHome home;
    vshost::LogCapture log;
    std::string results = home.sub("JobResults/");
    std::string path = results + "backup_4711.xml";
    std::string again = results + "again.xml";
    Probe probe;
};

Setup& Get() {
    static Setup setup;
    return setup;
}

bool SameBackups(const CNMessageBase& a, const CNMessageBase& b) {
    auto vmEq = [](const VirtualServer::VMInfo& x, const VirtualServer::VMInfo& y) {
        return x.sGuid == y.sGuid && x.nClientId == y.nClientId && x.llJobId == y.llJobId &&
               x.sClientName == y.sClientName;
    };
    auto dsEq = [&](const VirtualServer::VMDatastoreInfo& x, const VirtualServer::VMDatastoreInfo& y) {
        return x.sName == y.sName &&
               std::equal(x.vmInfoList.begin(), x.vmInfoList.end(), y.vmInfoList.begin(), y.vmInfoList.end(), vmEq);
    };
    auto backupEq = [&](const VirtualServer::Backup& x, const VirtualServer::Backup& y) {
        return x.llJobId == y.llJobId && std::equal(x.datastoreList.begin(), x.datastoreList.end(),
                                                    y.datastoreList.begin(), y.datastoreList.end(), dsEq);
    };
    return std::equal(a.backupList.begin(), a.backupList.end(), b.backupList.begin(), b.backupList.end(), backupEq);
}

void WriteAll(const std::string& path, const uint8_t* data, size_t size) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) std::abort();
    if (size > 0 && ::write(fd, data, size) != static_cast<ssize_t>(size)) std::abort();
    ::close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Setup& s = Get();
    // Backup XMLs are small; a cap keeps every execution fast.
    if (size > 64 * 1024) return 0;
    WriteAll(s.path, data, size);

    CNMessageBase message(26, 13);
    VirtualServer::Backup marker;
    marker.llJobId = -1;
    message.backupList.push_back(marker);
    const bool loaded = vsXMLFile(s.path).Load(&message);
    if (!loaded) {
        // Refused: the message is untouched and one line names the file and the reason.
        if (message.backupList.size() != 1 || message.backupList.front().llJobId != -1) std::abort();
        const auto lines = s.log.Lines();
        if (lines.size() != 1 || lines[0].find(s.path) == std::string::npos ||
            lines[0].find("cannot load") == std::string::npos)
            std::abort();
    } else {
        // What loads is written back as the same backups.
        if (!s.log.Lines().empty()) std::abort();
        if (!vsXMLFile(s.again).Save(message)) std::abort();
        CNMessageBase reread(26, 13);
        if (!vsXMLFile(s.again).Load(&reread) || !SameBackups(message, reread)) std::abort();
    }

    // The reader's lookup reads the same file: it succeeds exactly when the file loads,
    // and the first byte picks whether any VM matches.
    MountCtx ctx;
    ctx.sJobResultsDir = s.results;
    ctx.sVMName = "4230aa01-7c11-4e7e-9f3a-2d6a1b0c9e11";
    s.probe.m_bMatchAnyVM = size > 0 && (data[0] & 1) != 0;
    if (s.probe.GetVMClientInfo(ctx) != loaded) std::abort();
    // Emptied before the input ends: libFuzzer looks for a leak whenever an input leaves
    // more blocks allocated than it found, and the home's log file would grow.
    s.log.Clear();
    if (::truncate(vshost::LogFilePath().c_str(), 0) != 0) std::abort();
    return 0;
}
