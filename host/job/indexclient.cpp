// Index client over the remote cache folder IndexCache/ of the host home; the layout is
// described in docs/index-cache.md.
#include "hostapi/indexclient.h"

#include "detail.h"
#include "files/atomicfile.h"
#include "files/foldernames.h"
#include "hostapi/fd.h"
#include "hostapi/fileutil.h"
#include "hostapi/log.h"

#include <fcntl.h>
#include <algorithm>
#include <memory>
#include <vector>

namespace {

// Names taken from callers and from the catalog become path components; anything that
// could step out of the cache folder is refused.
bool IsPlainName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

// <home>/IndexCache/<subclient GUID>/<job id>, or empty (and logged) when no home is
// open or the GUID is not a plain name.
std::string JobCacheFolder(const char* fn, const std::string& subclientGuid, long long jobId) {
    const std::string home = vshost::detail::Home();
    if (home.empty()) {
        KTlog(nullptr, 1, "%s: no host home is open, so there is no remote cache", fn);
        return {};
    }
    if (!IsPlainName(subclientGuid)) {
        KTlog(nullptr, 1, "%s: subclient GUID [%s] is not usable as a cache folder name", fn, subclientGuid.c_str());
        return {};
    }
    return home + "/IndexCache/" + subclientGuid + "/" + std::to_string(jobId);
}

// Copies `names` of `sourceDir` into `folder`. Every name is checked before anything is
// copied, so that a missing file does not leave a partial download behind.
bool CopyFromCache(const char* fn, const std::string& sourceDir, const std::vector<std::string>& names,
                   const std::string& folder) {
    if (folder.empty()) {
        KTlog(nullptr, 1, "%s: no destination folder given", fn);
        return false;
    }
    for (const std::string& name : names) {
        if (!IsPlainName(name)) {
            KTlog(nullptr, 1, "%s: [%s] is not a plain file name", fn, name.c_str());
            return false;
        }
        if (!CQiPath::IsFile(FXPath::Join(sourceDir, name))) {
            KTlog(nullptr, 1, "%s: file [%s] is not in the remote cache [%s]", fn, name.c_str(), sourceDir.c_str());
            return false;
        }
    }
    const CQiError err = CQiDirectory::Create(folder.c_str(), true);
    if (err.IsError()) {
        KTlog(nullptr, 1, "%s: cannot create folder [%s]: %s", fn, folder.c_str(), err.AsString().c_str());
        return false;
    }
    for (const std::string& name : names) {
        std::string why;
        if (!vshost::detail::CopyFileAtomically(FXPath::Join(sourceDir, name), FXPath::Join(folder, name), why)) {
            KTlog(nullptr, 1, "%s: cannot copy [%s] from the remote cache: %s", fn, name.c_str(), why.c_str());
            return false;
        }
    }
    return true;
}

// Regular files of `dir` (links to them included), sorted; names starting with a dot
// are skipped, as they are temporary files of a writer still at work.
bool ListFiles(const char* fn, const std::string& dir, std::vector<std::string>& names) {
    const vshost::Fd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::vector<std::string> all;
    const int err = fd.valid() ? vshost::FolderNames(fd.get(), all) : errno;
    if (err != 0) {
        KTlog(nullptr, 1, "%s: cannot read folder [%s]: %s", fn, dir.c_str(),
              CQiError(err, "opendir").AsString().c_str());
        return false;
    }
    for (const std::string& name : all)
        if (name[0] != '.' && CQiPath::IsFile(FXPath::Join(dir, name))) names.push_back(name);
    return true;
}

}  // namespace

vsIndexClient::vsIndexClient(vsJobMgr* jobMgr, vsAppMgr* appMgr, const std::string& clientName)
    : m_pJobMgr(jobMgr), m_pAppMgr(appMgr), m_clientName(clientName) {}

int vsIndexClient::DownloadMetadataFilesFromRemoteCache(const std::list<std::string>& files, const std::string& folder,
                                                        long long jobId, const std::string& subclientGUID,
                                                        const std::string&) {
    static const char* const kFn = "vsIndexClient::DownloadMetadataFilesFromRemoteCache";
    try {
        const std::string source = JobCacheFolder(kFn, subclientGUID, jobId);
        if (source.empty()) return 0;
        return CopyFromCache(kFn, source, std::vector<std::string>(files.begin(), files.end()), folder) ? 1 : 0;
    } catch (const std::exception& e) {
        KTlog(nullptr, 1, "%s: %s", kFn, e.what());
        return 0;
    }
}

bool vsIndexClient::DownloadVMMetadataFiles(const MountCtx& vmCtx, const std::string& folder) {
    static const char* const kFn = "vsIndexClient::DownloadVMMetadataFiles";
    try {
        if (!m_pAppMgr) {
            KTlog(nullptr, 1, "%s: no application manager, so the subclient is unknown", kFn);
            return false;
        }
        // VVOL and VM-centric mounts carry the backup job in the VM description; the
        // others are indexed under the snapshot's job.
        long long jobId = vmCtx.vmInfo.llBackupJobId;
        if (jobId == 0) jobId = vmCtx.nSnapJobId;
        if (jobId == 0) jobId = vmCtx.nJobId;

        const std::string jobFolder = JobCacheFolder(kFn, m_pAppMgr->getSubclientGUID(), jobId);
        if (jobFolder.empty()) return false;
        if (!IsPlainName(vmCtx.sVMName)) {
            KTlog(nullptr, 1, "%s: VM GUID [%s] is not usable as a cache folder name", kFn, vmCtx.sVMName.c_str());
            return false;
        }
        const std::string source = jobFolder + "/" + vmCtx.sVMName;
        if (!CQiPath::IsDirectory(source)) {
            KTlog(nullptr, 1, "%s: the remote cache has no folder [%s] for VM [%s]", kFn, source.c_str(),
                  vmCtx.sVMName.c_str());
            return false;
        }
        std::vector<std::string> names;
        if (!ListFiles(kFn, source, names)) return false;
        return CopyFromCache(kFn, source, names, folder);
    } catch (const std::exception& e) {
        KTlog(nullptr, 1, "%s: %s", kFn, e.what());
        return false;
    }
}
