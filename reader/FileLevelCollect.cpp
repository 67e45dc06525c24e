// File-level reader: the collect file, one client-form path per line, that names what
// an item reads from the mounted guest volume.
#include "DataReaderVMware.h"

#include <cerrno>
#include <ctime>

namespace {

constexpr const char* kFn = "DataReaderVMware::CreateListOfFilesToRead";

}  // namespace

// The item's client path: stripped of trailing data, split into the client mount path
// and the path to restore (and, when filtered, the file pattern). False when malformed.
bool DataReaderVMware::ParseClientPath(const FSRSnapSrcPath& item) {
    if (item.sClientPath.empty()) {
        KTlog(m_hLog, 1, "%s: Path sent by client side in empty or NULL", kFn);
        return false;
    }
    m_snapSrc.m_bRecurse = true;
    // Character 18 separates the path from trailing data that is not ours.
    std::string stripped = item.sClientPath;
    const size_t cut = stripped.rfind('\x12');
    if (cut != std::string::npos) stripped.erase(cut);
    m_snapSrc.m_SnapSrcPath = stripped;
    KTlog(m_hLog, 2, "%s: Stripped the delimiter: srcPath=[%s]\tSnapSrcPath=[%s]", kFn, item.sClientPath.c_str(),
          m_snapSrc.m_SnapSrcPath.c_str());
    m_snapSrc.m_bFilter = item.fileFilterCount > 0;

    std::string copy = m_snapSrc.m_SnapSrcPath;
    std::vector<std::string> parts;
    FXString::Split(copy, "\\", parts);
    if (parts.empty()) {
        KTlog(m_hLog, 1, "%s: Invalid format for snap src path [%s]", kFn, copy.c_str());
        return false;
    }
    if (parts.size() < 3 && (copy.empty() || copy.back() != '/')) {
        copy += "/";
        m_snapSrc.m_SnapSrcPath = copy;
    }
    m_sOrigClientMountPath = parts.size() >= 2 ? parts[0] + "\\" + parts[1] : std::string();
    KTlog(m_hLog, 3, "%s: m_sOrigClientMountPath = [%s] m_SnapSrcPath = [%s]", kFn, m_sOrigClientMountPath.c_str(),
          m_snapSrc.m_SnapSrcPath.c_str());
    if (m_sOrigClientMountPath.empty() || m_sOrigClientMountPath.back() != '/') m_sOrigClientMountPath += "/";

    size_t found = m_snapSrc.m_SnapSrcPath.find(m_sOrigClientMountPath, 0);
    if (found == std::string::npos) found = m_snapSrc.m_SnapSrcPath.find(m_sOrigClientMountPath, 0);
    if (found == std::string::npos) {
        KTlog(m_hLog, 1, "%s: Failed to scan for srcMountPath [%s] in source path. Src Path sent by client is [%s]",
              kFn, m_sOrigClientMountPath.c_str(), m_snapSrc.m_SnapSrcPath.c_str());
        return false;
    }
    if (found != 0) {
        KTlog(m_hLog, 1,
              "%s: Path Mismatch: srcMountPath where orig snap was taken = [%s] . Path that needs to be read = [%s]",
              kFn, m_sOrigClientMountPath.c_str(), m_snapSrc.m_SnapSrcPath.c_str());
        return false;
    }
    m_sPathToRestore = m_snapSrc.m_SnapSrcPath.substr(m_sOrigClientMountPath.size());
    KTlog(m_hLog, 3, "%s: OrigClientMountPath = [%s], PathToRestore = [%s].", kFn, m_sOrigClientMountPath.c_str(),
          m_sPathToRestore.c_str());

    if (m_snapSrc.m_bFilter) {
        const size_t slash = m_sPathToRestore.rfind('/');
        if (slash == std::string::npos) {
            m_sFileName = m_sPathToRestore;
            m_sPathToRestore.clear();
        } else {
            m_sFileName = m_sPathToRestore.substr(slash + 1);
            m_sPathToRestore.erase(slash + 1);
        }
        m_snapSrc.m_sFilePattern = m_sFileName;
    }
    return true;
}

// Where the client mount path lies on this host, joined with the path to restore.
std::string DataReaderVMware::LocalPathOfVolume() {
    // The map's keys are "<VM>\<volume>\" in upper case while the client mount path ends
    // in "/" and keeps the client's case: this lookup misses and the name mapper then
    // resolves the volume through the live-browse mounts.
    // On a miss the steps below carry on with an empty mount path, so the path they look
    // at is relative: the host's link check and walker touch nothing outside a mounted
    // guest volume, so such a path is neither looked at nor walked.
    std::string completeLocalPath;
    auto mapped = VMGuidVolGuidToVolumePathMap.find(m_sOrigClientMountPath);
    if (mapped == VMGuidVolGuidToVolumePathMap.end()) {
        KTlog(m_hLog, KTLOG_ALWAYS, "%s: Failure to map to VMGuidVolGuidToVolumePathMap: [%s].", kFn,
              m_sOrigClientMountPath.c_str());
        Close();
        m_sSnapMountPath = VMGuidVolGuidToVolumePathMap[m_sOrigClientMountPath];
        completeLocalPath = m_sSnapMountPath + m_sPathToRestore;
    } else {
        m_sSnapMountPath = mapped->second;
        completeLocalPath = m_sSnapMountPath;
        if (completeLocalPath.empty() || completeLocalPath.back() != '/') completeLocalPath += "/";
        completeLocalPath += m_sPathToRestore;
        KTlog(m_hLog, 3, "sCompleteLocalPath = [%s], m_sPathToRestore = [%s].", completeLocalPath.c_str(),
              m_sPathToRestore.c_str());
        KTlog(m_hLog, 3, "m_sSnapMountPath = [%s]", m_sSnapMountPath.c_str());
    }
    return completeLocalPath;
}

