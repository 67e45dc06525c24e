// File-collection reader: lifecycle, the disks of a mounted VM, their open collections,
// and the VM and disk entries.
#include "DataReaderVSFileCollection.h"

#include <new>

namespace {

std::string VMPath(const std::string& vm) {
    return FXString::Format("\\%s", vm.c_str());
}
std::string DiskPath(const std::string& vm, const std::string& disk) {
    return FXString::Format("\\%s\\%s", vm.c_str(), disk.c_str());
}

}  // namespace

DataReaderVSFileCollection::~DataReaderVSFileCollection() {
    Close(1);
    ReleaseWriter(m_pArchive);
    KTlog(m_hLog, 1, "DataReaderVSFileCollection deleted successfully.");
}

int DataReaderVSFileCollection::Initialize() {
    return InitializeWithWriter(&m_vsSim, m_readSpeed, m_writeSpeed, m_pArchive);
}

int DataReaderVSFileCollection::OpenArchiveFile(const DMInitParams& initParams, const DMOpenArchiveParams& openParams) {
    return OpenArchiveFileWithWriter(m_pArchive, initParams, openParams);
}

int DataReaderVSFileCollection::Close(int) {
    CloseAllDiskHandles();
    // Always the releasing close: the last close of the list lets the VM-info object go.
    return DataReaderVSBase::Close(1);
}

unsigned DataReaderVSFileCollection::GetFullMountInfo(std::string& vm, MountCtx& ctx,
                                                      std::vector<DataReaderVSFileCollection_VMMountInfo>& out) {
    std::vector<VMInfoStructs::SMountInfoFull> infos;
    if (!m_pVMInfo || m_pVMInfo->GetFullMountInfo(ctx, infos) == 0) {
        CheckVMInfoError(m_pVMInfo, ctx);
        return ~0u;
    }
    (void)vm;
    // Disks are taken as the library names them: no product type, version rule,
    // change id or name cleaning, none of which applies to a collection of files.
    for (const VMInfoStructs::SMountInfoFull& info : infos) {
        for (const VMInfoStructs::SDisk& disk : info.disks) {
            DataReaderVSFileCollection_VMMountInfo item;
            item.backupType = disk.nBackupType;
            item.diskType = disk.nDiskType;
            item.size = disk.ullSize;
            item.name = disk.sDiskName;
            item.secondName = disk.sSecondName;
            item.path = disk.sDiskPath;
            out.push_back(item);
            LogMountInfoItem(out.back());
        }
    }
    return 0;
}

void DataReaderVSFileCollection::LogMountInfoItem(DataReaderVSFileCollection_VMMountInfo& item) {
    LogMountInfoLine(item);
}

unsigned DataReaderVSFileCollection::OpenDiskHandle(MountCtx& ctx, std::string& disk, DiskType_t diskType,
                                                    boost::shared_ptr<CFileCollection>& handle) {
    boost::shared_ptr<CFileCollection> collection = CFileCollection::createFileCollectionInstance(diskType);
    if (!collection) {
        KTlog(m_hLog, 1, "Failed to allocate ArchiveVirtualDiskFile object");
        return ~0u;
    }
    collection->SetVMInfo(m_pVMInfo, ctx.sVMName, ctx.sMountedName);
    collection->SetVMDiskGuid(disk);
    collection->SetArchive(m_pArchive);
    const CQiError err = collection->Open(ctx);
    if (err.IsError()) {
        KTlog(m_hLog, 1, "Failed to open disk to archive, Err=[%s]\nDisk=[%s]\nDiskType=[%d]", err.AsString().c_str(),
              disk.c_str(), diskType);
        return ~0u;
    }
    boost::shared_ptr<CFileCollection>& slot = m_diskHandles[disk];
    slot = collection;
    if (m_diskHandles[disk] != collection) {
        KTlog(m_hLog, 1, "Failed to add open disk to map");
        return ~0u;
    }
    handle = collection;
    return 0;
}

bool DataReaderVSFileCollection::GetDiskHandle(std::string& disk, boost::shared_ptr<CFileCollection>& handle) {
    auto it = m_diskHandles.find(disk);
    if (it == m_diskHandles.end() || !it->second) return false;
    handle = it->second;
    return true;
}

unsigned DataReaderVSFileCollection::CloseAllDiskHandles() {
    for (auto& [name, collection] : m_diskHandles)
        if (collection) collection->Close();
    m_diskHandles.clear();
    KTlog(m_hLog, 1, "%s: Closed all disks", "DataReaderVSBase::UnMountAllMountedVMs");
    return 0;
}

unsigned DataReaderVSFileCollection::SendVMHeader(std::string& vm) {
    KTlog(m_hLog, 1, "Sending VM [%s]", vm.c_str());
    const std::string path = VMPath(vm);
    if (!m_pArchive || m_pArchive->isError(m_pArchive->sendFileHeader(path, 0, 0, true, false, false, 0, 0, 0, 0, false,
                                                                      true, false))) {
        KTlog(m_hLog, 1, "Failed to send VM Header for [%s]", path.c_str());
        return ~0u;
    }
    if (m_pArchive->isError(m_pArchive->sendEOF(true, 0))) {
        KTlog(m_hLog, 1, "Failed to send VM EOF for [%s]", path.c_str());
        return ~0u;
    }
    return 0;
}

unsigned DataReaderVSFileCollection::SendDiskHeader(std::string& vm, std::string& disk, std::string& path,
                                                    ProductType_t productType, DiskType_t diskType,
                                                    unsigned long long size, CFileCollection*) {
    if (!m_pArchive ||
        m_pArchive->isError(m_pArchive->sendDiskInfo(vm, disk, path, 5, static_cast<unsigned long>(productType),
                                                     static_cast<unsigned long>(diskType), size, 0, 0))) {
        KTlog(m_hLog, 1, "Failed to send Disk Info for [%s]", disk.c_str());
        return ~0u;
    }
    return 0;
}

unsigned DataReaderVSFileCollection::SendDiskMetadata(std::string& vm, std::string& disk, std::string&, ProductType_t,
                                                      DiskType_t, unsigned long long size, CFileCollection*) {
    // The disk's entry names the folder its nodes lie in: a container of the disk's size.
    const std::string path = DiskPath(vm, disk);
    if (!m_pArchive || m_pArchive->isError(m_pArchive->sendFCFileHeader(path, size, 0, true, false, 0, 0, 0, 0, false,
                                                                        true, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0))) {
        KTlog(m_hLog, 1, "Failed to send Disk Header for [%s]", path.c_str());
        return ~0u;
    }
    KTlog(m_hLog, 1, "FileContainer Header [%s], size [%lld]", path.c_str(), static_cast<long long>(size));
    if (m_pArchive->isError(m_pArchive->sendEOF(true, 0))) {
        KTlog(m_hLog, 1, "Failed to send Disk EOF for [%s]", path.c_str());
        return ~0u;
    }
    return 0;
}
