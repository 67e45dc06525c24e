// Index client: fetches files of a backup's index from the index server's remote cache
// (see docs/index-cache.md for its layout).
#pragma once

#include "hostapi/appmgr.h"
#include "hostapi/records.h"
#include "hostapi/types.h"

#include <list>
#include <string>

class VS_HOST_API vsIndexClient {
public:
    // The managers are borrowed and must outlive the client; either may be null, and
    // then the operations that need it fail.
    vsIndexClient(vsJobMgr* jobMgr, vsAppMgr* appMgr, const std::string& clientName);

    // Copies each of `files` (plain names) of backup job `jobId` of subclient
    // `subclientGUID` into `folder`, creating the folder if needed. 1 when every file
    // was copied; 0 when one is missing or cannot be copied (files copied before it
    // stay). A file never appears under its final name half-written. The last argument
    // is reserved.
    int DownloadMetadataFilesFromRemoteCache(const std::list<std::string>& files, const std::string& folder,
                                             long long jobId, const std::string& subclientGUID,
                                             const std::string& reserved);

    // Copies every file of the VM's metadata folder into `folder` (created if needed).
    // The VM is `vmCtx.sVMName` (its GUID); the backup job is `vmCtx.vmInfo.llBackupJobId`,
    // or `vmCtx.nSnapJobId` when that is 0, or `vmCtx.nJobId` when both are; the
    // subclient GUID comes from the application manager. False when the VM's folder is
    // missing or a copy fails.
    bool DownloadVMMetadataFiles(const MountCtx& vmCtx, const std::string& folder);

    const std::string& getClientName() const { return m_clientName; }

private:
    vsJobMgr* m_pJobMgr;
    vsAppMgr* m_pAppMgr;
    std::string m_clientName;
};
