// File-level reader: an item's VM and guest volume, the VM mounted through live browse,
// and where each of its volumes lives.
#include "DataReaderVMware.h"

#include <strings.h>

unsigned DataReaderVMware::OnSnapSrcPath(const char* snapSrcPath) {
    const std::string path = snapSrcPath ? snapSrcPath : "";
    KTlog(m_hLog, 3, "Received SnapSrcPath [%s] ", path.c_str());
    // Paths come from a Windows client: a forward slash means the wrong kind of client.
    if (path.find('/') != std::string::npos) {
        KTlog(m_hLog, 1, "[ERROR] Linux path received for restore to a Windows MA.[%s]", path.c_str());
        return ~0u;
    }
    std::vector<CQiString> tokens;
    CQiString(path).Tokenize(tokens, '\\');
    if (tokens.size() < 2 || tokens[0].empty() || tokens[1].empty()) {
        KTlog(m_hLog, 1, "Error parsing the VM Guid from the snap source path [%s]", path.c_str());
        return ~0u;
    }
    m_sVMGuid = tokens[0];
    m_sVolGuid = tokens[1];
    DataReaderVMCtx ctx;
    KTlog(m_hLog, 3, "Setting Mount Method VCB4.");
    ctx.mountCtx.nMountMode = 2;
    KTlog(m_hLog, 3, "Parsed SnapSrcPath VM [%s] with Volume GUID:[%s]", m_sVMGuid.c_str(), m_sVolGuid.c_str());

    std::set<unsigned> ids;
    GetAFileListForVM(m_sVMGuid, ids);
    if (ids.empty()) {
        if (!m_afileIds.empty())
            ids.insert(static_cast<unsigned>(m_afileIds.front().afileId));
        else
            ids.insert(m_fileOpenParams.archiveFileId);
    }
    if (ids.empty()) {
        KTlog(m_hLog, 2, "Failed to get Archive file list for VM:[%s]", m_sVMGuid.c_str());
        return ~0u;
    }

    const unsigned afileId = *ids.begin();
    boost::shared_ptr<VMLivebrowse> browse = VMLivebrowse::GetLivebrowseObject(
        afileId, static_cast<unsigned>(m_vsInstanceType), false, false, static_cast<LiveBrowseMountPurpose>(0));
    if (!browse) {
        KTlog(m_hLog, KTLOG_ALWAYS, "Failed to acquire live browse object");
        return ~0u;
    }
    std::string mounted;
    VirtualServer::LBError error(26, 110);
    if (!browse->MountVM(m_sVMGuid, ctx.mountInfoFiles, mounted, error, 0, 0)) {
        KTlog(m_hLog, KTLOG_ALWAYS, "Failed to mount VM");
        VMLivebrowse::ReleaseLivebrowseObject(afileId, browse);
        return ~0u;
    }
    // The VM stays mounted; only the object goes back.
    VMLivebrowse::ReleaseLivebrowseObject(afileId, browse);

    if (GetFileMountInfo(m_sVMGuid, ctx) == ~0u) {
        KTlog(m_hLog, 1, "Failed to get the file mount info");
        return ~0u;
    }
    return 0;
}

bool DataReaderVMware::GetAFileListForVM(std::string& vmGuid, std::set<unsigned>& archiveFileIds) {
    for (size_t i = 0; i < m_mountCtxs.size(); ++i) {
        const MountCtx& snap = m_mountCtxs[i];
        const unsigned snapAfile = snap.afileIds.empty() ? 0u : static_cast<unsigned>(snap.afileIds.front());
        KTlog(m_hLog, 3, "[%d]  [afile - %u] [Snap engine - %u] [vm - %s]", static_cast<int>(i), snapAfile,
              static_cast<unsigned>(snap.nSnapEngineId), snap.sVMName.c_str());
        for (const SVolSnap& group : snap.volSnaps) {
            for (const std::string& guid : group.vmGuids) {
                KTlog(m_hLog, 3, "Archive File ID [%d] ", static_cast<int>(group.ullAfileId));
                if (guid.size() == vmGuid.size() && strcasecmp(guid.c_str(), vmGuid.c_str()) == 0)
                    archiveFileIds.insert(isVMImageSnap(snap.nSnapEngineId) ? snapAfile
                                                                            : static_cast<unsigned>(group.ullAfileId));
            }
        }
    }
    return true;
}

unsigned DataReaderVMware::GetFileMountInfo(std::string& vmGuid, DataReaderVMCtx& ctx) {
    static const std::string kVolumePrefix = "\\\\?\\Volume{";
    for (const VMInfoStructs::SMountInfoFile& entry : ctx.mountInfoFiles) {
        KTlog(m_hLog, 3, "Mount Path:[%s] ", entry.sLocalMountPath.c_str());
        std::string volume;
        if (ctx.mountCtx.nMountMode != 2 && static_cast<int>(m_vsInstanceType) != 102) {
            volume = entry.sDevicePath;
            if (volume.compare(0, kVolumePrefix.size(), kVolumePrefix) == 0 &&
                volume.size() >= kVolumePrefix.size() + 2)
                volume = volume.substr(kVolumePrefix.size(), volume.size() - kVolumePrefix.size() - 2);
            KTlog(m_hLog, 1, "For VCBMounter GUID for VOL:[%s] ", volume.c_str());
        } else {
            volume = entry.sVolumeGuid;
        }
        const std::string value = FXString::ToUpper(entry.sLocalMountPath);
        const std::string key = FXString::ToUpper(vmGuid + "\\" + volume + "\\");
        KTlog(m_hLog, 3, "VMVOL GUID [%s] ", key.c_str());
        VMGuidVolGuidToVolumePathMap[key] = value;
        if (!entry.sVolumeName.empty()) {
            const std::string nameKey = FXString::ToUpper(vmGuid + "\\" + entry.sVolumeName + "\\");
            KTlog(m_hLog, 3, "VMVOL NAME [%s] ", nameKey.c_str());
            VMGuidVolGuidToVolumePathMap[nameKey] = value;
        }
    }
    return 1;
}
