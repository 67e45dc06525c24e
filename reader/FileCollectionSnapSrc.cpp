// File-collection reader: one item (a VM, or one of its disks) from its snap source path
// and options.
#include "DataReaderVSFileCollection.h"

namespace {

constexpr const char* kFn = "OnSnapSrcPath";

}  // namespace

bool DataReaderVSFileCollection::ProcessSnapSrcPathOptions(const char* xml,
                                                           VirtualServer::SnapSrcPathOptions& options) {
    if (!xml || !*xml) return true;
    std::string why;
    if (options.Unserialize(xml, why)) return true;
    KTlog(m_hLog, 1,
          "failed to decode VirtualServer::SnapSrcPathOptions. Incremental replication is not possible in this job. "
          "XML string [%s]",
          xml);
    return false;
}

DataReaderVSFileCollection::DiskOptionIt DataReaderVSFileCollection::GetDiskRestoreOptions(
    const std::string& disk, VirtualServer::SnapSrcPathOptions& options, bool incremental) {
    return FindDiskOptions(disk, options, incremental);
}

int DataReaderVSFileCollection::OpenCollections(const std::string& diskToken,
                                                std::vector<DataReaderVSFileCollection_VMMountInfo>& disks,
                                                VirtualServer::SnapSrcPathOptions& options, bool incremental,
                                                DataReaderVMCtx& vmCtx) {
    boost::shared_ptr<CFileCollection> handle;
    std::string diskKey = diskToken;
    if (diskToken.empty() || !GetDiskHandle(diskKey, handle)) {
        for (DataReaderVSFileCollection_VMMountInfo& rec : disks) {
            if (rec.backupType != VMInfoStructs::kBackupTypeFileCollection) continue;
            bool processed = false;
            auto opt = GetDiskRestoreOptions(rec.name, options, incremental);
            if (opt != options.diskInfo.end()) {
                processed = opt->processed != 0;
                KTlog(m_hLog, 1, "%s: Disk [%s]: Already processed in a previous attempt of the job? [%s]", kFn,
                      rec.name.c_str(), processed ? "Yes" : "No");
            }
            if (processed) continue;
            boost::shared_ptr<CFileCollection> opened;
            const unsigned rc = OpenDiskHandle(vmCtx.mountCtx, rec.name, rec.diskType, opened);
            if (rc != 0) return static_cast<int>(rc);
        }
    }
    return 0;
}

// One collection disk: its metadata, its nodes, and the mark that it was read.
int DataReaderVSFileCollection::SendCollectionDisk(std::string& vm, std::string& name,
                                                   DataReaderVSFileCollection_VMMountInfo& rec,
                                                   const std::string& diskToken) {
    boost::shared_ptr<CFileCollection> collection;
    if (!GetDiskHandle(rec.name, collection)) {
        KTlog(m_hLog, 1, "No valid Disk Handle for Disk:[%s]", diskToken.c_str());
        return ~0;
    }
    unsigned rc = SendDiskMetadata(vm, name, rec.path, rec.productType, rec.diskType, rec.size, collection.get());
    if (rc != 0) return static_cast<int>(rc);
    rc = SendFiles(vm, name, false, 0, collection.get());
    if (rc != 0) return static_cast<int>(rc);
    // A collection has no change id: the next backup of it reads every node again.
    if (m_pArchive) m_pArchive->sendDiskReadCompleted(vm, name, rec.extra);
    return 0;
}

int DataReaderVSFileCollection::OnSnapSrcPath(FSRSnapSrcPath* item) {
    if (!item) return ~0;
    const std::string path = item->sSnapSrcPath;
    KTlog(m_hLog, 1, "Received SnapSrcPath [%s] ", path.c_str());

    VirtualServer::SnapSrcPathOptions options;
    ProcessSnapSrcPathOptions(item->sOptionsXml.c_str(), options);
    // An incremental item names each disk by its second name and carries the name the
    // disk is to be written under as the first.
    const bool incremental = !options.diskInfo.empty() && !options.diskInfo.front().alternateDiskName.empty();
    if (incremental) m_bMatchAnyVM = true;

    if (CheckForSnapPathProcessed(path.c_str())) {
        KTlog(m_hLog, 1, "Path:[%s] already processed", path.c_str());
        return 0;
    }

    const std::vector<std::string> tokens = SplitSnapSrcPath(path);
    if (tokens.empty() || tokens.size() >= 4) {
        KTlog(m_hLog, 1, "Error parsing the VM Guid from the snap source path [%s]", path.c_str());
        return ~0;
    }
    std::string vm = tokens[0];
    const std::string diskToken = tokens.size() > 1 ? tokens[1] : std::string();
    KTlog(m_hLog, 1, "Parsed SnapSrcPath VM [%s] Disk [%s]", vm.c_str(), diskToken.c_str());

    DataReaderVMCtx vmCtx;
    if (!GetVMMountContext(vm, vmCtx)) {
        KTlog(m_hLog, 1, "Mounting VM [%s] ", vm.c_str());
        CloseAllDiskHandles();
        const int rc = MountVM(vm, vmCtx, options.mountDiskNames);
        if (rc != 0) return rc;
        const unsigned hdr = SendVMHeader(vm);
        if (hdr != 0) return static_cast<int>(hdr);
    }

    std::vector<DataReaderVSFileCollection_VMMountInfo> disks;
    if (GetFullMountInfo(vm, vmCtx.mountCtx, disks) != 0) return ~0;

    // Open the VM's collections, unless the named disk has one open already.
    if (const int rc = OpenCollections(diskToken, disks, options, incremental, vmCtx); rc != 0) return rc;

    unsigned counted = 0;
    for (DataReaderVSFileCollection_VMMountInfo& rec : disks) {
        if (!diskToken.empty() && diskToken != rec.name) continue;
        if (rec.backupType == VMInfoStructs::kBackupTypeFileCollection) {
            bool processed = false;
            std::string firstName;
            auto opt = GetDiskRestoreOptions(rec.name, options, incremental);
            if (opt != options.diskInfo.end()) {
                processed = opt->processed != 0;
                firstName = opt->diskName;
            }
            if (processed) {
                ++counted;
                continue;
            }
            // An incremental item writes every disk under the name its options give,
            // as the extent reader does: the VM-info name is the source's, not the target's.
            std::string name = incremental ? firstName : rec.name;
            if (const int rc = SendCollectionDisk(vm, name, rec, diskToken); rc != 0) return rc;
        }
        m_processedSnapPaths[path] = true;
        ++counted;
    }

    if (counted == 0) {
        KTlog(m_hLog, 1, "No items sent for [%s] [%s]", vm.c_str(), diskToken.c_str());
        return ~0;
    }
    return 0;
}
