// File-collection reader: the nodes of one opened disk, each as a collection header,
// its data in pieces of at most 4 KiB, and an end-of-file.
#include "DataReaderVSFileCollection.h"

#include <algorithm>

namespace {

constexpr unsigned long kPieceBytes = 4096;

}  // namespace

unsigned DataReaderVSFileCollection::SendFiles(const std::string& vmName, const std::string& diskName, bool,
                                               unsigned long long, CFileCollection* collection) {
    KTlog(m_hLog, 1, "Sending disk/volume [%s]", diskName.c_str());
    if (!collection || !m_pArchive) {
        KTlog(m_hLog, 1, "Failed to get next node during backing up file collection.");
        return ~0u;
    }
    unsigned long long offset = 0;  // data bytes of the disk sent so far
    for (;;) {
        if (IsStopSignaled()) {
            KTlog(m_hLog, 1, "Received job interruption flag...");
            // The next Close is then the last one, and unmounts.
            m_afileRefCount = 1;
            break;
        }
        SFileNode node;
        CQiError err = collection->GetNextNode(node);
        if (err.IsError()) {
            if (FXErrorUtil::IsVS(err, VS_ERROR_END_OF_COLLECTION)) break;
            KTlog(m_hLog, 1, "Failed to get next node during backing up file collection.");
            return ~0u;
        }
        const std::string path = FXString::Format("\\%s\\%s\\%s", vmName.c_str(), diskName.c_str(), node.sName.c_str());
        // The two values after the attributes go out second first; readers of the
        // stream expect them in that order.
        m_pArchive->sendFCFileHeader(path, static_cast<unsigned long long>(node.llSize), node.llDataOffset, false,
                                     false, 1, 0, 0, node.ullFileId, false, true, node.ullChangeTime,
                                     node.ullAccessTime, node.ullModifyTime, node.nAttributes, node.ullDataEnd,
                                     node.ullParentNumber, node.nMode, node.nUid, node.nGid, node.nLinks);
        KTlog(m_hLog, 2, "Backing up node [%s] inside file collection, node size [%lld]", path.c_str(), node.llSize);

        if (node.llSize != 0) {
            // Every request asks for the same piece; the node ends when a read yields nothing.
            const unsigned long piece = static_cast<unsigned long>(
                std::min<unsigned long long>(static_cast<unsigned long long>(node.llSize), kPieceBytes));
            unsigned long long nodeBytes = 0;
            auto transfer = [&]() -> bool {
                for (;;) {
                    char* buffer = nullptr;
                    unsigned long granted = 0;
                    if (m_pArchive->isError(collection->GetBuffer(node, piece, &buffer, &granted))) {
                        KTlog(m_hLog, 1, "Failed to allocate pipeline buffer");
                        m_pArchive->sendEOF(false, 0);
                        return false;
                    }
                    unsigned long read = 0;
                    err = collection->ReadNode(node, buffer, granted, read);
                    if (err.IsError()) {
                        // The node stays open: what was read of it cannot be vouched for.
                        KTlog(m_hLog, 1, "Failed to backup file collection %s due to %s", diskName.c_str(),
                              err.AsString().c_str());
                        return false;
                    }
                    if (read == 0) {
                        m_pArchive->freeBuffer();
                        return true;
                    }
                    if (m_pArchive->isError(collection->SendBuffer(node, buffer, read))) {
                        KTlog(m_hLog, 1, "Failed to send pipeline data buffer for file [%s]", diskName.c_str());
                        m_pArchive->sendEOF(false, 0);
                        return false;
                    }
                    nodeBytes += read;
                }
            };
            // A node's pieces are timed together: two clock reads per 4 KiB piece would
            // cost more than the piece's own bookkeeping.
            m_readSpeed.Start();
            const bool sent = transfer();
            m_readSpeed.Stop(nodeBytes);
            offset += nodeBytes;
            if (!sent) return ~0u;
        }
        m_pArchive->sendEOF(true, 0);
        KTlog(m_hLog, 1, "Done sending disk/volume [%s]", diskName.c_str());
    }
    KTlog(m_hLog, 2, "Sent [%llu] data bytes of disk/volume [%s]", offset, diskName.c_str());
    return 0;
}
