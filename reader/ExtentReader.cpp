// Extent reader: lifecycle, mount information of a VM's items, and its open disks.
#include "DataReaderVSExtent.h"

#include <new>

DataReaderVSExtent::DataReaderVSExtent(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId)
    : DataReaderVSBase(pipelayer, event, jobId), m_readSpeed(nullptr), m_writeSpeed(nullptr) {
    InitKTLog("DM_VSEXT\t", "nDATAREADERVSEXT", jobId);
}

DataReaderVSExtent::~DataReaderVSExtent() {
    Close(1);
    ReleaseWriter(m_pArchive);
    KTlog(m_hLog, 1, "DataReaderVSExtent deleted successfully.");
}

int DataReaderVSExtent::Initialize() {
    return InitializeWithWriter(&m_vsSim, m_readSpeed, m_writeSpeed, m_pArchive);
}

int DataReaderVSExtent::PreOpenArchiveFile(char* list) {
    return DataReaderVSBase::PreOpenArchiveFile(list);
}

int DataReaderVSExtent::OpenArchiveFile(const DMInitParams& initParams, const DMOpenArchiveParams& openParams) {
    return OpenArchiveFileWithWriter(m_pArchive, initParams, openParams);
}

int DataReaderVSExtent::Close(int) {
    CloseAllDiskHandles();
    // Always the releasing close: the last close of the list lets the VM-info object go.
    return DataReaderVSBase::Close(1);
}

namespace {

int ProductTypeFor(int instanceType) {
    if (instanceType == 100 || instanceType == 101) return 1;
    if (instanceType == 102) return 2;
    return 0;
}

}  // namespace

int DataReaderVSExtent::GetFullMountInfo(std::string& vmGuid, MountCtx& ctx,
                                         std::vector<DataReaderVSExent_VMMountInfo>& out) {
    std::vector<VMInfoStructs::SMountInfoFull> infos;
    if (!m_pVMInfo || m_pVMInfo->GetFullMountInfo(ctx, infos) == 0) {
        CheckVMInfoError(m_pVMInfo, ctx);
        return ~0;
    }
    (void)vmGuid;
    const int productType = ProductTypeFor(static_cast<int>(getVSInstanceType()));
    for (const VMInfoStructs::SMountInfoFull& info : infos) {
        for (const VMInfoStructs::SDisk& disk : info.disks) {
            DataReaderVSExent_VMMountInfo item;
            item.backupType = disk.nBackupType;
            item.diskType = disk.nDiskType;
            item.size = disk.ullSize;
            item.productType = productType;
            item.name = ctx.sVersion == "9.0" && disk.nDiskType == 18 ? disk.sSecondName : disk.sDiskName;
            item.secondName = disk.sSecondName;
            item.path = disk.sDiskPath;
            if (item.backupType == 1 && m_bUseCBT && !disk.sChangeId.empty() && !item.name.empty()) {
                KTlog(m_hLog, 1, "%s: Received change id [%s] for disk name [%s]", "GetFullMountInfo",
                      disk.sChangeId.c_str(), item.name.c_str());
                item.changeId = disk.sChangeId;
            }
            if (item.diskType == 18) FixDiskName(item.name);
            out.push_back(item);
            LogMountInfoItem(out.back());
        }
    }
    return 0;
}

int DataReaderVSExtent::GetFileMountInfo(std::string& vmGuid, MountCtx& ctx,
                                         std::vector<DataReaderVSExent_VMMountInfo>& out) {
    std::vector<VMInfoStructs::SMountInfoFile> files;
    if (!m_pVMInfo || m_pVMInfo->GetFileMountInfo(ctx, files) == 0) {
        CheckVMInfoError(m_pVMInfo, ctx);
        return ~0;
    }
    (void)vmGuid;
    const int instanceType = static_cast<int>(getVSInstanceType());
    for (const VMInfoStructs::SMountInfoFile& file : files) {
        DataReaderVSExent_VMMountInfo item;
        item.backupType = 1;
        item.diskType = file.bFlag ? 17 : 16;
        item.size = file.ullSize;
        item.productType = instanceType == 100 || instanceType == 101 || instanceType == 102 ? 3 : 0;
        item.name = file.sVolumeGuid;
        // Exactly one character is cut, whatever it is: the path ends in a delimiter.
        item.path = file.sLocalMountPath.empty() ? std::string()
                                                 : file.sLocalMountPath.substr(0, file.sLocalMountPath.size() - 1);
        item.extra = file.sVolumeName;
        out.push_back(item);
        LogMountInfoItem(out.back());
    }
    return 0;
}

void DataReaderVSExtent::LogMountInfoItem(DataReaderVSExent_VMMountInfo& item) {
    LogMountInfoLine(item);
}

int DataReaderVSExtent::OpenDiskHandle(MountCtx& ctx, std::string& path, std::string& name, ProductType_t productType,
                                       DiskType_t diskType, std::string& changeId, CArchiveVirtualDiskFile*& out) {
    CArchiveVirtualDiskFile* disk = new (std::nothrow) CArchiveVirtualDiskFile(productType);
    if (!disk) {
        KTlog(m_hLog, 1, "Failed to allocate ArchiveVirtualDiskFile object");
        return ~0;
    }
    disk->SetVMInfo(m_pVMInfo, ctx.sVMName, ctx.sMountedName, &ctx, nullptr);
    if (!changeId.empty()) disk->SetChangeId(changeId);
    const CQiError err = disk->Open(path, diskType);
    if (err.IsError()) {
        KTlog(m_hLog, 1, "Failed to open disk to archive, Err=[%s]\nDisk=[%s]\nDiskType=[%d]", err.AsString().c_str(),
              path.c_str(), diskType);
        delete disk;
        return ~0;
    }
    // An earlier reader under the same name is replaced; it is released rather than
    // leaked, as nothing else refers to it.
    CArchiveVirtualDiskFile*& slot = m_diskHandles[name];
    if (slot && slot != disk) {
        m_diskContexts.erase(slot);
        delete slot;
    }
    slot = disk;
    if (m_diskHandles[name] != disk) {
        KTlog(m_hLog, 1, "Failed to add open disk to map");
        delete disk;
        return ~0;
    }
    m_diskContexts[disk] = CArchiveVirtualDiskFile::Context_t{};
    out = disk;
    return 0;
}

bool DataReaderVSExtent::GetDiskHandle(std::string& name, CArchiveVirtualDiskFile*& out) {
    out = m_diskHandles[name];  // an unknown name leaves an empty entry behind
    return out != nullptr;
}

int DataReaderVSExtent::CloseAllDiskHandles() {
    if (m_diskHandles.empty()) return 0;
    KTlog(m_hLog, 1, "Closing all disks");
    for (auto& [name, disk] : m_diskHandles) {
        if (disk) {
            KTlog(m_hLog, 1, "  Closing Disk [%s]", name.c_str());
            disk->Close();
            delete disk;
        } else {
            KTlog(m_hLog, 1, "  Attempt to close invalid Disk [%s]", name.c_str());
        }
    }
    m_diskHandles.clear();
    m_diskContexts.clear();
    KTlog(m_hLog, 1, "Closed all disks");
    return 0;
}

void DataReaderVSExtent::FixDiskName(std::string& name) {
    const size_t marker = name.find("_TL_BACKUP_");
    if (marker == std::string::npos) return;
    const size_t bracket = name.find(']', marker);
    if (bracket == std::string::npos) return;
    name.erase(marker, bracket - marker);
}
