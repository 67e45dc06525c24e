// A file descriptor that closes itself: the one owner type of the host and its tools.
#pragma once

#include <unistd.h>
#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace vshost {

namespace detail {

// Calls `io` (pread or pwrite) until all `length` bytes at `at` are moved, short counts
// and EINTR retried; false at the end of the file or on an error (errno then says which).
template <typename Byte, typename Io>
bool WholeAt(Io io, int fd, Byte* data, uint64_t length, uint64_t at) {
    while (length > 0) {
        const ssize_t n = io(fd, data, length, static_cast<off_t>(at));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        length -= static_cast<uint64_t>(n);
        at += static_cast<uint64_t>(n);
    }
    return true;
}

}  // namespace detail

// Exactly `length` bytes at `at`, short reads and EINTR retried; false at the end of the
// file or on an error (errno then says which).
inline bool PreadAll(int fd, char* out, size_t length, uint64_t at) {
    return detail::WholeAt(::pread, fd, out, length, at);
}

inline bool PwriteAll(int fd, const char* data, uint64_t length, uint64_t at) {
    return detail::WholeAt(::pwrite, fd, data, length, at);
}

class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd() { Reset(); }
    Fd(Fd&& o) noexcept : m_fd(o.Release()) {}
    Fd& operator=(Fd&& o) noexcept {
        if (this != &o) {
            Reset();
            m_fd = o.Release();
        }
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    int Release() {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    void Reset() {
        if (m_fd >= 0) ::close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd = -1;
};

}  // namespace vshost
