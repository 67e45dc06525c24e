// The backup stream: the pipeline sink that carries it, the archive writer that turns
// the readers' calls into its records, and the names of disk extents.
// docs/stream-format.md describes the records.
#pragma once

#include "hostapi/fileutil.h"
#include "hostapi/log.h"
#include "hostapi/types.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

class vsJobMgr;
class vsAppMgr;
class vsArchive;
// Host record that the readers hold and hand to the archive writer.
class vsSim {};

// Counts of one stream; a cleanly closed stream ends with them in its trailer.
struct vsStreamTotals {
    unsigned long long records = 0;      // records before the trailer, the stream header included
    unsigned long long entries = 0;      // entry headers of every kind
    unsigned long long badEntries = 0;   // entries closed as incomplete
    unsigned long long directories = 0;  // directory entries of file-level backups
    unsigned long long dataBytes = 0;
    unsigned long long holeBytes = 0;  // zeros recorded by length, never sent
    bool operator==(const vsStreamTotals&) const = default;
};

// A file or folder of a file-level backup, as its client describes it.
struct vsFileLevelInfo {
    std::string clientPath;  // the client's own form, e.g. "C:\\Users\\a.txt" or "/etc/hosts"
    unsigned long long size = 0;
    unsigned int mode = 0;  // POSIX type and permission bits
    unsigned int uid = 0;
    unsigned int gid = 0;
    long long atimeNs = 0;  // nanoseconds since 1970-01-01 UTC
    long long mtimeNs = 0;
    long long ctimeNs = 0;
    bool operator==(const vsFileLevelInfo&) const = default;
};

// What a pipeline has carried so far, readable from another thread (progress display).
struct vsStreamProgress {
    vsStreamTotals totals;
    unsigned long long bytesWritten = 0;  // stream bytes accepted
    std::string entry;                    // path of the entry opened last
};

// The pipeline: where one backup stream goes, a file or an inherited descriptor such as
// standard output. The caller's thread gathers records into a small ring of buffers of
// about kBatchBytes; a thread of the pipeline frames the data records in them and writes
// them to the target in order, with loops that resume after EINTR and partial writes,
// while the caller reads on. Memory stays a few MiB whatever the stream's size.
//
// The first failed write (ENOSPC, EPIPE, ...) fails the pipeline for good; ErrorText()
// says why. Since the write happens behind the call that handed the bytes over, the
// failure shows at the first call of the stream's writers after the writer thread met
// it, and at the latest at the next Flush, Sync or Close, which wait until every byte
// handed over is written: an archive writer flushes after each disk-read-completed
// record, so that call fails when anything before it could not be written, and Close
// fails whenever any write did. A write to a pipe or socket whose reader went away never
// raises SIGPIPE in the process: the writer thread blocks every signal, and the one its
// write raised is dropped with the thread; the process's disposition is left alone.
//
// The pipeline also holds the state of its stream (identity, open entry, totals), so
// that several archive writers attached to it write one consistent stream. Apart from
// Progress, not safe for use from several threads at once.
class VS_HOST_API CPipelayer {
public:
    static constexpr std::size_t kBatchBytes = std::size_t{1} << 20;

    // Creates or truncates `path` (mode 0600 before the umask). Null with `error` set
    // when it cannot be opened.
    static std::unique_ptr<CPipelayer> OpenFile(const std::string& path, CQiError& error);
    // Writes to `fd`, which stays the caller's (Close does not close it).
    static std::unique_ptr<CPipelayer> OpenFd(int fd);
    // Flushes and closes without reporting; call Close to learn whether that worked.
    // Writers still attached must not be used afterwards.
    ~CPipelayer();
    CPipelayer(const CPipelayer&) = delete;
    CPipelayer& operator=(const CPipelayer&) = delete;

    // Data records are compressed with zstd at `level` (1 to 19; 0, the default: not
    // compressed), each record on its own and only when that makes it smaller, on as many
    // writer threads as the processors and a memory budget of 32 MiB for compression
    // contexts allow (at most 4). Only before the first record; false (nothing changed)
    // afterwards or for a level out of range.
    bool SetCompression(int level);

