// The archive writer: each call becomes one record (or, for large data, several) of
// the stream held by the attached pipeline.
#include "hostapi/archive.h"

#include "stream/pipelinestate.h"
#include "vscodec/streambytes.h"
#include "vshost/changetrack.h"

#include <algorithm>

using vshost::detail::PayloadBuilder;
using vshost::stream::Kind;

struct vsArchive::State {
    CPipelayer* pipe = nullptr;
    KTLogObject* log = nullptr;
    std::string hubServer;
    std::vector<char> lent;
    bool lentOut = false;
    bool pipelineReported = false;
    std::string lastError;
    // Identity values set on this writer, pushed to the stream when attached.
    bool hasIds = false, hasJobId = false, hasToken = false;
    unsigned ids[3] = {0, 0, 0};
    long long jobId = 0;
    std::string token;
    // Disks completed and not yet recorded in the catalog; written at close.
    std::unique_ptr<vshost::changetrack::CompletedDisks> completed =
        std::make_unique<vshost::changetrack::CompletedDisks>();
    // The file-collection disk whose header came last, and whether its collection
    // reached its end since.
    std::string collectionDisk;
    bool collectionAtEnd = false;
};

namespace {

vshost::detail::StreamEncoder& Encoder(CPipelayer* pipe) {
    return pipe->Internal().encoder;
}

}  // namespace

vsArchive::vsArchive(vsJobMgr*, vsAppMgr*, vsSim*, const std::string& hubServer) : m_state(std::make_unique<State>()) {
    m_state->hubServer = hubServer;
}

vsArchive::~vsArchive() {
    if (m_state->pipe) close(false);
    RecordCompleted(true, nullptr);
}

void vsArchive::RecordCompleted(bool all, CPipelayer* pipe) {
    if (!m_state->completed || !(all ? m_state->completed->Waiting() > 0 : m_state->completed->Due())) return;
    const size_t waiting = m_state->completed->Waiting();
    // The catalog (durable once SQLite commits) may name a disk only once the stream's
    // bytes that hold its marker are durable too: after a power loss it must never
    // name a disk that the stream lacks.
    if (!pipe) {
        KTlog(m_state->log, 1, "Cannot record [%zu] completed disk(s): the stream holding them is gone", waiting);
        m_state->completed->Drop();
        return;
    }
    if (auto& held = pipe->Internal().held) {
        // The stream is stored only when its owner completes it: the pipeline keeps the
        // disks until then (and forgets them if it never is).
        held->TakeFrom(*m_state->completed);
        KTlog(m_state->log, 1, "vsArchive: [%zu] completed disk(s) held until the stream is stored ([%zu] held in all)",
              waiting, held->Waiting());
        return;
    }
    if (!pipe->Sync()) {
        KTlog(m_state->log, 1,
              "Cannot make the stream durable (%s): [%zu] completed disk(s) not recorded; an incremental "
              "from this job reads them whole",
              pipe->ErrorText().c_str(), waiting);
        m_state->completed->Drop();
        return;
    }
    if (pipe->Syncable())
        KTlog(m_state->log, 1, "vsArchive: stream synced through byte [%llu]; recording [%zu] completed disk(s)",
              pipe->SyncedBytes(), waiting);
    else
        KTlog(m_state->log, 1, "vsArchive: the stream cannot be synced (not a file); recording [%zu] completed disk(s)",
              waiting);
    try {
        m_state->completed->Flush();
    } catch (const std::exception& e) {
        // At the close there is no later try: what the catalog did not take is lost to it.
        if (all) m_state->completed->Drop();
        if (m_state->completed->Waiting() > 0)
            KTlog(m_state->log, 1,
                  "Cannot record [%zu] completed disk(s) and their digests yet: %s; tried again with the next "
                  "disk and at the close",
                  waiting, e.what());
        else
            KTlog(m_state->log, 1,
                  "Cannot record [%zu] completed disk(s) and their digests: %s; an incremental from this job "
                  "reads them whole",
                  waiting, e.what());
    }
}

int vsArchive::Result(int status) {
    if (status == kOk) return kOk;
    if (m_state->pipe) m_state->lastError = Encoder(m_state->pipe).Error();
    // A failed pipeline fails every later call; one line about it is enough.
    if (status == kErrPipeline) {
        if (m_state->pipelineReported) return status;
        m_state->pipelineReported = true;
    }
    KTlog(m_state->log, 1, "vsArchive: %s", m_state->lastError.c_str());
    return status;
}

