// Mounting and unmounting the storage snapshot that holds the archive files.
#include "DataReaderVSBase.h"

#include "hostapi/armgr.h"

int DataReaderVSBase::MountSnap() {
    // Snapshot mounting arrives with the datastore snapshot support of the VM-info
    // library; until then a snap restore cannot be opened.
    KTlog(m_hLog, 1, "%s: Snapshot mounting is not available in this build.", "DataReaderVSBase::MountSnap");
    return -1;
}

unsigned long DataReaderVSBase::GetCopyPrecedence() {
    CopyPrecedenceReq request;
    request.archGroupId = m_openArchiveParams.archGroupId;
    request.copyId = m_openArchiveParams.copyId;
    KTlog(m_hLog, 1, "Converting Copy ID: [%lu], ArchGroup: [%lu]", request.copyId, request.archGroupId);

    unsigned long precedence = 0;
    const int rc = ArMgrClientAPI::convertCopyIdToCopyPrecedence(request, precedence);
    if (rc != 0) {
        // The mount goes on with precedence 0, meaning "not known".
        KTlog(m_hLog, -1, "Failed to convert to copy precedence. Return: [%d]", rc);
        return 0;
    }
    KTlog(m_hLog, 1, "Copy Precedence: [%lu]", precedence);
    return precedence;
}

int DataReaderVSBase::UnMountSnap() {
    for (MountCtx& ctx : m_mountCtxs) {
        const unsigned long afileId = ctx.afileIds.empty() ? 0UL : static_cast<unsigned long>(ctx.afileIds.front());
        KTlog(m_hLog, 1, "%s: UnMounting snapshot for archive file Id [%lu] cliendId [%lu].",
              "DataReaderVSBase::UnMountPath", afileId, static_cast<unsigned long>(ctx.nClientId));
        if (m_pVMInfo && m_pVMInfo->UnMountSnap(ctx) == 0) KTlog(m_hLog, 1, "UnMount Snap Failed");
    }
    // The contexts stay: a later call tries the same unmounts again.
    return 0;
}
