// File-level reader: single files of a mounted guest volume, listed in a collect file
// and sent through the host's file-backup writer.
#pragma once

#include "DataReaderVSBase.h"

#include "hostapi/archive.h"
#include "hostapi/filebackup.h"
#include "hostapi/fileutil.h"

#include <cstdio>
#include <map>
#include <set>
#include <string>

// What one item asks for: whether to filter names, whether to recurse, the client path
// after stripping and the name pattern.
struct SnapSrcPath {
    bool m_bFilter = false;
    bool m_bFlag2 = false;
    bool m_bRecurse = false;
    std::string m_SnapSrcPath;
    std::string m_sFilePattern;
    std::string m_sText3;
    std::string m_sText4;
    std::string m_sText5;
    std::string m_sText6;
};

class DataReaderVMware : public DataReaderVSBase {
public:
    DataReaderVMware(CPipelayer* pipelayer, KtEvent* event, long long jobId);
    ~DataReaderVMware() override;

    int Initialize() override;
    int OpenArchiveFile(const DMInitParams& initParams, const DMOpenArchiveParams& openParams) override;
    using DataReaderVSBase::Close;
    using DataReaderVSBase::OnSnapSrcPath;
    using DataReaderVSBase::PreOpenArchiveFile;

    // Operations this reader adds, in the host's slot order.
    virtual unsigned OnSnapSrcPath(const char* snapSrcPath);
    virtual long PreOpenArchiveFile(char* aFileList, unsigned long value);
    virtual unsigned SendFiles(const char* name);
    virtual bool SendComponentRestoreMsgHdr(const FSRSnapSrcPath& item);
    virtual unsigned CreateListOfFilesToRead(const FSRSnapSrcPath& item, std::string& out);
    bool ParseClientPath(const FSRSnapSrcPath& item);
    std::string LocalPathOfVolume();
    bool WriteList(const FSRSnapSrcPath& item, const std::string& completeLocalPath);
    virtual unsigned Close();
    virtual bool isValid() { return m_bValid; }
    virtual bool EnableReadSecurityOnly(bool enable) { return enable; }

    static CQiError PathWalkerStatic(const char* dir, const char* name, bool flag, void* ctx);
    CQiError PathWalker(const char* dir, const char* name, bool flag);
    bool GetAFileListForVM(std::string& vmGuid, std::set<unsigned>& archiveFileIds);
    unsigned GetFileMountInfo(std::string& vmGuid, DataReaderVMCtx& ctx);
    unsigned countLines(const char* path);
    bool isStopSignaled();
    unsigned cleanUp();
    bool deleteFileWithListOfFile(std::string name);

protected:
    CPipelayer* m_pPipe = nullptr;
    ClBackupFile* m_pClBackup = nullptr;
    FSIDANameMapper* m_pNameMapper = nullptr;
    DMInitParams m_fileInitParams;
    DMOpenArchiveParams m_fileOpenParams{};
    SnapSrcPath m_snapSrc;
    std::string m_sSnapMountPath;
    std::string m_sPathToRestore;
    std::string m_sFileName;
    std::string m_sOrigClientMountPath;
    FILE* m_pCollectFile = nullptr;
    std::string m_sArchiveName;
    std::string m_sCollectFileName;
    std::string m_sVMGuid;
    std::string m_sVolGuid;
    unsigned long m_nPreOpenArg = 0;
    vsArchive* m_pArchive = nullptr;
    vsSim m_vsSim;
    std::map<std::string, std::string> m_volumeMap;
    // "<VM GUID>\<volume GUID or name>\" upper case -> local mount path, upper case.
    std::map<std::string, std::string> VMGuidVolGuidToVolumePathMap;
    KtEvent* m_pStopEvent = nullptr;
    bool m_bValid = false;
};