int vsArchive::Refuse(int status, std::string why) {
    m_state->lastError = std::move(why);
    KTlog(m_state->log, 1, "vsArchive: %s", m_state->lastError.c_str());
    return status;
}

int vsArchive::Attached() {
    if (m_state->pipe) return kOk;
    return Refuse(kErrNotAttached, "the writer is not attached to a pipeline");
}

int vsArchive::init(CPipelayer* pipe, KTLogObject* log, const std::string& name) {
    if (m_state->pipe) return Refuse(kErrOrder, "init on a writer that is already attached");
    m_state->log = log;
    if (!pipe) return Attached();
    m_state->pipe = pipe;
    m_state->pipelineReported = false;
    auto& encoder = Encoder(pipe);
    encoder.Attach();
    encoder.SetOrigin(m_state->hubServer, name);
    PushIdentity();
    return Result(encoder.Ready());
}

void vsArchive::PushIdentity() {
    if (!m_state->pipe) return;
    auto& id = Encoder(m_state->pipe).identity();
    if (m_state->hasIds) std::copy(std::begin(m_state->ids), std::end(m_state->ids), std::begin(id.archiveFileIds));
    if (m_state->hasJobId) id.jobId = m_state->jobId;
    if (m_state->hasToken) id.jobToken = m_state->token;
}

void vsArchive::SetArchiveFileId(unsigned id1, unsigned id2, unsigned archiveFileId) {
    m_state->ids[0] = id1;
    m_state->ids[1] = id2;
    m_state->ids[2] = archiveFileId;
    m_state->hasIds = true;
    PushIdentity();
}

void vsArchive::SetJobId(long long jobId) {
    m_state->jobId = jobId;
    m_state->hasJobId = true;
    PushIdentity();
}

void vsArchive::SetJobToken(const char* token) {
    m_state->token = token ? token : "";
    m_state->hasToken = true;
    PushIdentity();
}

// A writer that failed inside an entry may leave it without its end-of-file. The next
// header, or the last writer's final close, ends it as incomplete, so that the rest of
// the job still goes into a sound stream and the entry is counted as bad.
int vsArchive::EndDanglingEntry() {
    vshost::detail::StreamEncoder& encoder = Encoder(m_state->pipe);
    if (!encoder.EntryOpen()) return kOk;
    KTlog(m_state->log, 1, "vsArchive: entry [%s] was left open; ended as incomplete", encoder.OpenPath().c_str());
    m_state->lentOut = false;
    return Result(encoder.EndEntry(false, 0));
}

int vsArchive::close(bool finish) {
    if (!m_state->pipe) return kOk;
    m_state->lentOut = false;
    if (finish && Encoder(m_state->pipe).Writers() == 1) EndDanglingEntry();
    const int rc = Result(Encoder(m_state->pipe).Detach(finish));
    CPipelayer* pipe = m_state->pipe;
    m_state->pipe = nullptr;
    RecordCompleted(true, pipe);
    return rc;
}

vsStreamTotals vsArchive::totals() const {
    return m_state->pipe ? m_state->pipe->Totals() : vsStreamTotals{};
}

int vsArchive::sendFileHeader(const std::string& path, unsigned long long size, long arg3, bool container, bool arg5,
                              bool arg6, int arg7, unsigned int extentSize, int arg9, unsigned long long arg10,
                              bool arg11, bool arg12, bool arg13) {
    if (int rc = Attached(); rc != kOk) return rc;
    PayloadBuilder p;
    p.Bytes(path).U64(size).I64(arg3).Bool(container).Bool(arg5).Bool(arg6).I32(arg7).U32(extentSize).I32(arg9);
    p.U64(arg10).Bool(arg11).Bool(arg12).Bool(arg13);
    if (int rc = EndDanglingEntry(); rc != kOk) return rc;
    return Result(Encoder(m_state->pipe).BeginEntry(Kind::FileHeader, p.str(), container, path));
}