// Writes the collect file: the walked folder's files, or the path itself, then flushed.
bool DataReaderVMware::WriteList(const FSRSnapSrcPath& item, const std::string& completeLocalPath) {
    std::string linkCheck = completeLocalPath;
    if (!linkCheck.empty() && linkCheck.back() == '/') linkCheck.pop_back();
    bool isLink = false;
    CQiError err = CQiPath::IsLink(linkCheck, isLink);
    if (err.IsError()) {
        KTlog(m_hLog, 1, "%s: Error while checking if Path [%s] is link or not, error=%s", kFn, linkCheck.c_str(),
              err.AsString().c_str());
        return false;
    }
    if (item.walkFlag == 0 && m_snapSrc.m_bFilter && !isLink) {
        const int level = m_snapSrc.m_bRecurse ? -1 : 0;
        err = CQiDirectory::Walk(completeLocalPath, this, level, false, &DataReaderVMware::PathWalkerStatic);
        if (err.IsError()) {
            KTlog(m_hLog, 1,
                  "%s: CQiDirectory::Walk returned error [%s]. sCompleteLocalPath = [%s], subDirLevel = [%d]", kFn,
                  err.AsString().c_str(), completeLocalPath.c_str(), level);
            return false;
        }
    } else if (std::fputs((m_snapSrc.m_SnapSrcPath + "\n").c_str(), m_pCollectFile) < 0) {
        KTlog(m_hLog, 1, "%s: Failed to write the list of files to [%s], errno [%d].", kFn, m_sCollectFileName.c_str(),
              errno);
        (void)std::fclose(m_pCollectFile);
        m_pCollectFile = nullptr;
        return false;
    }
    // The list is only whole once it is flushed: a full disk shows here, and a short
    // list would leave files out of the backup without a word.
    const int closed = std::fclose(m_pCollectFile);
    m_pCollectFile = nullptr;
    if (closed != 0) {
        KTlog(m_hLog, 1, "%s: Failed to write the list of files to [%s], errno [%d].", kFn, m_sCollectFileName.c_str(),
              errno);
        return false;
    }
    return true;
}

unsigned DataReaderVMware::CreateListOfFilesToRead(const FSRSnapSrcPath& item, std::string& out) {
    if (m_sCollectFileName.empty()) {
        m_sCollectFileName = m_sJobResultsDir + "ColFile_JID" +
                             FXString::Format("%lld", static_cast<long long>(m_jobId)) + "_" +
                             FXString::Format("AF%d", static_cast<int>(m_fileOpenParams.archiveFileId)) + "_" +
                             FXString::Format("Str%d", m_fileInitParams.streamNumber) +
                             FXString::Format("_%lld", static_cast<long long>(std::time(nullptr))) + ".txt";
    }
    KTlog(m_hLog, 2, "%s: Collect File Name: [%s]", kFn, m_sCollectFileName.c_str());

    if (!ParseClientPath(item)) return ~0u;

    // A list left open by an earlier failed call is replaced, not leaked.
    if (m_pCollectFile) (void)std::fclose(m_pCollectFile);
    m_pCollectFile = std::fopen(m_sCollectFileName.c_str(), "w+");
    if (!m_pCollectFile) {
        KTlog(m_hLog, 1, "%s: Failed to get Open file [%s] to create list of files, errno [%d].", kFn,
              m_sCollectFileName.c_str(), errno);
        return ~0u;
    }

    const std::string completeLocalPath = LocalPathOfVolume();

    if (!WriteList(item, completeLocalPath)) return ~0u;
    out = m_sCollectFileName;

    m_pNameMapper->ResetMappings();
    m_pNameMapper->AddMapping(m_sOrigClientMountPath, m_sSnapMountPath);
    return 0;
}

CQiError DataReaderVMware::PathWalkerStatic(const char* dir, const char* name, bool flag, void* ctx) {
    return static_cast<DataReaderVMware*>(ctx)->PathWalker(dir, name, flag);
}

CQiError DataReaderVMware::PathWalker(const char* dir, const char* name, bool) {
    if (m_snapSrc.m_bFilter && !CQiDirectory::MatchWildcard(name, m_snapSrc.m_sFilePattern, true)) return {};
    const std::string full = CQiPath::Append(dir, name);
    if (!m_snapSrc.m_bRecurse && CQiPath::IsDirectory(full)) return {};
    const std::string relative = full.size() > m_sSnapMountPath.size() ? full.substr(m_sSnapMountPath.size()) : "";
    std::string line = m_sOrigClientMountPath;
    if (!line.empty() && line.back() == '/') line.pop_back();
    if (relative.empty() || relative.front() != '/') line += "/";
    line += relative + "\n";
    // A flush that failed inside an earlier call only shows as the stream's error flag.
    if (std::fputs(line.c_str(), m_pCollectFile) < 0 || std::ferror(m_pCollectFile))
        return CQiError(errno ? errno : EIO, "write " + m_sCollectFileName);
    KTlog(m_hLog, 1, "tmp File Name:[%s]", relative.c_str());
    return {};
}

unsigned DataReaderVMware::countLines(const char* path) {
    FILE* f = path ? std::fopen(path, "r") : nullptr;
    if (!f) return 1;
    char buf[1024];
    unsigned count = 0;
    while (std::fgets(buf, sizeof buf, f)) ++count;
    (void)std::fclose(f);
    return count == 0 ? 1 : count;
}
