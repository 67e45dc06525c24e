// Extent reader: one item (a VM, one of its disks, or one extent of a disk) from its
// snap source path and options.
#include "DataReaderVSExtent.h"

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
    return FindDiskOptions(diskName, options, alternate);
}

int DataReaderVSExtent::OnSnapSrcPath(FSRSnapSrcPath* item) {
    if (!item) return ~0;
    ItemScope s;
    s.path = item->sSnapSrcPath;
    KTlog(m_hLog, 1, "Received SnapSrcPath [%s] ", s.path.c_str());

    ProcessSnapSrcPathOptions(item->sOptionsXml.c_str(), s.options);
    m_bUseCBT = s.options.useCBT != 0;

    s.alternate = !s.options.diskInfo.empty() && !s.options.diskInfo.front().alternateDiskName.empty();
    if (s.alternate) m_bMatchAnyVM = true;

    if (CheckForSnapPathProcessed(s.path.c_str())) {
        KTlog(m_hLog, 1, "Path:[%s] already processed", s.path.c_str());
        return 0;
    }

    const std::vector<std::string> tokens = SplitSnapSrcPath(s.path);
    if (tokens.empty() || tokens.size() >= 4) {
        KTlog(m_hLog, 1, "Error parsing the VM Guid from the snap source path [%s]", s.path.c_str());
        return ~0;
    }
    s.vmGuid = tokens[0];
    s.diskToken = tokens.size() > 1 ? tokens[1] : std::string();
    s.extentToken = tokens.size() > 2 ? tokens[2] : std::string();
    KTlog(m_hLog, 1, "Parsed SnapSrcPath VM [%s] Disk [%s] Extent [%s] ", s.vmGuid.c_str(), s.diskToken.c_str(),
          s.extentToken.c_str());

    if (!GetVMMountContext(s.vmGuid, s.vmCtx)) {
        KTlog(m_hLog, 1, "Mounting VM [%s] ", s.vmGuid.c_str());
        CloseAllDiskHandles();
        const int rc = MountVM(s.vmGuid, s.vmCtx, s.options.mountDiskNames);
        if (rc != 0) return rc;
        const int hdr = SendVMHeader(s.vmGuid);
        if (hdr != 0) return hdr;
    }

    const int mountType = static_cast<int>(getMountType());
    const int info = mountType == 1 || mountType == 3 ? GetFileMountInfo(s.vmGuid, s.vmCtx.mountCtx, s.items)
                                                      : GetFullMountInfo(s.vmGuid, s.vmCtx.mountCtx, s.items);
    if (info != 0) return ~0;

    // Disk descriptions go out before any configuration file or disk data.
    if (const int rc = SendDiskHeaders(s); rc != 0) return rc;
    unsigned itemsSent = 0;
    if (const int rc = SendItems(s, itemsSent); rc != 0) return rc;
    if (itemsSent == 0) {
        if (const int rc = CheckNothingSent(s); rc != 0) return rc;
    }

    if (!s.extentToken.empty()) {
        std::string key = s.diskToken;
        GetDiskHandle(key, s.disk);
        const int rc = SendSpecificDiskExtent(s.vmGuid, s.diskToken, s.extentToken, s.disk);
        if (rc != 0) return rc;
        m_processedSnapPaths[s.path] = true;
        return 0;
    }
    if (m_pArchive) m_pArchive->sendVMReadCompleted(s.vmGuid);
    return 0;
}

