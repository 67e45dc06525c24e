// File-level reader: every file of a collect file sent through the file-backup writer.
#include "DataReaderVMware.h"

#include <fstream>

unsigned DataReaderVMware::SendFiles(const char* name) {
    static const char* const kFn = "DataReaderVMware::SendFiles";
    if (!name) {
        KTlog(m_hLog, 1, "%s: Passed in collect file name is NULL.", kFn);
        return ~0u;
    }
    subclientFiles files;
    (void)std::snprintf(files.sCollectFile, sizeof files.sCollectFile, "%s", name);
    KTlog(m_hLog, 3, "%s: collect File: [%s]. Total number of files to be sent: [%d].", kFn, name,
          static_cast<int>(countLines(name)));

    std::ifstream list(name);
    if (!list.good()) {
        KTlog(m_hLog, 1, "%s: Failed to open collect file.", kFn);
        return ~0u;
    }
    if (!m_pClBackup) {
        KTlog(m_hLog, 1, "%s: ClBackupW2kFile object is not initialized.", kFn);
        return ~0u;
    }
    m_pClBackup->setErrorsTolerated(true);
    for (;;) {
        const int opened = m_pClBackup->OpenFilesForBackup(files, list, 0, 0, std::string());
        if (opened == ClBackupFile::kFailBackup) {
            KTlog(m_hLog, 1, "%s: Open Files For Backup indicates FAIL_BACKUP.", kFn);
            return ~0u;
        }
        if (opened != ClBackupFile::kOk) break;  // the list is done
        // Nothing has been sent for the file just opened: it is left out whole.
        if (isStopSignaled()) return ~0u;
        if (m_pClBackup->CheckFile(files, 0) != 0) continue;
        if (m_pClBackup->SendHeader(0) == ClBackupFile::kFailBackup) {
            KTlog(m_hLog, 1, "%s: SendHeader indicates FAIL_BACKUP.", kFn);
            return ~0u;
        }
        const int data = m_pClBackup->ReadAndSendFileData(0);
        if (data == ClBackupFile::kFailBackup) {
            KTlog(m_hLog, 1, "%s: ReadAndSendFileData indicates FAIL_BACKUP.", kFn);
            return ~0u;
        }
        if (data == ClBackupFile::kFileFailed) {
            if (m_pClBackup->SendEndOfFileMessage(ClBackupFile::EOF_BAD) != 0) {
                KTlog(m_hLog, 1, "%s: returning after SendEndOfFileMessage(EOF_BAD).", kFn);
                return ~0u;
            }
            continue;
        }
        if (m_pClBackup->SendEndOfFileMessage(ClBackupFile::EOF_GOOD) != 0) {
            KTlog(m_hLog, 1, "%s: returning after SendEndOfFileMessage(EOF_GOOD).", kFn);
            return ~0u;
        }
    }
    return 0;
}

bool DataReaderVMware::SendComponentRestoreMsgHdr(const FSRSnapSrcPath&) {
    static const char* const kFn = "DataReaderVMware::SendComponentRestoreMsgHdr";
    if (m_pClBackup)
        KTlog(m_hLog, 1, "%s: Sending dummy Component Restore Message header", kFn);
    else
        KTlog(m_hLog, 1, "%s: ClBackup reader is null.", kFn);
    return true;
}
