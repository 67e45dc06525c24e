// Extent reader: one item (a VM, one of its disks, or one extent of a disk) from its
// snap source path and options.
#include "DataReaderVSExtent.h"

#include <strings.h>

namespace {

constexpr const char* kFn = "OnSnapSrcPath";

}  // namespace

int DataReaderVSExtent::ProcessSnapSrcPathOptions(const char* xml, VirtualServer::SnapSrcPathOptions& options) {
    if (!xml || !*xml) return 0;
    std::string why;
    if (!options.Unserialize(xml, why))
        KTlog(m_hLog, 1,
              "failed to decode VirtualServer::SnapSrcPathOptions. Incremental replication is not possible in this "
              "job. XML string [%s]",
              xml);
    return 0;
}

DataReaderVSExtent::DiskOptionIt DataReaderVSExtent::GetDiskRestoreOptions(const std::string& diskName,
                                                                           VirtualServer::SnapSrcPathOptions& options,
                                                                           bool alternate) {
    for (auto it = options.diskInfo.begin(); it != options.diskInfo.end(); ++it) {
        const std::string& key = alternate ? it->alternateDiskName : it->diskName;
        if (strcasecmp(key.c_str(), diskName.c_str()) == 0) return it;
    }
    return options.diskInfo.end();
}

