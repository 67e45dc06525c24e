// Test access to a reader's state: the extent reader with its protected members opened
// up. Everything else runs the production code against a temporary host home.
#pragma once

#include "DataReaderVSExtent.h"

#include "hostapi/archive.h"

#include <memory>
#include <stdexcept>
#include <string>

// The pipeline a probe writes to: a file, or /dev/null; it outlives the reader.
struct ProbePipe {
    explicit ProbePipe(const std::string& path) {
        CQiError err;
        pipe = CPipelayer::OpenFile(path, err);
        if (!pipe) throw std::runtime_error("cannot open the pipeline " + path + ": " + err.AsString());
    }
    std::unique_ptr<CPipelayer> pipe;
};

struct Probe : ProbePipe, DataReaderVSExtent {
    explicit Probe(KtEvent* event = nullptr, KTJobID jobId = 4711, const std::string& stream = "/dev/null")
        : ProbePipe(stream), DataReaderVSExtent(pipe.get(), event, jobId) {}

    using DataReaderVSExtent::CloseAllDiskHandles;
    using DataReaderVSExtent::FixDiskName;
    using DataReaderVSExtent::SendConfigFile;
    using DataReaderVSExtent::SendVMHeader;

    using DataReaderVSBase::CheckVMInfoError;
    using DataReaderVSBase::CleanupVMInfoObject;
    using DataReaderVSBase::CreateTempMountPointDirectory;
    using DataReaderVSBase::CreateTempMountPointDirectoryForRemoteCache;
    using DataReaderVSBase::DeleteTempMountPointDirectory;
    using DataReaderVSBase::DownloadSnapXMLFromIndex;
    using DataReaderVSBase::GetCopyPrecedence;
    using DataReaderVSBase::GetDiskFiltersForRestore;
    using DataReaderVSBase::getInPlaceRestoreOptions;
    using DataReaderVSBase::getSnapMountPath;
    using DataReaderVSBase::GetVMClientInfo;
    using DataReaderVSBase::GetVMMountContext;
    using DataReaderVSBase::m_afileBackupJobId;
    using DataReaderVSBase::m_afileIds;
    using DataReaderVSBase::m_afileRefCount;
    using DataReaderVSBase::m_appMgr;
    using DataReaderVSBase::m_bMatchAnyVM;
    using DataReaderVSBase::m_bSnapRestore;
    using DataReaderVSBase::m_bUseCBT;
    using DataReaderVSBase::m_initParams;
    using DataReaderVSBase::m_jobMgr;
    using DataReaderVSBase::m_mountCtxs;
    using DataReaderVSBase::m_openArchiveParams;
    using DataReaderVSBase::m_processedSnapPaths;
    using DataReaderVSBase::m_pVMInfo;
    using DataReaderVSBase::m_sESXServerName;
    using DataReaderVSBase::m_sHubServerHostName;
    using DataReaderVSBase::m_sJobResultsDir;
    using DataReaderVSBase::m_sJobResultsFolder;
    using DataReaderVSBase::m_snapEngineId;
    using DataReaderVSBase::m_snapJobId;
    using DataReaderVSBase::m_sPassword;
    using DataReaderVSBase::m_sShortClientName;
    using DataReaderVSBase::m_sUserName;
    using DataReaderVSBase::m_sVCName;
    using DataReaderVSBase::m_tempFolders;
    using DataReaderVSBase::m_vmMountCtxMap;
    using DataReaderVSBase::m_vmNameMap;
    using DataReaderVSBase::MountSnap;
    using DataReaderVSBase::MountVM;
    using DataReaderVSBase::PrepareVMInfoObject;
    using DataReaderVSBase::PrintSnapMountPath;
    using DataReaderVSBase::UnMountAllMountedVMs;
};
