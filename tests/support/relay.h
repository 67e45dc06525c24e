// The end of a server (the object store, PostgreSQL) as the programs under test see it:
// bytes pass both ways to the real server until the test makes that end fail as the
// server would. A true process boundary: the server behind it stays up for other tests.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace vstest {

// A Unix socket's path, or else a port of 127.0.0.1 (0: any free one).
struct SocketEnd {
    std::string path;
    int port = 0;
};

// After the client has sent `cutAfter` bytes: every connection is reset and no new one
// taken, as when the server's process is killed (Die); one byte of a request body sent
// after that point is flipped on its way, once (Damage); or the client's bytes are no
// longer taken, its requests hanging, while the server's answers still pass (Stall).
enum class Fault { Die, Damage, Stall };

class Relay {
public:
    Relay(SocketEnd listen, SocketEnd upstream, size_t cutAfter = SIZE_MAX, Fault fault = Fault::Die)
        : m_end(std::move(listen)), m_upstream(std::move(upstream)), m_cutAfter(cutAfter), m_fault(fault) {
        Listen();
        m_thread = std::thread([this] { Loop(); });
    }
    ~Relay() {
        m_stop = true;
        m_thread.join();
    }
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    const SocketEnd& end() const { return m_end; }
    // Every connection cut and new ones refused, as when the server is killed; Up() lets
    // them through again.
    void Down() { Want(true); }
    void Up() { Want(false); }
    bool died() const { return m_wantDown; }
    bool damaged() const { return m_damaged; }
    bool stalled() const { return m_stalled; }

private:
    // A socket of `end`'s kind and its address.
    static int Socket(const SocketEnd& end, sockaddr_storage& a, socklen_t& len) {
        a = {};
        if (!end.path.empty()) {
            auto& un = reinterpret_cast<sockaddr_un&>(a);
            un.sun_family = AF_UNIX;
            if (end.path.size() >= sizeof un.sun_path) throw std::runtime_error("too long for a socket: " + end.path);
            std::memcpy(un.sun_path, end.path.c_str(), end.path.size() + 1);
            len = sizeof un;
        } else {
            auto& in = reinterpret_cast<sockaddr_in&>(a);
            in.sin_family = AF_INET;
            in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            in.sin_port = htons(static_cast<uint16_t>(end.port));
            len = sizeof in;
        }
        return ::socket(a.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    }
    void Listen() {
        sockaddr_storage a{};
        socklen_t len = 0;
        if (!m_end.path.empty()) ::unlink(m_end.path.c_str());
        m_listen = Socket(m_end, a, len);
        auto* sa = reinterpret_cast<sockaddr*>(&a);
        if (::bind(m_listen, sa, len) != 0 || ::listen(m_listen, 16) != 0 || ::getsockname(m_listen, sa, &len) != 0)
            throw std::runtime_error("relay: cannot listen");
        if (m_end.path.empty()) m_end.port = ntohs(reinterpret_cast<sockaddr_in&>(a).sin_port);
    }
    int Upstream() const {
        sockaddr_storage a{};
        socklen_t len = 0;
        const int fd = Socket(m_upstream, a, len);
        if (::connect(fd, reinterpret_cast<sockaddr*>(&a), len) == 0) return fd;
        ::close(fd);
        return -1;
    }
    void Want(bool down) {
        m_wantDown = down;
        while (m_isDown != down) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    struct Pair {
        int fd[2];     // client, server
        bool open[2];  // still reading from that side
    };
    void CloseAll(std::vector<Pair>& pairs) const {
        for (const auto& p : pairs) {
            if (m_fault == Fault::Die && m_cutAfter != SIZE_MAX) {  // killed: reset, not closed
                const linger hard{1, 0};
                ::setsockopt(p.fd[0], SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
            }
            ::close(p.fd[0]);
            ::close(p.fd[1]);
        }
        pairs.clear();
    }
    // Passes what `side` of `p` has sent to the other side; false at its end.
    bool Pass(Pair& p, int side, size_t& sent) {
        char buf[65536];
        const ssize_t n = ::read(p.fd[side], buf, sizeof buf);
        if (n <= 0) {
            ::shutdown(p.fd[1 - side], SHUT_WR);
            return false;
        }
        if (side == 0 && (sent += static_cast<size_t>(n)) > m_cutAfter && !m_damaged) {
            // A full read deep into a body is body bytes, never headers.
            if (m_fault == Fault::Stall) m_stalled = true;
            if (m_fault == Fault::Die) {
                m_wantDown = true;
                return true;
            }
            if (m_fault == Fault::Damage && n == sizeof buf && sent > m_cutAfter + 4 * sizeof buf) {
                buf[n - 1] = static_cast<char>(buf[n - 1] ^ 1);
                m_damaged = true;
            }
        }
        (void)!::write(p.fd[1 - side], buf, static_cast<size_t>(n));
        return true;
    }
    void Loop() {
        std::vector<Pair> pairs;
        size_t sent = 0;
        while (!m_stop) {
            if (m_wantDown != m_isDown) {
                CloseAll(pairs);
                if (m_wantDown) {
                    ::close(m_listen);
                    m_listen = -1;
                } else {
                    Listen();
                }
                m_isDown = m_wantDown.load();
            }
            // Poll only what is listed now: a connection accepted below waits for the next round.
            std::vector<pollfd> fds{{m_listen, POLLIN, 0}};
            for (const auto& p : pairs)
                for (int side = 0; side < 2; ++side)
                    fds.push_back({p.open[side] && !(side == 0 && m_stalled) ? p.fd[side] : -1, POLLIN, 0});
            const size_t polled = pairs.size();
            if (::poll(fds.data(), fds.size(), 20) <= 0) continue;
            if (fds[0].revents & POLLIN) {
                const int c = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
                const int u = c >= 0 ? Upstream() : -1;
                if (u >= 0)
                    pairs.push_back({{c, u}, {true, true}});
                else if (c >= 0)
                    ::close(c);
            }
            for (size_t i = 0; i < polled && !m_wantDown; ++i)
                for (int side = 0; side < 2; ++side)
                    if (fds[1 + 2 * i + side].revents & (POLLIN | POLLHUP | POLLERR))
                        pairs[i].open[side] = Pass(pairs[i], side, sent);
        }
        CloseAll(pairs);
        if (m_listen >= 0) ::close(m_listen);
    }

    SocketEnd m_end, m_upstream;
    size_t m_cutAfter;
    Fault m_fault;
    int m_listen = -1;
    std::atomic<bool> m_stop{false}, m_wantDown{false}, m_isDown{false}, m_damaged{false}, m_stalled{false};
    std::thread m_thread;
};

}  // namespace vstest