    // Identity of the stream, as the file-level reader gives it: the archive file id
    // (the third of vsArchive::SetArchiveFileId's values), the job id and token.
    void SetArchiveFileId(unsigned long long archiveFileId);
    void SetJobId(long long jobId);
    void SetJobToken(const char* token);

    // Writes out every byte handed over so far and waits until it is written; false when
    // the pipeline has failed.
    bool Flush();
    // Flushes and makes every byte written so far durable (fdatasync).
    // A target that cannot be synced (a pipe, a socket, a character device such as
    // standard output on a terminal) is left as it is and counts as success; a failed
    // sync fails the pipeline.
    bool Sync();
    // Bytes made durable by the last Sync that synced; 0 for a target that cannot be.
    unsigned long long SyncedBytes() const;
    bool Syncable() const;
    // Flushes, syncs (see Sync) and closes the target; false when that or any earlier
    // write failed.
    bool Close();
    // The owner declares the stream unfinished (a stopped job): no trailer will be
    // written, so decoders see the stream as incomplete.
    void Abandon();

    // For a target whose bytes become durable only when its owner completes it (an
    // object on an object store exists only once its upload is completed): the disks
    // the stream's writers complete are then held by the pipeline instead of being
    // recorded in the catalog at a sync, until RecordHeld. A pipeline destroyed before
    // that records none of them, so the catalog never names a disk of a stream that was
    // not stored. Only before the first record.
    void HoldRecordsUntilStored();
    // The owner stored the stream: records the held disks in the catalog. False with
    // `why` when the catalog cannot take them (they are dropped).
    bool RecordHeld(std::string& why);
    // Disks held and not yet recorded.
    std::size_t HeldRecords() const;

    bool Failed() const;
    const std::string& ErrorText() const;
    // Bytes written to the target so far (all of the stream after a Flush or Close).
    unsigned long long BytesWritten() const;
    // Totals of the records written so far.
    vsStreamTotals Totals() const;
    // True once the trailer is written.
    bool Finished() const;
    // Safe to call from any thread while the stream is written.
    vsStreamProgress Progress() const;

    // The sink and its stream's state: defined by the host, for the host's own use.
    struct State;
    State& Internal() { return *m_state; }

private:
    CPipelayer(int fd, bool owned, std::string target);

    std::unique_ptr<State> m_state;
};

// The archive writer: turns calls into the records of the backup stream in a
// pipeline. Entries are opened by a header call and closed by sendEOF; data, holes
// and lent buffers belong to an open entry that is not a container; other records go
// between entries. A call out of that order is refused with an error status and
// writes nothing. Once the pipeline has failed every call reports an error.
//
// Every int status is 0 for success; judge it with isError.
class VS_HOST_API vsArchive {
public:
    static constexpr int kOk = 0;
    static constexpr int kErrPipeline = -1;     // the pipeline failed; the stream is lost
    static constexpr int kErrOrder = -2;        // call out of order, e.g. data outside an entry
    static constexpr int kErrNotAttached = -3;  // init was not called, failed, or close came first
    static constexpr int kErrArgument = -4;     // e.g. a text longer than a record holds
    static constexpr int kErrFinished = -5;     // the stream's trailer is already written

    // The reference host uses neither manager nor the sim record; the hub server name
    // goes into the stream header.
    vsArchive(vsJobMgr* jobMgr, vsAppMgr* appMgr, vsSim* sim, const std::string& hubServer);
    // A writer destroyed while attached detaches as close(false) does.
    ~vsArchive();
    vsArchive(const vsArchive&) = delete;
    vsArchive& operator=(const vsArchive&) = delete;

    // Attaches to the pipeline; `log` (may be null) receives failures, `name` is the
    // client name for the stream header. Non-zero on failure.
    int init(CPipelayer* pipe, KTLogObject* log, const std::string& name);
    void SetArchiveFileId(unsigned id1, unsigned id2, unsigned archiveFileId);
    void SetJobId(long long jobId);
    void SetJobToken(const char* token);
    // Detaches from the pipeline and flushes it. With `finish` true the last writer to
    // leave writes the trailer, provided no entry is open and nobody abandoned the
    // stream; with false the stream is abandoned (it will have no trailer).
    int close(bool finish);
    bool isError(int status) const { return status != kOk; }

