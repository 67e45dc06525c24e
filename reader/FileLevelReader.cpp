// File-level reader: creation, initialisation, opening, closing and destruction, and
// the collect file's removal.
#include "DataReaderVMware.h"

#include <unistd.h>
#include <new>

DataReaderVMware::DataReaderVMware(CPipelayer* pipelayer, KtEvent* event, long long jobId)
    : DataReaderVSBase(pipelayer, event, jobId) {
    InitKTLog("DM_VSVMWARE", "nDATAMOVERVSWARE", jobId);
    if (!pipelayer) {
        KTlog(m_hLog, 1, "Invalid pipelayer pointer passed in.");
        m_bValid = false;
        return;
    }
    if (!event) {
        KTlog(m_hLog, 1, "Invalid KtEvent pointer passed in.");
        m_bValid = false;
        return;
    }
    m_pStopEvent = event;
    m_pPipe = pipelayer;
    m_fileOpenParams = DMOpenArchiveParams{};
    m_pCollectFile = nullptr;
    m_nPreOpenArg = 0;
    m_pArchive = nullptr;
    m_guiSequenceNumber = -1;
    m_bValid = true;
}

DataReaderVMware::~DataReaderVMware() {
    if (m_pCollectFile) (void)std::fclose(m_pCollectFile);  // left open by a failed listing
    m_pCollectFile = nullptr;
    cleanUp();
    m_pPipe = nullptr;
    delete m_pClBackup;
    m_pClBackup = nullptr;
    delete m_pNameMapper;
    m_pNameMapper = nullptr;
    // A finishing close: the stream of a job that ran to its end gets its trailer (a
    // stopped job's owner abandons the stream first). It comes before the log goes,
    // since the writer reports through the reader's log.
    if (m_pArchive) m_pArchive->close(true);
    KTlog(m_hLog, 1, "DataReaderVMware deleted successfully.");
    delete m_hLog;
    m_hLog = nullptr;
    delete m_pArchive;
    m_pArchive = nullptr;
    cleanUp();
}

int DataReaderVMware::Initialize() {
    const int rc = DataReaderVSBase::Initialize();
    if (rc != 0) return rc;

    m_sArchiveName = m_sShortClientName;
    if (CreateArchiveWriter(m_pPipe, &m_vsSim, m_sArchiveName, m_pArchive) != 0) return ~0;
    m_pClBackup = new (std::nothrow) ClBackupFile(m_pPipe, m_pStopEvent, true);
    if (!m_pClBackup) {
        KTlog(m_hLog, 1, "Failed to allocate ClBackupW2kFile object.");
        m_bValid = false;
        return ~0;
    }
    m_pNameMapper = new (std::nothrow) FSIDANameMapper;
    if (!m_pNameMapper) {
        KTlog(m_hLog, 1, "Failed to allocate OpenFileManager object.");
        m_bValid = false;
        return ~0;
    }
    m_pClBackup->setFNameMapper(m_pNameMapper);
    return 0;
}

int DataReaderVMware::OpenArchiveFile(const DMInitParams& initParams, const DMOpenArchiveParams& openParams) {
    if (!m_pPipe) {
        KTlog(m_hLog, 1, "CPipelayer object is not initialized.");
        return ~0;
    }
    if (!m_pClBackup) {
        KTlog(m_hLog, 1, "ClBackupW2kFile object is not initialized.");
        return ~0;
    }
    if (!m_sCollectFileName.empty()) deleteFileWithListOfFile(m_sCollectFileName);
    m_sSnapMountPath.clear();
    m_sOrigClientMountPath.clear();
    m_sPathToRestore.clear();
    m_sFileName.clear();
    m_sCollectFileName.clear();

    m_fileInitParams = initParams;
    const std::string appId = FXString::Format("%lu:%lu", initParams.appId1, initParams.appId2);
    KTlog(m_hLog, 1, "App ID String is : [%s].", appId.c_str());

    m_fileOpenParams = openParams;
    m_pPipe->SetArchiveFileId(openParams.archiveFileId);
    // The base keeps its own copy only once it is opened, below: the job's identity
    // comes from this open's parameters.
    m_pPipe->SetJobId(m_fileInitParams.jobId);
    m_pPipe->SetJobToken(m_fileInitParams.jobToken);

    void* out1 = nullptr;
    void* out2 = nullptr;
    if (m_pClBackup->Init(6, 0, &out1, &out2) != 0) {
        KTlog(m_hLog, 1, "Failed to initialize ClBackupW2kFile object.");
        return ~0;
    }
    return DataReaderVSBase::OpenArchiveFile(initParams, openParams);
}

long DataReaderVMware::PreOpenArchiveFile(char* aFileList, unsigned long value) {
    m_nPreOpenArg = value;
    m_bSnapRestore = value == 0;
    return DataReaderVSBase::PreOpenArchiveFile(aFileList);
}

unsigned DataReaderVMware::Close() {
    return static_cast<unsigned>(DataReaderVSBase::Close(1));
}

bool DataReaderVMware::isStopSignaled() {
    if (m_pStopEvent && m_pStopEvent->wait(0)) {
        KTlog(m_hLog, 1, "%s: Stop signaled by FsRestoreHead.", "DataReaderVMware::isStopSignaled");
        return true;
    }
    return false;
}

unsigned DataReaderVMware::cleanUp() {
    if (!m_sCollectFileName.empty()) {
        deleteFileWithListOfFile(m_sCollectFileName);
        m_sCollectFileName.clear();
    }
    return Close();
}

// Takes the name by value: the caller may pass the member it clears afterwards.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
bool DataReaderVMware::deleteFileWithListOfFile(std::string name) {
    static const char* const kFn = "DataReaderVMware::deleteTmpCollectFile";
    if (name.empty()) return true;
    if (::unlink(name.c_str()) == 0) {
        KTlog(m_hLog, 1, "%s: Successfully deleted Collect file [%s] containing list of files to restore.", kFn,
              name.c_str());
        return true;
    }
    KTlog(m_hLog, 1, "%s: Failed to delete Collect file [%s] containing list of files to restore.", kFn, name.c_str());
    return false;
}