int DataReaderVSExtent::OnSnapSrcPath(FSRSnapSrcPath* item) {
    if (!item) return ~0;
    const int instanceType = static_cast<int>(getVSInstanceType());
    const std::string path = item->sSnapSrcPath;
    KTlog(m_hLog, 1, "Received SnapSrcPath [%s] ", path.c_str());

    VirtualServer::SnapSrcPathOptions options;
    ProcessSnapSrcPathOptions(item->sOptionsXml.c_str(), options);
    m_bUseCBT = options.useCBT != 0;

    const bool alternate = !options.diskInfo.empty() && !options.diskInfo.front().alternateDiskName.empty();
    if (alternate) m_bMatchAnyVM = true;

    if (CheckForSnapPathProcessed(path.c_str())) {
        KTlog(m_hLog, 1, "Path:[%s] already processed", path.c_str());
        return 0;
    }

    const std::vector<std::string> tokens = SplitSnapSrcPath(path);
    if (tokens.empty() || tokens.size() >= 4) {
        KTlog(m_hLog, 1, "Error parsing the VM Guid from the snap source path [%s]", path.c_str());
        return ~0;
    }
    std::string vmGuid = tokens[0];
    const std::string diskToken = tokens.size() > 1 ? tokens[1] : std::string();
    const std::string extentToken = tokens.size() > 2 ? tokens[2] : std::string();
    KTlog(m_hLog, 1, "Parsed SnapSrcPath VM [%s] Disk [%s] Extent [%s] ", vmGuid.c_str(), diskToken.c_str(),
          extentToken.c_str());

    DataReaderVMCtx vmCtx;
    if (!GetVMMountContext(vmGuid, vmCtx)) {
        KTlog(m_hLog, 1, "Mounting VM [%s] ", vmGuid.c_str());
        CloseAllDiskHandles();
        const int rc = MountVM(vmGuid, vmCtx, options.mountDiskNames);
        if (rc != 0) return rc;
        const int hdr = SendVMHeader(vmGuid);
        if (hdr != 0) return hdr;
    }

    std::vector<DataReaderVSExent_VMMountInfo> items;
    const int mountType = static_cast<int>(getMountType());
    const int info = mountType == 1 || mountType == 3 ? GetFileMountInfo(vmGuid, vmCtx.mountCtx, items)
                                                      : GetFullMountInfo(vmGuid, vmCtx.mountCtx, items);
    if (info != 0) return ~0;

    // Disk descriptions go out before any configuration file or disk data.
    CArchiveVirtualDiskFile* disk = nullptr;
    std::string diskKey = diskToken;
    if (diskToken.empty() || !GetDiskHandle(diskKey, disk)) {
        for (DataReaderVSExent_VMMountInfo& rec : items) {
            if (rec.backupType != 1) continue;
            KTlog(m_hLog, 1, "Send Disk Header for:[%s] and Path:[%s]", diskToken.c_str(), rec.name.c_str());
            bool processed = false;
            std::string changeId;
            std::string altName;
            auto opt = GetDiskRestoreOptions(rec.name, options, alternate);
            if (opt != options.diskInfo.end()) {
                processed = opt->processed != 0;
                changeId = opt->changeId;
                altName = opt->diskName;
                KTlog(m_hLog, 1,
                      "%s: Disk [%s]: Already processed in a previous attempt of the job? [%s], Using CBT id [%s]", kFn,
                      rec.name.c_str(), processed ? "Yes" : "No", changeId.empty() ? "N/A" : changeId.c_str());
            }
            if (processed) continue;
            CArchiveVirtualDiskFile* handle = nullptr;
            const int open =
                OpenDiskHandle(vmCtx.mountCtx, rec.path, rec.name, rec.productType, rec.diskType, changeId, handle);
            if (open != 0) return open;
            std::string& headerName = alternate ? altName : rec.name;
            const int hdr = SendDiskHeader(vmGuid, headerName, rec.extra, static_cast<unsigned>(rec.productType),
                                           static_cast<unsigned>(rec.diskType), rec.size, handle);
            if (hdr != 0) return hdr;
        }
    }

    unsigned itemsSent = 0;
    for (DataReaderVSExent_VMMountInfo& rec : items) {
        if (!diskToken.empty() && diskToken != rec.name) continue;
        if (rec.backupType == 0) {
            if (alternate) continue;
            const int rc = SendConfigFile(vmGuid, rec.name, rec.extra, static_cast<unsigned>(rec.productType),
                                          static_cast<unsigned>(rec.diskType), rec.size, rec.path);
            if (rc != 0) return rc;
            m_processedSnapPaths[path] = true;
            ++itemsSent;
            continue;
        }
        bool processed = false;
        unsigned long long startExtent = 0;
        bool skipUnchanged = false;
        std::string altName;
        auto opt = GetDiskRestoreOptions(rec.name, options, alternate);
        if (opt != options.diskInfo.end()) {
            processed = opt->processed != 0;
            startExtent = static_cast<unsigned long long>(opt->startExtent);
            altName = opt->diskName;
            skipUnchanged = !opt->changeId.empty();
            KTlog(m_hLog, 1, "%s: Disk [%s]: Starting Reading from Extent [0x%llx], Skip Unchanged Extents? [%s]", kFn,
                  rec.name.c_str(), startExtent, skipUnchanged ? "Yes" : "No");
        }
        if (processed) {
            ++itemsSent;
            continue;
        }
        if (!GetDiskHandle(rec.name, disk)) {
            KTlog(m_hLog, 1, "No valid Disk Handle for Disk:[%s]", diskToken.c_str());
            return ~0;
        }
        if (extentToken.empty()) {
            std::string name = alternate ? altName : rec.name;
            const int meta = SendDiskMetadata(vmGuid, name, rec.extra, static_cast<unsigned>(rec.productType),
                                              static_cast<unsigned>(rec.diskType), rec.size, disk);
            if (meta != 0) return meta;
            const int ext = SendEntireDiskExtents(vmGuid, name, skipUnchanged, startExtent, disk);
            if (ext != 0) return ext;
            if (m_pArchive) m_pArchive->sendDiskReadCompleted(vmGuid, name, rec.changeId);
        }
        m_processedSnapPaths[path] = true;
        ++itemsSent;
    }

    if (itemsSent == 0) {
        if (instanceType != 102 || !diskToken.empty()) {
            KTlog(m_hLog, 1, "No items sent for [%s] [%s]", vmGuid.c_str(), diskToken.c_str());
            return ~0;
        }
        uint32_t count = 0;
        const uint64_t afileId = m_afileIds.empty() ? 0 : m_afileIds.front().afileId;
        if (m_pVMInfo) m_pVMInfo->GetVMDisksOnVolume(vmCtx.mountCtx, afileId, count);
        if (count != 0) {
            KTlog(m_hLog, 1, "No items sent for [%s] [%s]", vmGuid.c_str(), diskToken.c_str());
            return ~0;
        }
        KTlog(m_hLog, 1, "No active disk(s) found for VM Guid[%s] on volume represented by archive FileId[%d]",
              vmGuid.c_str(), static_cast<int>(afileId));
    }

    if (!extentToken.empty()) {
        std::string key = diskToken;
        GetDiskHandle(key, disk);
        const int rc = SendSpecificDiskExtent(vmGuid, diskToken, extentToken, disk);
        if (rc != 0) return rc;
        m_processedSnapPaths[path] = true;
        return 0;
    }
    if (m_pArchive) m_pArchive->sendVMReadCompleted(vmGuid);
    return 0;
}
