// A file descriptor that closes itself: the one owner type of the host and its tools.
#pragma once

#include <unistd.h>

namespace vshost {

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