int vsArchive::sendFCFileHeader(const std::string& path, unsigned long long size, long arg3, bool container, bool arg5,
                                int arg6, unsigned int arg7, int arg8, unsigned long long arg9, bool arg10, bool arg11,
                                unsigned long long arg12, unsigned long long arg13, unsigned long long arg14,
                                unsigned int arg15, unsigned long long arg16, unsigned long long arg17,
                                unsigned int arg18, unsigned int arg19, unsigned int arg20, unsigned int arg21) {
    if (int rc = Attached(); rc != kOk) return rc;
    PayloadBuilder p;
    p.Bytes(path).U64(size).I64(arg3).Bool(container).Bool(arg5).I32(arg6).U32(arg7).I32(arg8).U64(arg9);
    p.Bool(arg10).Bool(arg11).U64(arg12).U64(arg13).U64(arg14).U32(arg15).U64(arg16).U64(arg17);
    p.U32(arg18).U32(arg19).U32(arg20).U32(arg21);
    if (int rc = EndDanglingEntry(); rc != kOk) return rc;
    if (container && std::count(path.begin(), path.end(), '\\') == 2) {
        m_state->collectionDisk = path;
        m_state->collectionAtEnd = false;
    }
    return Result(Encoder(m_state->pipe).BeginEntry(Kind::CollectionHeader, p.str(), container, path));
}

int vsArchive::sendDiskInfo(const std::string& vmGuid, const std::string& name, const std::string& extra,
                            unsigned long itemType, unsigned long productType, unsigned long diskType,
                            unsigned long long size, unsigned long long extentSize, unsigned long long extentCount) {
    if (int rc = Attached(); rc != kOk) return rc;
    // The disk reader opens a disk (loading the digests of the change id it reads
    // against) right before describing it; it uses them only when the disk kept its size
    // and extent size, and then leaves out the extents that did not change.
    std::string base;
    if (auto loaded = vshost::changetrack::TakeLoadedBase(); loaded && itemType == vshost::stream::kItemDiskExtents &&
                                                             loaded->diskSize == size &&
                                                             loaded->extentSize == extentSize)
        base = loaded->changeId;
    PayloadBuilder p;
    p.Bytes(vmGuid).Bytes(name).Bytes(extra).U64(itemType).U64(productType).U64(diskType);
    p.U64(size).U64(extentSize).U64(extentCount).Bytes(base);
    return Result(Encoder(m_state->pipe).Between(Kind::DiskInfo, p.str()));
}

int vsArchive::sendVolHeaderInfo(const std::string& vmGuid, const std::string& diskName, const char* data,
                                 unsigned long size) {
    if (int rc = Attached(); rc != kOk) return rc;
    if (!data && size > 0) {
        return Refuse(kErrArgument, "volume header of " + std::to_string(size) + " bytes without data");
    }
    PayloadBuilder p;
    p.Bytes(vmGuid).Bytes(diskName).Bytes(std::string_view(data ? data : "", size));
    return Result(Encoder(m_state->pipe).Between(Kind::VolumeHeader, p.str()));
}

int vsArchive::sendDiskReadCompleted(const std::string& vmGuid, const std::string& diskName,
                                     const std::string& changeId) {
    if (int rc = Attached(); rc != kOk) return rc;
    if (!m_state->collectionDisk.empty() && m_state->collectionDisk == "\\" + vmGuid + "\\" + diskName) {
        const bool atEnd = m_state->collectionAtEnd;
        m_state->collectionDisk.clear();
        // Without its marker the stream shows the disk as incomplete, and the catalog
        // never counts on it.
        if (!atEnd)
            return Refuse(kErrOrder, "disk [" + diskName + "] of VM [" + vmGuid +
                                         "] is not marked read: its file collection was not read to its end");
    }
    PayloadBuilder p;
    p.Bytes(vmGuid).Bytes(diskName).Bytes(changeId);
    int rc = Result(Encoder(m_state->pipe).Between(Kind::DiskReadCompleted, p.str()));
    // The catalog may only say a disk was read once its marker has left the batch: a
    // job killed after that leaves a stream that holds the disk whole, one killed
    // before it leaves a catalog that does not count on it.
    if (rc == kOk) rc = Result(Encoder(m_state->pipe).Flush());
    // The disk reader's digests of the pass that just ended become the state a later
    // read under `changeId` compares with.
    if (rc == kOk) {
        if (!m_state->completed->Add(m_state->jobId, {vmGuid, diskName, changeId}) && !changeId.empty())
            KTlog(m_state->log, 1,
                  "No whole-disk digests for change id [%s] of disk [%s]: the next incremental "
                  "from it reads the whole disk",
                  changeId.c_str(), diskName.c_str());
        RecordCompleted(false, m_state->pipe);
    } else {
        vshost::changetrack::ClearCompletedPass();
    }
    return rc;
}