// The disk-info of every disk not done in an earlier attempt, each disk opened for it.
int DataReaderVSExtent::SendDiskHeaders(ItemScope& s) {
    std::string diskKey = s.diskToken;
    if (!s.diskToken.empty() && GetDiskHandle(diskKey, s.disk)) return 0;
    for (DataReaderVSExent_VMMountInfo& rec : s.items) {
        if (rec.backupType != 1) continue;
        KTlog(m_hLog, 1, "Send Disk Header for:[%s] and Path:[%s]", s.diskToken.c_str(), rec.name.c_str());
        bool processed = false;
        std::string changeId;
        std::string altName;
        auto opt = GetDiskRestoreOptions(rec.name, s.options, s.alternate);
        if (opt != s.options.diskInfo.end()) {
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
            OpenDiskHandle(s.vmCtx.mountCtx, rec.path, rec.name, rec.productType, rec.diskType, changeId, handle);
        if (open != 0) return open;
        std::string& headerName = s.alternate ? altName : rec.name;
        const int hdr = SendDiskHeader(s.vmGuid, headerName, rec.extra, static_cast<unsigned>(rec.productType),
                                       static_cast<unsigned>(rec.diskType), rec.size, handle);
        if (hdr != 0) return hdr;
    }
    return 0;
}

// Configuration files, then each disk's metadata and extents; counts what the item covered.
int DataReaderVSExtent::SendItems(ItemScope& s, unsigned& itemsSent) {
    for (DataReaderVSExent_VMMountInfo& rec : s.items) {
        if (!s.diskToken.empty() && s.diskToken != rec.name) continue;
        if (rec.backupType == 0) {
            if (s.alternate) continue;
            const int rc = SendConfigFile(s.vmGuid, rec.name, rec.extra, static_cast<unsigned>(rec.productType),
                                          static_cast<unsigned>(rec.diskType), rec.size, rec.path);
            if (rc != 0) return rc;
            m_processedSnapPaths[s.path] = true;
            ++itemsSent;
            continue;
        }
        bool processed = false;
        unsigned long long startExtent = 0;
        bool skipUnchanged = false;
        std::string altName;
        auto opt = GetDiskRestoreOptions(rec.name, s.options, s.alternate);
        if (opt != s.options.diskInfo.end()) {
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
        if (!GetDiskHandle(rec.name, s.disk)) {
            KTlog(m_hLog, 1, "No valid Disk Handle for Disk:[%s]", s.diskToken.c_str());
            return ~0;
        }
        if (s.extentToken.empty()) {
            std::string name = s.alternate ? altName : rec.name;
            const int meta = SendDiskMetadata(s.vmGuid, name, rec.extra, static_cast<unsigned>(rec.productType),
                                              static_cast<unsigned>(rec.diskType), rec.size, s.disk);
            if (meta != 0) return meta;
            const int ext = SendEntireDiskExtents(s.vmGuid, name, skipUnchanged, startExtent, s.disk);
            if (ext != 0) return ext;
            if (m_pArchive) m_pArchive->sendDiskReadCompleted(s.vmGuid, name, rec.changeId);
        }
        m_processedSnapPaths[s.path] = true;
        ++itemsSent;
    }
    return 0;
}

// An item that sent nothing fails, unless it is a VM of a per-volume job with no disk on
// this archive file's volume.
int DataReaderVSExtent::CheckNothingSent(ItemScope& s) {
    const int instanceType = static_cast<int>(getVSInstanceType());
    if (instanceType != 102 || !s.diskToken.empty()) {
        KTlog(m_hLog, 1, "No items sent for [%s] [%s]", s.vmGuid.c_str(), s.diskToken.c_str());
        return ~0;
    }
    uint32_t count = 0;
    const uint64_t afileId = m_afileIds.empty() ? 0 : m_afileIds.front().afileId;
    if (m_pVMInfo) m_pVMInfo->GetVMDisksOnVolume(s.vmCtx.mountCtx, afileId, count);
    if (count != 0) {
        KTlog(m_hLog, 1, "No items sent for [%s] [%s]", s.vmGuid.c_str(), s.diskToken.c_str());
        return ~0;
    }
    KTlog(m_hLog, 1, "No active disk(s) found for VM Guid[%s] on volume represented by archive FileId[%d]",
          s.vmGuid.c_str(), static_cast<int>(afileId));
    return 0;
}
