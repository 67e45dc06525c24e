// Base of the three snapshot readers: job context, archive-file list and reference
// count, VM-info library binding, snapshot and VM mounts, and clean-up of what the
// reader created.
#pragma once

#include "hostapi/IVMInfo.h"
#include "hostapi/appmgr.h"
#include "hostapi/dmparams.h"
#include "hostapi/event.h"
#include "hostapi/log.h"
#include "hostapi/records.h"
#include "hostapi/snapsrc.h"
#include "hostapi/types.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

class CPipelayer;
class CMediaSpeedCounter;
class vsArchive;
class vsSim;

#define VS_READER_EXPORT __attribute__((visibility("default")))

// Decrypted password of the snap-mount proxy, shared by every reader of the process.
// C linkage keeps the exported name plain, as the host looks it up.
extern "C" {
extern VS_READER_EXPORT std::string m_ProxyDecryptedPassword;
}

class DataReaderVSBase {
public:
    DataReaderVSBase(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId);
    virtual ~DataReaderVSBase();
    DataReaderVSBase(const DataReaderVSBase&) = delete;
    DataReaderVSBase& operator=(const DataReaderVSBase&) = delete;

    // Virtual operations in the host's slot order.
    virtual int Initialize();
    virtual void setGuiSequenceNumber(long long sequence) { m_guiSequenceNumber = sequence; }
    virtual void setVSInstanceType(VirtualServerInstanceType type) { m_vsInstanceType = type; }
    virtual VirtualServerInstanceType getVSInstanceType() { return m_vsInstanceType; }
    virtual void setMountType(MountType type) { m_mountType = type; }
    virtual void setVSBlockLevel(bool blockLevel) { m_bVSBlockLevel = blockLevel; }
    virtual MountType getMountType() { return m_mountType; }
    virtual void setShortClientName(const char* name);
    virtual int OpenArchiveFile(const DMInitParams& initParams, const DMOpenArchiveParams& openParams);
    virtual int OnSnapSrcPath(FSRSnapSrcPath* item);
    virtual int Close(int releaseVMInfo);
    virtual int PreOpenArchiveFile(char* list);
    virtual int SetSnapEngineID(unsigned int id);

    bool IsStopSignaled();
    static bool isVMImageSnap(int engineId);
    static bool IsVVOLEngine(unsigned engineId);
    static bool IsVMCentricSnapEngine(unsigned engineId);

protected:
    void InitKTLog(const char* tag, const char* debugKey, KTJobID jobId);

    // Snap source paths of the readers that take items whole: "VM[\disk[\...]]".
    // Split at every backslash; empty pieces are dropped.
    static std::vector<std::string> SplitSnapSrcPath(const std::string& path);
    // True when an item of `path` has been handled since the last close.
    bool CheckForSnapPathProcessed(const char* path);

    // VM-info library binding.
    bool LoadVMInfoDLL();
    IVMInfo* CreateIVMInfoObject();
    bool DeleteIVMInfoObject(IVMInfo* obj);
    bool PrepareVMInfoObject();
    void CleanupVMInfoObject();

    // Snapshot mount.
    int MountSnap();
    void FillSnapMountCtx(MountCtx& ctx, unsigned long clientId);
    unsigned long GetCopyPrecedence();
    int UnMountSnap();

    // VM mount registry and temporary folders.
    bool GetVMMountContext(const std::string& vmName, DataReaderVMCtx& out);
    int MountVM(const std::string& vmName, DataReaderVMCtx& out, const std::vector<std::string>& diskNames);
    bool FetchVMFromIndex(MountCtx& ctx, const std::string& vmName);
    bool GetDiskFiltersForRestore(std::vector<SDiskFilter>& filters, const std::vector<std::string>& diskNames);
    int UnMountAllMountedVMs();
    int UnRegisterAllRegisteredVMs();
    std::string CreateTempMountPointDirectory(const std::string& vmName);
    void DeleteTempMountPointDirectory(const std::string& path);
    void CleanupTempFilesAndFolders();
    // Whether `path`, with every link and ".." resolved, lies in the host's job results
    // directory:
    // nothing a VM name can spell is ever made or removed anywhere else.
    bool InsideJobResults(const std::string& path) const;
    void MakeJobResultsFolder(const std::string& folder);

    // Restore options and credentials; 1 on success, 0 on failure.
    int getInPlaceRestoreOptions(unsigned long appId1, unsigned long appId2);
    bool QuerySettingsOrParent(unsigned long appId1, unsigned long appId2, vsAppMgr& parentMgr);
    int CredentialsFromTask();
    int PasswordFromInstance();
    int DefaultRestoreSettings();
    // The ESX server and its login, as a mount request carries them.
    SHostCredentials EsxCredentials() const;
    // The snap mount path handed to the VM-info library; may replace m_sESXServerName
    // by a configured proxy ESX host.
    std::string getSnapMountPath();
    // Logs a snap mount path without its password.
    void PrintSnapMountPath(const std::string& mountPath);