int vsArchive::sendVMReadCompleted(const std::string& vmGuid) {
    if (int rc = Attached(); rc != kOk) return rc;
    PayloadBuilder p;
    p.Bytes(vmGuid);
    return Result(Encoder(m_state->pipe).Between(Kind::VMReadCompleted, p.str()));
}

int vsArchive::allocateBuffer(unsigned long wanted, unsigned long* got, void** buffer) {
    if (int rc = Attached(); rc != kOk) return rc;
    if (!got || !buffer) {
        return Refuse(kErrArgument, "allocateBuffer without places for the buffer and its size");
    }
    if (int rc = Result(Encoder(m_state->pipe).CheckContent("buffer")); rc != kOk) return rc;
    if (m_state->lentOut) {
        return Refuse(kErrOrder, "allocateBuffer while a buffer is still lent");
    }
    const unsigned long granted = std::min<unsigned long>(wanted, vshost::stream::kMaxPayload);
    m_state->lent.resize(std::max<unsigned long>(granted, 1));  // never a null buffer, even for 0 bytes
    *got = granted;
    *buffer = m_state->lent.data();
    m_state->lentOut = true;
    return kOk;
}

int vsArchive::writeDataBuffer(const char* data, unsigned long length) {
    if (int rc = Attached(); rc != kOk) return rc;
    const bool lent = m_state->lentOut;
    m_state->lentOut = false;  // the buffer comes back whatever happens next
    if (int rc = Result(Encoder(m_state->pipe).CheckContent("data")); rc != kOk) return rc;
    if (!lent || !data || length > m_state->lent.size()) {
        return Refuse(!lent ? kErrOrder : kErrArgument, !lent ? "writeDataBuffer with no buffer lent"
                                                              : "writeDataBuffer of " + std::to_string(length) +
                                                                    " bytes from a buffer of " +
                                                                    std::to_string(m_state->lent.size()));
    }
    return Result(Encoder(m_state->pipe).Data(data, length));
}

void vsArchive::freeBuffer() {
    m_state->lentOut = false;
}

int vsArchive::allocateAndSendDataBuffer(const char* data, unsigned long length) {
    if (int rc = Attached(); rc != kOk) return rc;
    if (!data && length > 0) {
        return Refuse(kErrArgument, "data of " + std::to_string(length) + " bytes without a buffer");
    }
    return Result(Encoder(m_state->pipe).Data(data, length));
}

int vsArchive::sendHole(unsigned long length) {
    if (int rc = Attached(); rc != kOk) return rc;
    return Result(Encoder(m_state->pipe).Hole(length));
}

int vsArchive::sendEOF(bool complete, unsigned int arg) {
    if (int rc = Attached(); rc != kOk) return rc;
    m_state->lentOut = false;
    return Result(Encoder(m_state->pipe).EndEntry(complete, arg));
}

namespace {
std::string FileLevelPayload(const vsFileLevelInfo& f) {
    PayloadBuilder p;
    p.Bytes(f.clientPath).U64(f.size).U32(f.mode).U32(f.uid).U32(f.gid).I64(f.atimeNs).I64(f.mtimeNs).I64(f.ctimeNs);
    return p.str();
}
}  // namespace

int vsArchive::sendFileLevelHeader(const vsFileLevelInfo& file) {
    if (int rc = Attached(); rc != kOk) return rc;
    if (int rc = EndDanglingEntry(); rc != kOk) return rc;
    return Result(
        Encoder(m_state->pipe).BeginEntry(Kind::FileLevelHeader, FileLevelPayload(file), false, file.clientPath));
}

int vsArchive::sendDirectoryEntry(const vsFileLevelInfo& folder) {
    if (int rc = Attached(); rc != kOk) return rc;
    return Result(Encoder(m_state->pipe).Between(Kind::DirectoryEntry, FileLevelPayload(folder)));
}

const std::string& vsArchive::lastError() const {
    return m_state->lastError;
}

void vsArchive::noteCollectionEnd() {
    m_state->collectionAtEnd = true;
}
