#include "disk/qemu.h"

#include "hostapi/fd.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace vshost::qemu {

namespace {

constexpr const char* kListenPid = "LISTEN_PID=";
constexpr size_t kPidDigits = 20;

// What the child does between fork and exec: async-signal-safe calls only, on memory
// prepared before the fork.
struct ChildPlan {
    pid_t parent = 0;
    std::vector<char*> argv;
    std::vector<char*> envp;
    char* listenPid = nullptr;  // where the child writes its own pid, or null
    std::vector<int> sources;   // standard in, out and error, then the inherited descriptors
    std::vector<int> moved;     // room for the sources moved out of the way
    int lowestFree = 0;         // the first number the child keeps no descriptor at
    rlim_t maxFds = 0;
};

void WritePid(char* at, pid_t pid) {
    char digits[kPidDigits];
    size_t n = 0;
    auto v = static_cast<unsigned long>(pid);
    do {
        digits[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0 && n < kPidDigits - 1);
    for (size_t i = 0; i < n; ++i) at[i] = digits[n - 1 - i];
    at[n] = '\0';
}

[[noreturn]] void ChildExec(ChildPlan& plan) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != plan.parent) ::_exit(127);  // the parent ended before the line above
    ::setpgid(0, 0);
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    for (int sig : {SIGINT, SIGTERM, SIGPIPE, SIGHUP}) ::sigaction(sig, &dfl, nullptr);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    // Every source moves above its target first, so that no dup2 replaces a source that
    // is still to be placed.
    for (size_t i = 0; i < plan.sources.size(); ++i)
        if ((plan.moved[i] = ::fcntl(plan.sources[i], F_DUPFD, plan.lowestFree)) < 0) ::_exit(127);
    for (size_t i = 0; i < plan.moved.size(); ++i)
        if (::dup2(plan.moved[i], static_cast<int>(i)) < 0) ::_exit(127);
    if (::syscall(SYS_close_range, plan.lowestFree, ~0u, 0) != 0)
        for (rlim_t fd = static_cast<rlim_t>(plan.lowestFree); fd < plan.maxFds; ++fd) ::close(static_cast<int>(fd));
    if (plan.listenPid) WritePid(plan.listenPid, ::getpid());
    ::execve(plan.argv[0], plan.argv.data(), plan.envp.data());
    ::_exit(127);
}

bool Fail(std::string& why, std::string text) {
    why = std::move(text);
    return false;
}

std::string Trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '\r')) text.pop_back();
    return text;
}

}  // namespace

std::string ChildFdPath(int childFd) {
    return "/proc/self/fd/" + std::to_string(childFd);
}

std::string Tool(const std::string& tool, std::string& why) {
    // A data mover started with a narrow PATH still finds the Debian package's tools.
    const char* env = std::getenv("PATH");
    const std::string path = std::string(env && *env ? env : "") + ":/usr/bin:/bin";
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find(':', start);
        if (end == std::string::npos) end = path.size();
        const std::string dir = path.substr(start, end - start);
        start = end + 1;
        if (dir.empty() || dir.front() != '/') continue;  // a relative PATH entry depends on the folder we run in
        std::string candidate = dir + "/" + tool;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    why = tool +
          " is not installed (Debian package qemu-utils): sparse VMDK, SESPARSE, qcow2 and delta disks are "
          "read through it";
    return {};
}

pid_t Spawn(const SpawnSpec& spec, std::string& why) {
    if (spec.argv.empty() || spec.argv[0].empty() || spec.argv[0].front() != '/') {
        why = "no program to run";
        return -1;
    }
    const Fd devnull(::open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!devnull.valid()) {
        why = std::string("/dev/null: ") + std::strerror(errno);
        return -1;
    }
    std::vector<std::string> args = spec.argv;
    std::vector<std::string> env = {"LC_ALL=C", "PATH=/usr/sbin:/usr/bin:/sbin:/bin"};
    if (spec.socketActivation) {
        env.push_back("LISTEN_FDS=1");
        env.push_back(kListenPid + std::string(kPidDigits, '\0'));
    }
    ChildPlan plan;
    plan.parent = ::getpid();
    for (std::string& a : args) plan.argv.push_back(a.data());
    plan.argv.push_back(nullptr);
    for (std::string& e : env) plan.envp.push_back(e.data());
    plan.envp.push_back(nullptr);
    if (spec.socketActivation) plan.listenPid = env.back().data() + std::strlen(kListenPid);
    plan.sources = {devnull.get(), spec.out >= 0 ? spec.out : devnull.get(), spec.err >= 0 ? spec.err : devnull.get()};
    plan.sources.insert(plan.sources.end(), spec.inherit.begin(), spec.inherit.end());
    plan.moved.resize(plan.sources.size());
    plan.lowestFree = static_cast<int>(plan.sources.size());
    rlimit limit{};
    plan.maxFds = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY ? limit.rlim_cur : 65536;

    const pid_t pid = ::fork();
    if (pid == 0) ChildExec(plan);
    if (pid < 0) why = std::string("cannot start ") + spec.argv[0] + ": " + std::strerror(errno);
    return pid;
}

int Reap(pid_t pid, int seconds) {
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        const pid_t done = ::waitpid(pid, &status, WNOHANG);
        if (done == pid || (done < 0 && errno != EINTR)) return status;
        if (std::chrono::steady_clock::now() >= deadline) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ::kill(pid, SIGKILL);
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

bool Run(SpawnSpec spec, std::string& out, std::string& why, size_t cap, int seconds) {
    out.clear();
    int outPipe[2], errPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0) return Fail(why, std::string("pipe: ") + std::strerror(errno));
    Fd outRead(outPipe[0]), outWrite(outPipe[1]);
    if (::pipe2(errPipe, O_CLOEXEC) != 0) return Fail(why, std::string("pipe: ") + std::strerror(errno));
    Fd errRead(errPipe[0]), errWrite(errPipe[1]);
    spec.out = outWrite.get();
    spec.err = errWrite.get();
    const pid_t pid = Spawn(spec, why);
    if (pid < 0) return false;
    outWrite.Reset();
    errWrite.Reset();

    std::string err;
    bool tooLong = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    pollfd fds[2] = {{outRead.get(), POLLIN, 0}, {errRead.get(), POLLIN, 0}};
    char buf[65536];
    while ((fds[0].fd >= 0 || fds[1].fd >= 0) && !tooLong) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        if (::poll(fds, 2, static_cast<int>(left.count())) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            const ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
            if (n <= 0) {
                fds[i].fd = -1;
                continue;
            }
            std::string& into = i == 0 ? out : err;
            into.append(buf, static_cast<size_t>(n));
            if (i == 0 && out.size() > cap) tooLong = true;
            if (i == 1 && err.size() > 4096) err.resize(4096);
        }
    }
    const bool timedOut = fds[0].fd >= 0 || fds[1].fd >= 0;
    // A child that closed its output is ending; one that ran too long is killed at once.
    const int status = Reap(pid, timedOut || tooLong ? 0 : seconds);
    if (tooLong) return Fail(why, spec.argv[0] + " said more than " + std::to_string(cap) + " bytes");
    if (timedOut) return Fail(why, spec.argv[0] + " did not finish within " + std::to_string(seconds) + " seconds");
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
    why = Trimmed(err);
    if (why.empty())
        why = spec.argv[0] + (WIFSIGNALED(status) ? " was killed by signal " + std::to_string(WTERMSIG(status))
                                                  : " ended with status " + std::to_string(WEXITSTATUS(status)));
    return false;
}

}  // namespace vshost::qemu