    // Entry headers. `container` marks an entry that names a folder of later entries
    // (a VM, a disk) and holds no data itself. sendFileHeader's eighth argument is the
    // extent size of a disk entry. Every argument is carried in the record.
    int sendFileHeader(const std::string& path, unsigned long long size, long arg3, bool container, bool arg5,
                       bool arg6, int arg7, unsigned int extentSize, int arg9, unsigned long long arg10, bool arg11,
                       bool arg12, bool arg13);
    int sendFCFileHeader(const std::string& path, unsigned long long size, long arg3, bool container, bool arg5,
                         int arg6, unsigned int arg7, int arg8, unsigned long long arg9, bool arg10, bool arg11,
                         unsigned long long arg12, unsigned long long arg13, unsigned long long arg14,
                         unsigned int arg15, unsigned long long arg16, unsigned long long arg17, unsigned int arg18,
                         unsigned int arg19, unsigned int arg20, unsigned int arg21);

    // Records between entries.
    int sendDiskInfo(const std::string& vmGuid, const std::string& name, const std::string& extra,
                     unsigned long itemType, unsigned long productType, unsigned long diskType, unsigned long long size,
                     unsigned long long extentSize, unsigned long long extentCount);
    int sendVolHeaderInfo(const std::string& vmGuid, const std::string& diskName, const char* data, unsigned long size);
    int sendDiskReadCompleted(const std::string& vmGuid, const std::string& diskName, const std::string& changeId);
    int sendVMReadCompleted(const std::string& vmGuid);

    // Entry data. allocateBuffer lends a buffer of up to `wanted` bytes (at most one
    // record's worth, 1 MiB) until writeDataBuffer sends its first `length` bytes or
    // freeBuffer gives it back. allocateAndSendDataBuffer copies the caller's bytes,
    // in several records when they exceed one. sendHole records zeros by length only.
    int allocateBuffer(unsigned long wanted, unsigned long* got, void** buffer);
    int writeDataBuffer(const char* data, unsigned long length);
    void freeBuffer();
    int allocateAndSendDataBuffer(const char* data, unsigned long length);
    int sendHole(unsigned long length);
    // Closes the open entry; `complete` false marks it abandoned.
    int sendEOF(bool complete, unsigned int arg);

    // File-level backups: a file entry (data, holes and sendEOF follow as for any
    // entry; for a symbolic link the data is the link's target) and a folder, which is
    // a single record and opens no entry.
    int sendFileLevelHeader(const vsFileLevelInfo& file);
    int sendDirectoryEntry(const vsFileLevelInfo& folder);

    // Why the last failed call failed.
    const std::string& lastError() const;

    // The host's file collection: the collection being read gave its last node. A
    // file-collection disk (a container collection header two levels deep) is marked
    // read only when this came after its header; a reader stopped before the end still
    // calls sendDiskReadCompleted, which then writes nothing, records nothing and fails.
    void noteCollectionEnd();
    // Totals of the attached stream so far (zero when not attached).
    vsStreamTotals totals() const;

private:
    // The writer's state: the pipeline it is attached to, its identity values, the
    // lent buffer and the disks completed but not yet recorded. Defined by the host.
    struct State;

    int Attached();
    int Result(int status);
    int Refuse(int status, std::string why);
    int EndDanglingEntry();
    void PushIdentity();
    void RecordCompleted(bool all, CPipelayer* pipe);

    std::unique_ptr<State> m_state;
};

// Names of disk extents: "Extent" followed by the extent number in 20 decimal digits
// with leading zeros ("Extent00000000000000000012"), so that every 64-bit number has a
// name of the same length and names sort as their numbers.
class VS_HOST_API ExtentNameConverter {
public:
    // Never fails; returns true.
    static bool GetFilePath(unsigned long long extentNumber, std::string& name);
    // Accepts the 20-digit form and "Extent" followed by the number without leading
    // zeros ("Extent12", "Extent0"). Anything else (signs, blanks, other lengths,
    // separators, numbers beyond 64 bits) is refused with `extentNumber` unchanged.
    static bool GetExtentNumberFromFileName(const std::string& name, unsigned long long& extentNumber);
};
