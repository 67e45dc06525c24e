// The pipeline sink: batches of stream bytes written to a file or a descriptor.
#include "hostapi/archive.h"
#include "stream/streamencoder.h"

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
    : m_fd(fd),
      m_owned(owned),
      m_target(std::move(target)),
      m_batch(kBatchBytes),
      m_encoder(std::make_unique<vshost::detail::StreamEncoder>(*this)) {}

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

vshost::detail::StreamEncoder& CPipelayer::Encoder() {
    return *m_encoder;
}

void CPipelayer::SetArchiveFileId(unsigned long long archiveFileId) {
    m_encoder->identity().archiveFileIds[2] = static_cast<uint32_t>(archiveFileId);
}

void CPipelayer::SetJobId(long long jobId) {
    m_encoder->identity().jobId = jobId;
}

void CPipelayer::SetJobToken(const char* token) {
    m_encoder->identity().jobToken = token ? token : "";
}

void CPipelayer::Abandon() {
    m_encoder->Abandon();
}

vsStreamTotals CPipelayer::Totals() const {
    return m_encoder->Totals();
}

bool CPipelayer::Finished() const {
    return m_encoder->Finished();
}

bool CPipelayer::Write(const void* data, std::size_t length) {
    if (Failed()) return false;
    if (m_fd < 0) {
        m_error = "write to " + m_target + ": the pipeline is closed";
        return false;
    }
    const char* p = static_cast<const char*>(data);
    m_accepted += length;
    {
        std::lock_guard<std::mutex> lock(m_progressMutex);
        m_progress.bytesWritten = m_accepted;
    }
    // A large piece (a data record's payload) is not copied: it goes out right behind
    // the batch gathered so far, in the same system call.
    if (length >= kDirectBytes) {
        const std::size_t n = m_used;
        m_used = 0;
        return WriteOut(m_batch.data(), n, p, length);
    }
    while (length > 0) {
        const std::size_t n = std::min(length, m_batch.size() - m_used);
        std::memcpy(m_batch.data() + m_used, p, n);
        m_used += n;
        p += n;
        length -= n;
        if (m_used == m_batch.size() && !Flush()) return false;
    }
    return true;
}

bool CPipelayer::Flush() {
    if (Failed()) return false;
    if (m_used == 0) return true;
    const std::size_t n = m_used;
    m_used = 0;
    return WriteOut(m_batch.data(), n);
}

bool CPipelayer::Sync() {
    if (!Flush()) return false;
    if (m_fd < 0 || !m_syncable) return true;
    if (::fdatasync(m_fd) == 0) {
        m_synced = m_accepted;
        return true;
    }
    const int err = errno;
    if (err == EINVAL || err == EROFS || err == ENOTSUP) {
        // Nothing there to make durable: a pipe, a socket or a device.
        m_syncable = false;
        return true;
    }
    m_error = CQiError(err, "sync " + m_target).AsString();
    return false;
}

bool CPipelayer::WriteOut(const char* first, std::size_t firstLength, const char* second, std::size_t secondLength) {
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
        const ssize_t n = ::writev(m_fd, next, count);
        if (n < 0) {
            const int err = errno;
            if (err == EINTR) continue;
            if (err == EPIPE) guard.Raised();
            m_error = CQiError(err, "write to " + m_target).AsString();
            return false;
        }
        if (n == 0) {
            m_error = "write to " + m_target + ": no progress";
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

bool CPipelayer::Close() {
    // A finished stream is durable before its owner reports it written.
    bool ok = m_fd < 0 ? !Failed() : Sync();
    if (m_fd >= 0 && m_owned && ::close(m_fd) != 0 && ok) {
        const int err = errno;
        m_error = CQiError(err, "close " + m_target).AsString();
        ok = false;
    }
    m_fd = -1;
    return ok;
}

void CPipelayer::NoteProgress(const vsStreamTotals& totals, const std::string* entry) {
    std::lock_guard<std::mutex> lock(m_progressMutex);
    m_progress.totals = totals;
    if (entry) m_progress.entry = *entry;
}

vsStreamProgress CPipelayer::Progress() const {
    std::lock_guard<std::mutex> lock(m_progressMutex);
    return m_progress;
}
