// The pipeline sink: stream bytes handed to the write ring, synced and closed.
#include "hostapi/archive.h"
#include "stream/pipelinestate.h"
#include "vshost/streamtap.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <thread>

CPipelayer::CPipelayer(int fd, bool owned, std::string target)
    : m_state(std::make_unique<State>(fd, owned, std::move(target))) {}

std::unique_ptr<CPipelayer> CPipelayer::OpenFile(const std::string& path, CQiError& error) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        const int err = errno;
        error = CQiError(err, "open " + path);
        return nullptr;
    }
    error = CQiError();
    return std::unique_ptr<CPipelayer>(new CPipelayer(fd, true, path));
}

std::unique_ptr<CPipelayer> CPipelayer::OpenFd(int fd) {
    return std::unique_ptr<CPipelayer>(new CPipelayer(fd, false, "descriptor " + std::to_string(fd)));
}

CPipelayer::~CPipelayer() {
    Close();
}

bool CPipelayer::SetCompression(int level) {
    using vshost::detail::DataPacker;
    if (level != 0 && (level < DataPacker::kMinLevel || level > DataPacker::kMaxLevel)) return false;
    // Compression is the writer threads' work; the reader's thread stays as light as it was.
    constexpr std::size_t kContextBudget = std::size_t{32} << 20;
    const std::size_t perThread = std::max<std::size_t>(DataPacker::ContextBytes(level), 1);
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    const auto threads =
        static_cast<unsigned>(std::clamp<std::size_t>(kContextBudget / perThread, 1, std::min(cores, 4u)));
    return m_state->ring.SetCompression(level, level == 0 ? 1 : threads);
}

void CPipelayer::SetArchiveFileId(unsigned long long archiveFileId) {
    m_state->encoder.identity().archiveFileIds[2] = static_cast<uint32_t>(archiveFileId);
}

void CPipelayer::SetJobId(long long jobId) {
    m_state->encoder.identity().jobId = jobId;
}

void CPipelayer::SetJobToken(const char* token) {
    m_state->encoder.identity().jobToken = token ? token : "";
}

bool CPipelayer::Flush() {
    return m_state->Flush();
}

bool CPipelayer::Sync() {
    return m_state->Sync();
}

unsigned long long CPipelayer::SyncedBytes() const {
    return m_state->synced;
}

bool CPipelayer::Syncable() const {
    return m_state->syncable;
}

bool CPipelayer::Close() {
    return m_state->Close();
}

void CPipelayer::Abandon() {
    m_state->encoder.Abandon();
}

void CPipelayer::HoldRecordsUntilStored() {
    if (!m_state->held) m_state->held = std::make_unique<vshost::changetrack::CompletedDisks>();
}

bool CPipelayer::RecordHeld(std::string& why) {
    if (!m_state->held) return true;
    try {
        m_state->held->Flush();
        return true;
    } catch (const std::exception& e) {
        why = e.what();
        return false;
    }
}

std::size_t CPipelayer::HeldRecords() const {
    return m_state->held ? m_state->held->Waiting() : 0;
}

bool CPipelayer::Failed() const {
    return m_state->Failed();
}

const std::string& CPipelayer::ErrorText() const {
    return m_state->Error();
}

unsigned long long CPipelayer::BytesWritten() const {
    return m_state->ring.Written();
}

vsStreamTotals CPipelayer::Totals() const {
    return m_state->encoder.Totals();
}

bool CPipelayer::Finished() const {
    return m_state->encoder.Finished();
}

vsStreamProgress CPipelayer::Progress() const {
    vsStreamProgress p;
    {
        std::lock_guard<std::mutex> lock(m_state->progressMutex);
        p = m_state->progress;
    }
    p.bytesWritten = m_state->ring.Written();
    return p;
}

bool CPipelayer::State::Write(const void* data, std::size_t length) {
    if (fd < 0) ring.Fail("write to " + target + ": the pipeline is closed");
    return ring.Put(data, length);
}

bool CPipelayer::State::WriteData(uint64_t index, const char* data, std::size_t length) {
    if (fd < 0) ring.Fail("write to " + target + ": the pipeline is closed");
    return ring.PutData(index, data, length);
}

bool CPipelayer::State::Sync() {
    if (!Flush()) return false;
    if (fd < 0 || !syncable) return true;
    if (::fdatasync(fd) == 0) {
        synced = ring.Written();
        return true;
    }
    const int err = errno;
    if (err == EINVAL || err == EROFS || err == ENOTSUP) {
        // Nothing there to make durable: a pipe, a socket or a device.
        syncable = false;
        return true;
    }
    ring.Fail(CQiError(err, "sync " + target).AsString());
    return false;
}

bool CPipelayer::State::Close() {
    // A finished stream is durable before its owner reports it written.
    bool ok = fd < 0 ? !Failed() : Sync();
    // The writer thread ends before its descriptor does.
    ring.Stop();
    if (fd >= 0 && owned && ::close(fd) != 0 && ok) {
        const int err = errno;
        ring.Fail(CQiError(err, "close " + target).AsString());
        ok = false;
    }
    fd = -1;
    return ok;
}

void CPipelayer::State::NoteProgress(const vsStreamTotals& totals, const std::string* entry) {
    std::lock_guard<std::mutex> lock(progressMutex);
    progress.totals = totals;
    if (entry) progress.entry = *entry;
}

namespace vshost {

void TapRecords(CPipelayer& pipe, std::function<void(const StreamRecord&)> tap) {
    pipe.Internal().encoder.SetTap(std::move(tap));
}

bool TapPlaces(CPipelayer& pipe, std::function<void(uint64_t index, uint64_t offset)> places) {
    return pipe.Internal().ring.SetPlaces(
        [places = std::move(places)](uint64_t index, unsigned long long offset) { places(index, offset); });
}

}  // namespace vshost
