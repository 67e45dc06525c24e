// File-level backups: the live-browse mounts of guest volumes, the name mapper that
// turns client-form paths into local ones, and the file-backup writer that reads a
// collect file and sends each file it names.
#pragma once

#include "hostapi/VMInfoStructs.h"
#include "hostapi/archive.h"
#include "hostapi/event.h"
#include "hostapi/log.h"
#include "hostapi/types.h"

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <istream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class CPipelayer;

namespace VirtualServer {

// Error record of a live-browse operation: the two numbers name the message family and
// the message; the text says what failed.
class VS_HOST_API LBError {
public:
    LBError(int family, int message) : m_family(family), m_message(message) {}
    int family() const { return m_family; }
    int message() const { return m_message; }
    const std::string& text() const { return m_text; }
    void set(std::string text) { m_text = std::move(text); }

private:
    int m_family;
    int m_message;
    std::string m_text;
};

}  // namespace VirtualServer

enum LiveBrowseMountPurpose { LIVEBROWSE_PURPOSE_BROWSE = 0, LIVEBROWSE_PURPOSE_RESTORE = 1 };

// Guest volumes of VMs in a snapshot, mounted for file access. One object per archive
// file is shared by everyone who asks for it; VMs mounted through it stay mounted (and
// their volumes known to FindVolume) until UnmountAll, even after the object is
// released: a reader releases it as soon as its VM is mounted.
class VS_HOST_API VMLivebrowse {
public:
    // Empty when the archive file is unknown or its snapshot cannot be mounted (the
    // reason goes to the host log).
    static boost::shared_ptr<VMLivebrowse> GetLivebrowseObject(unsigned archiveFileId, unsigned instanceType, bool,
                                                               bool, LiveBrowseMountPurpose purpose);
    static void ReleaseLivebrowseObject(unsigned archiveFileId, boost::shared_ptr<VMLivebrowse> object);
    // Unmounts every VM and snapshot mounted for live browse (end of a job).
    static void UnmountAll();
    // Local folder of volume `volume` (its GUID or its name, case ignored) of mounted VM
    // `vmGuid` (BIOS or vCenter UUID, or display name, case ignored).
    static bool FindVolume(const std::string& vmGuid, const std::string& volume, std::string& localPath);
    // Local folder of the mounted guest volume that holds `path`, judged by the text of
    // the absolute path alone (nothing is looked at; a ".." that climbs out is refused).
    static bool FindVolumeOf(const std::string& path, std::string& localPath);

    virtual ~VMLivebrowse();                                                                                    // 1
    virtual unsigned ArchiveFileId() const { return m_afileId; }                                                // 2
    virtual bool IsVMMounted(const std::string& vmGuid) const;                                                  // 3
    virtual bool GetVolumes(const std::string& vmGuid, std::vector<VMInfoStructs::SMountInfoFile>& out) const;  // 4
    virtual bool UnMountVM(const std::string& vmGuid);                                                          // 5
    virtual int GetLastErrorCode() const { return m_lastError; }                                                // 6
    // Mounts a VM and lists its guest volumes: device path, volume GUID, local mount
    // path, name. True on success; else `error` says why.
    virtual bool MountVM(const std::string& vmGuid, std::vector<VMInfoStructs::SMountInfoFile>& volumes,
                         std::string& mountedName, VirtualServer::LBError& error, int, int);  // 7

    struct Session;

protected:
    VMLivebrowse(unsigned afileId, boost::shared_ptr<Session> session);

private:
    unsigned m_afileId;
    boost::shared_ptr<Session> m_session;
    int m_lastError = 0;
};

// Where a client-form path lies on this host: below `root`, at `relative` ("" is the
// root itself; components separated by "/", never "." or "..").
struct MappedPath {
    std::string root;
    std::string relative;
};

// Maps client-form paths ("<VM>\<volume>/dir/file") to local ones. A mapping with a
// local prefix maps what follows the client prefix below that prefix; a mapping with
// an empty local prefix resolves the client prefix's VM and volume through the
// live-browse mounts. A path is never mapped outside its volume: ".." components and
// paths that match no mapping are refused. (Links are the opener's business: it opens
// below the root only.)
class VS_HOST_API FSIDANameMapper {
public:
    FSIDANameMapper() = default;
    virtual ~FSIDANameMapper();
    virtual void ResetMappings();
    virtual void AddMapping(const std::string& clientPrefix, const std::string& localPrefix);
    // False with `why` when the path is refused or its volume cannot be found.
    virtual bool Map(const std::string& clientPath, MappedPath& out, std::string& why) const;

private:
    std::vector<std::pair<std::string, std::string>> m_mappings;
};

