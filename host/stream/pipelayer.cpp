// The pipeline sink: batches of stream bytes written to a file or a descriptor.
#include "hostapi/archive.h"
#include "stream/pipelinestate.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

namespace {

// Keeps SIGPIPE from killing the process while this thread writes: the signal is
// blocked for the write, and one that the write raised is taken off the pending set
// before the old mask returns. A SIGPIPE that was already pending stays pending.
class SigpipeGuard {
public:
    SigpipeGuard() {
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_old);
        sigset_t pending;
        sigemptyset(&pending);
        sigpending(&pending);
        m_wasPending = sigismember(&pending, SIGPIPE) == 1;
    }
    ~SigpipeGuard() {
        if (m_raised && !m_wasPending) {
            const timespec zero{0, 0};
            while (sigtimedwait(&m_pipe, nullptr, &zero) < 0 && errno == EINTR) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &m_old, nullptr);
    }
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;
    void Raised() { m_raised = true; }

private:
    sigset_t m_pipe{};
    sigset_t m_old{};
    bool m_wasPending = false;
    bool m_raised = false;
};

}  // namespace

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

bool CPipelayer::Failed() const {
    return m_state->Failed();
}

const std::string& CPipelayer::ErrorText() const {
    return m_state->error;
}

unsigned long long CPipelayer::BytesWritten() const {
    return m_state->accepted;
}

vsStreamTotals CPipelayer::Totals() const {
    return m_state->encoder.Totals();
}

bool CPipelayer::Finished() const {
    return m_state->encoder.Finished();
}

vsStreamProgress CPipelayer::Progress() const {
    std::lock_guard<std::mutex> lock(m_state->progressMutex);
    return m_state->progress;
}

bool CPipelayer::State::Write(const void* data, std::size_t length) {
    if (Failed()) return false;
    if (fd < 0) {
        error = "write to " + target + ": the pipeline is closed";
        return false;
    }
    const char* p = static_cast<const char*>(data);
    accepted += length;
    {
        std::lock_guard<std::mutex> lock(progressMutex);
        progress.bytesWritten = accepted;
    }
    // A large piece (a data record's payload) is not copied: it goes out right behind
    // the batch gathered so far, in the same system call.
    if (length >= kDirectBytes) {
        const std::size_t n = used;
        used = 0;
        return WriteOut(batch.data(), n, p, length);
    }
    while (length > 0) {
        const std::size_t n = std::min(length, batch.size() - used);
        std::memcpy(batch.data() + used, p, n);
        used += n;
        p += n;
        length -= n;
        if (used == batch.size() && !Flush()) return false;
    }
    return true;
}

bool CPipelayer::State::Flush() {
    if (Failed()) return false;
    if (used == 0) return true;
    const std::size_t n = used;
    used = 0;
    return WriteOut(batch.data(), n);
}

bool CPipelayer::State::Sync() {
    if (!Flush()) return false;
    if (fd < 0 || !syncable) return true;
    if (::fdatasync(fd) == 0) {
        synced = accepted;
        return true;
    }
    const int err = errno;
    if (err == EINVAL || err == EROFS || err == ENOTSUP) {
        // Nothing there to make durable: a pipe, a socket or a device.
        syncable = false;
        return true;
    }
    error = CQiError(err, "sync " + target).AsString();
    return false;
}

bool CPipelayer::State::WriteOut(const char* first, std::size_t firstLength, const char* second,
                                 std::size_t secondLength) {
    if (Failed()) return false;
    SigpipeGuard guard;
    iovec pieces[2] = {{const_cast<char*>(first), firstLength}, {const_cast<char*>(second), secondLength}};
    iovec* next = pieces;
    int count = 2;
    while (count > 0) {
        if (next->iov_len == 0) {
            ++next;
            --count;
            continue;
        }
        const ssize_t n = ::writev(fd, next, count);
        if (n < 0) {
            const int err = errno;
            if (err == EINTR) continue;
            if (err == EPIPE) guard.Raised();
            error = CQiError(err, "write to " + target).AsString();
            return false;
        }
        if (n == 0) {
            error = "write to " + target + ": no progress";
            return false;
        }
        // A partial write: resume where it stopped.
        auto done = static_cast<std::size_t>(n);
        while (count > 0 && done >= next->iov_len) {
            done -= next->iov_len;
            ++next;
            --count;
        }
        if (count > 0) {
            next->iov_base = static_cast<char*>(next->iov_base) + done;
            next->iov_len -= done;
        }
    }
    return true;
}

bool CPipelayer::State::Close() {
    // A finished stream is durable before its owner reports it written.
    bool ok = fd < 0 ? !Failed() : Sync();
    if (fd >= 0 && owned && ::close(fd) != 0 && ok) {
        const int err = errno;
        error = CQiError(err, "close " + target).AsString();
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
