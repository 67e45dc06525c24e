// Extent reader: whole virtual disks as numbered extents after the VM's configuration
// files.
#pragma once

#include "DataReaderVSBase.h"

#include "hostapi/archive.h"
#include "hostapi/counter.h"
#include "hostapi/snapsrc.h"
#include "hostapi/vdisk.h"

#include <map>
#include <string>
#include <vector>

// One item of a mounted VM as the extent reader handles it: a disk or a configuration file.
struct DataReaderVSExent_VMMountInfo {
    int32_t productType = 0;
    int32_t backupType = 0;  // 1 = a virtual disk, 0 = a configuration file
    int32_t diskType = 0;
    uint64_t size = 0;
    std::string name;  // key of the disk-handle map; part of stream paths
    std::string secondName;
    std::string path;
    std::string extra;
    std::string changeId;
};

class DataReaderVSExtent : public DataReaderVSBase {
public:
    DataReaderVSExtent(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId);
    ~DataReaderVSExtent() override;

    int Initialize() override;
    int OpenArchiveFile(const DMInitParams& initParams, const DMOpenArchiveParams& openParams) override;
    int OnSnapSrcPath(FSRSnapSrcPath* item) override;
    int Close(int releaseVMInfo) override;
    int PreOpenArchiveFile(char* list) override;

protected:
    typedef std::vector<VirtualServer::SnapSrcPathDiskInfo>::iterator DiskOptionIt;

    // Item handling.
    int ProcessSnapSrcPathOptions(const char* xml, VirtualServer::SnapSrcPathOptions& options);
    DiskOptionIt GetDiskRestoreOptions(const std::string& diskName, VirtualServer::SnapSrcPathOptions& options,
                                       bool alternate);

    // The steps of one item (OnSnapSrcPath), over what they share.
    struct ItemScope {
        std::string path, vmGuid, diskToken, extentToken;
        VirtualServer::SnapSrcPathOptions options;
        bool alternate = false;  // disks named by their second name (an incremental item)
        DataReaderVMCtx vmCtx;
        std::vector<DataReaderVSExent_VMMountInfo> items;
        CArchiveVirtualDiskFile* disk = nullptr;
    };
    int SendDiskHeaders(ItemScope& s);
    int SendItems(ItemScope& s, unsigned& itemsSent);
    int CheckNothingSent(ItemScope& s);

    // Mount information and disk handles.
    int GetFullMountInfo(std::string& vmGuid, MountCtx& ctx, std::vector<DataReaderVSExent_VMMountInfo>& out);
    int GetFileMountInfo(std::string& vmGuid, MountCtx& ctx, std::vector<DataReaderVSExent_VMMountInfo>& out);
    void LogMountInfoItem(DataReaderVSExent_VMMountInfo& item);
    int OpenDiskHandle(MountCtx& ctx, std::string& path, std::string& name, ProductType_t productType,
                       DiskType_t diskType, std::string& changeId, CArchiveVirtualDiskFile*& out);
    bool GetDiskHandle(std::string& name, CArchiveVirtualDiskFile*& out);
    int CloseAllDiskHandles();
    void FixDiskName(std::string& name);

    // Headers and configuration files.
    int SendVMHeader(std::string& vmGuid);
    int SendConfigFile(std::string& vmGuid, std::string& name, std::string& extra, unsigned productType,
                       unsigned diskType, unsigned long long size, std::string& filePath);
    int SendDiskHeader(std::string& vmGuid, std::string& diskName, std::string& extra, unsigned productType,
                       unsigned diskType, unsigned long long size, CArchiveVirtualDiskFile* disk);
    int SendDiskMetadata(std::string& vmGuid, std::string& diskName, std::string& extra, unsigned productType,
                         unsigned diskType, unsigned long long size, CArchiveVirtualDiskFile* disk);

    // Extents.
    int SendEntireDiskExtents(const std::string& vmGuid, const std::string& diskName, bool skipUnchanged,
                              unsigned long long startExtent, CArchiveVirtualDiskFile* disk);
    int SendSpecificDiskExtent(const std::string& vmGuid, const std::string& diskName, const std::string& extentName,
                               CArchiveVirtualDiskFile* disk);
    int SendDiskExtent(const std::string& vmGuid, const std::string& diskName, const std::string& extentName,
                       CAutoMemory<char>& buffer);

    vsSim m_vsSim;
    vsArchive* m_pArchive = nullptr;
    std::map<std::string, CArchiveVirtualDiskFile*> m_diskHandles;
    std::map<CArchiveVirtualDiskFile*, CArchiveVirtualDiskFile::Context_t> m_diskContexts;
    CMediaSpeedCounter m_readSpeed;
    CMediaSpeedCounter m_writeSpeed;
};