// The file in hand, as the writer fills it for its caller: two numbers, then text
// buffers; the second holds the collect file's path.
struct subclientFiles {
    uint64_t fileCount = 0;
    uint64_t byteCount = 0;
    char sCurrentFile[1025];
    char sCollectFile[1024];
    char sLocalPath[1024];
    char sReason[1024];

    subclientFiles() { Clear(); }
    void Clear() {
        fileCount = byteCount = 0;
        sCurrentFile[0] = sCollectFile[0] = sLocalPath[0] = sReason[0] = 0;
    }
};

// The file-backup writer. It reads a collect file one line at a time; each line names
// a file, a folder (sent with everything below it) or a link (sent as a link, never
// followed out of its volume) in client form, which the name mapper places on this
// host. Per file: open, check, header, data, end of file.
//
// Result codes: kOk; kFileFailed (this file failed: its entry is closed as bad and the
// next one can follow); kFailBackup (the stream failed: nothing more can be sent);
// kEndOfList from the open step when the list is exhausted.
class VS_HOST_API ClBackupFile {
public:
    static constexpr int kOk = 0;
    static constexpr int kFileFailed = 1;
    static constexpr int kFailBackup = 2;
    static constexpr int kEndOfList = 3;
    static constexpr int EOF_BAD = 0;
    static constexpr int EOF_GOOD = 1;

    // The event is the job's stop event; `ownLog` gives the writer its own log tag.
    ClBackupFile(CPipelayer* pipe, KtEvent* event, bool ownLog);
    virtual ~ClBackupFile();  // 1
    // With errors tolerated a file that cannot be read fails alone (kFileFailed);
    // otherwise it fails the backup (kFailBackup).
    virtual void setErrorsTolerated(bool tolerated);  // 2
    // Attaches the writer to the pipeline. Non-zero on failure.
    virtual int Init(int kind, int flags, void** out1, void** out2);  // 3
    // Takes the next entry: the next file below a folder being sent, else the next line
    // of `list`. kEndOfList when there is none.
    virtual int OpenFilesForBackup(subclientFiles& files, std::istream& list, int, int, const std::string&);  // 4
    // Non-zero: the entry in hand is not sent at all (sockets, FIFOs, devices).
    virtual int CheckFile(subclientFiles& files, int);     // 5
    virtual void setFNameMapper(FSIDANameMapper* mapper);  // 6
    // Forgets the entry in hand without sending anything more for it.
    virtual int CloseFile();               // 7
    virtual int SendHeader(int);           // 8
    virtual int ReadAndSendFileData(int);  // 9
    // Non-zero when the end of file could not be sent.
    virtual int SendEndOfFileMessage(int eofKind);  // 10

    // What this writer has sent so far.
    struct Counts {
        uint64_t files = 0;  // entries closed as good (files and links)
        uint64_t folders = 0;
        uint64_t failed = 0;   // entries closed as bad
        uint64_t skipped = 0;  // passed over by the check
        uint64_t bytes = 0;    // data bytes
    };
    const Counts& counts() const { return m_counts; }

    struct Entry;
    struct Root;

private:
    int Failure(int code, const std::string& why);
    bool Expand();
    int RootOf(const std::string& root);

    CPipelayer* m_pipe;
    [[maybe_unused]] KtEvent* m_event;  // the job's stop event, for writers that poll it
    KTLogObject m_log;
    vsArchive m_archive;
    vsSim m_sim;
    FSIDANameMapper* m_mapper = nullptr;
    bool m_tolerated = false;
    bool m_attached = false;
    Counts m_counts;
    std::vector<std::pair<std::string, MappedPath>> m_pending;  // below folders being sent, next last
    std::unique_ptr<Entry> m_entry;
    std::unique_ptr<Root> m_root;  // the volume root entries were last opened below
};
