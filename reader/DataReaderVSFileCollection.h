// File-collection reader: each virtual disk as a collection of file nodes.
#pragma once

#include "DataReaderVSBase.h"

#include "hostapi/archive.h"
#include "hostapi/counter.h"
#include "hostapi/filecollection.h"
#include "hostapi/snapsrc.h"

#include <boost/shared_ptr.hpp>

#include <map>
#include <string>
#include <vector>

// One disk of a mounted VM as the file-collection reader sees it.
struct DataReaderVSFileCollection_VMMountInfo {
    ProductType_t productType = 0;
    int32_t backupType = 0;  // 2 = a disk read as a file collection
    DiskType_t diskType = 0;
    uint64_t size = 0;
    std::string name;  // key of the collection map; part of stream paths
    std::string secondName;
    std::string path;
    std::string extra;

    DataReaderVSFileCollection_VMMountInfo() = default;
    DataReaderVSFileCollection_VMMountInfo(const DataReaderVSFileCollection_VMMountInfo&) = default;
    DataReaderVSFileCollection_VMMountInfo(DataReaderVSFileCollection_VMMountInfo&&) = default;
    DataReaderVSFileCollection_VMMountInfo& operator=(const DataReaderVSFileCollection_VMMountInfo&) = default;
    DataReaderVSFileCollection_VMMountInfo& operator=(DataReaderVSFileCollection_VMMountInfo&&) = default;
};

class DataReaderVSFileCollection : public DataReaderVSBase {
public:
    DataReaderVSFileCollection(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId);
    ~DataReaderVSFileCollection() override;

    int Initialize() override;
    int OpenArchiveFile(const DMInitParams& initParams, const DMOpenArchiveParams& openParams) override;
    int OnSnapSrcPath(FSRSnapSrcPath* item) override;
    int Close(int releaseVMInfo) override;

protected:
    typedef std::vector<VirtualServer::SnapSrcPathDiskInfo>::iterator DiskOptionIt;

    // Item handling.
    bool ProcessSnapSrcPathOptions(const char* xml, VirtualServer::SnapSrcPathOptions& options);
    // The steps of one item (OnSnapSrcPath).
    int OpenCollections(const std::string& diskToken, std::vector<DataReaderVSFileCollection_VMMountInfo>& disks,
                        VirtualServer::SnapSrcPathOptions& options, bool incremental, DataReaderVMCtx& vmCtx);
    int SendCollectionDisk(std::string& vm, std::string& name, DataReaderVSFileCollection_VMMountInfo& rec,
                           const std::string& diskToken);
    // The options of `disk`: found by the entry's first name, or by its second name for
    // an incremental item.
    DiskOptionIt GetDiskRestoreOptions(const std::string& disk, VirtualServer::SnapSrcPathOptions& options,
                                       bool incremental);

    // Mount information and open collections.
    unsigned GetFullMountInfo(std::string& vm, MountCtx& ctx, std::vector<DataReaderVSFileCollection_VMMountInfo>& out);
    void LogMountInfoItem(DataReaderVSFileCollection_VMMountInfo& item);
    unsigned OpenDiskHandle(MountCtx& ctx, std::string& disk, DiskType_t diskType,
                            boost::shared_ptr<CFileCollection>& handle);
    bool GetDiskHandle(std::string& disk, boost::shared_ptr<CFileCollection>& handle);
    unsigned CloseAllDiskHandles();

    // Headers.
    unsigned SendVMHeader(std::string& vm);
    unsigned SendDiskHeader(std::string& vm, std::string& disk, std::string& path, ProductType_t productType,
                            DiskType_t diskType, unsigned long long size, CFileCollection* collection);
    unsigned SendDiskMetadata(std::string& vm, std::string& disk, std::string& path, ProductType_t productType,
                              DiskType_t diskType, unsigned long long size, CFileCollection* collection);

    // The nodes of one opened disk.
    unsigned SendFiles(const std::string& vmName, const std::string& diskName, bool unused,
                       unsigned long long unusedOffset, CFileCollection* collection);

    vsSim m_vsSim;
    vsArchive* m_pArchive = nullptr;
    std::map<std::string, boost::shared_ptr<CFileCollection>> m_diskHandles;
    CMediaSpeedCounter m_readSpeed;
    CMediaSpeedCounter m_writeSpeed;
};