    // Snapshot backup XML of indexing V2.
    bool DownloadSnapXMLFromIndex(const MountCtx& ctx);
    std::string CreateTempMountPointDirectoryForRemoteCache(const std::string& name);
    bool GetVMClientInfo(MountCtx& ctx);

    // The archive writer each reader owns: created into `out` and attached to `pipe`
    // under `clientName`; ~0 after logging which step failed (`out` may then hold a
    // writer that is not attached, freed with the reader).
    int CreateArchiveWriter(CPipelayer* pipe, vsSim* sim, const std::string& clientName, vsArchive*& out);
    // Names, zeroes and starts logging one of a reader's speed counters.
    static void StartSpeedCounter(CMediaSpeedCounter& counter, const char* name);
    // The steps the extent and file-collection readers share around their writer: the
    // base's initialisation, then the speed counters and the writer; the writer told the
    // archive file, job and token before the base opens the archive file; the writer
    // closed and freed.
    int InitializeWithWriter(vsSim* sim, CMediaSpeedCounter& readSpeed, CMediaSpeedCounter& writeSpeed,
                             vsArchive*& archive);
    int OpenArchiveFileWithWriter(vsArchive* archive, const DMInitParams& initParams,
                                  const DMOpenArchiveParams& openParams);
    static void ReleaseWriter(vsArchive*& archive);
    // The "Mount Info" line both of those readers log for each disk they will read.
    template <class MountInfo>
    void LogMountInfoLine(const MountInfo& item) {
        KTlog(m_hLog, 1, "Mount Info: Name[%s] Path[%s] BackupType[%d] DiskType[%d] ProductType[%d] Size[%llu]",
              item.name.c_str(), item.path.c_str(), static_cast<int>(item.backupType), static_cast<int>(item.diskType),
              static_cast<int>(item.productType), static_cast<unsigned long long>(item.size));
    }
    // The options' entry of disk `diskName`, matched in any case against the disk names, or
    // against the alternate names; end() when none matches.
    static std::vector<VirtualServer::SnapSrcPathDiskInfo>::iterator FindDiskOptions(
        const std::string& diskName, VirtualServer::SnapSrcPathOptions& options, bool byAlternateName);

    // Instance types of a vCenter (101, 301, 601, 402, 403).
    static bool IsVirtualCenterInstance(int instanceType) {
        return instanceType == 101 || instanceType == 301 || instanceType == 601 || instanceType == 402 ||
               instanceType == 403;
    }

    // Reports the VM-info library's last error for `ctx` to the job.
    void CheckVMInfoError(IVMInfo* vmInfo, MountCtx& ctx);

    bool m_bSnapRestore = true;
    bool m_bMatchAnyVM = false;
    bool m_bVSBlockLevel = false;
    MountCtx m_snapMountCtx;
    std::map<std::string, DataReaderVMCtx> m_vmMountCtxMap;
    std::map<std::string, std::string> m_vmNameMap;
    CPipelayer* m_pPipelayer;
    KTLOGHANDLE m_hLog = nullptr;
    KtEvent* m_pEvent;
    KTJobID m_jobId;
    DMInitParams m_initParams;
    DMOpenArchiveParams m_openArchiveParams{};
    VirtualServerInstanceType m_vsInstanceType = VS_INSTANCE_NONE;
    MountType m_mountType = MOUNT_TYPE_NONE;
    long long m_guiSequenceNumber = -1;
    std::string m_sShortClientName;
    std::string m_sHubServerHostName;
    std::string m_sJobResultsDir;
    std::string m_sJobResultsFolder;
    std::string m_sAFileList;
    std::vector<AFileID> m_afileIds;
    int64_t m_afileRefCount = 0;
    int64_t m_snapJobId = 0;
    std::vector<MountCtx> m_mountCtxs;
    std::string m_sVCName;
    std::string m_sESXServerName;
    std::string m_sUserName;
    std::string m_sPassword;
    IVMInfo* m_pVMInfo = nullptr;
    void* m_hVMInfoLib = nullptr;
    vsAppMgr m_appMgr;
    vsJobMgr m_jobMgr;
    std::map<std::string, bool> m_processedSnapPaths;
    uint32_t m_snapEngineId = 0;
    int64_t m_afileBackupJobId = 0;
    std::vector<std::string> m_tempFolders;
    bool m_bUseCBT = false;
};
