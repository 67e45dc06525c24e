// Running vsdm and vsstream as a user does, for the tests of whole jobs.
#pragma once

#include "hostapi/snapsrc.h"
#include "temp_home.h"
#include "vssample/sample.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

namespace vstest {

struct RunResult {
    int status = -1;     // exit status; 128 + signal when killed
    std::string output;  // stdout and stderr
};

inline RunResult Shell(const std::string& command) {
    RunResult r;
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    std::array<char, 4096> buf{};
    size_t n = 0;
    while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) r.output.append(buf.data(), n);
    const int rc = pclose(p);
    r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : WIFSIGNALED(rc) ? 128 + WTERMSIG(rc) : 128;
    return r;
}

// `command` started through the shell in the background, its standard output and error
// into `outPath`; WaitFor gives its exit status (128 + signal when killed).
inline pid_t StartShell(const std::string& command, const std::string& outPath) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    const int fd = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || dup2(fd, STDOUT_FILENO) < 0 || dup2(fd, STDERR_FILENO) < 0) _exit(127);
    execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), static_cast<char*>(nullptr));
    _exit(127);
}

inline int WaitFor(pid_t pid) {
    int st = 0;
    if (waitpid(pid, &st, 0) != pid) return -1;
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

inline std::string Vsdm() {
    return "'" VSDM_TOOL "'";
}
inline std::string Vsstream() {
    return "'" VSSTREAM_TOOL "'";
}

// An extent job over the sample snapshot with the given items (VM or disk paths), with
// change tracking asked for when `cbt` is set.
inline nlohmann::json SampleJob(const TempHome& home, const vssample::SampleSnapshot& s, int64_t jobId,
                                const std::vector<std::string>& paths, bool cbt = false) {
    VirtualServer::SnapSrcPathOptions options;
    options.useCBT = 1;
    nlohmann::json items = nlohmann::json::array();
    for (const std::string& p : paths) {
        items.push_back({{"path", p}});
        if (cbt) items.back()["options"] = options.Serialize();
    }
    nlohmann::json job = vssample::JobFor(s, jobId);
    job["home"] = home.path();
    job["items"] = items;
    return job;
}

inline void WriteJob(const TempHome& home, const std::string& name, const nlohmann::json& job) {
    std::ofstream(home.sub(name)) << job.dump();
}

// The file a restore holds a disk's bytes in: a VMDK is restored as one (a descriptor
// beside its flat file), any other image keeps its name.
inline std::string RestoredBytes(const std::string& disk) {
    return disk.ends_with(".vmdk") ? disk.substr(0, disk.size() - 5) + "-flat.vmdk" : disk;
}

// Every entry under `folder` by relative path: a file's content, or "<folder>".
inline std::map<std::string, std::string> Tree(const std::string& folder) {
    std::map<std::string, std::string> out;
    for (const auto& e : std::filesystem::recursive_directory_iterator(folder)) {
        const std::string name = std::filesystem::relative(e.path(), folder).string();
        out[name] = e.is_directory() ? "<folder>" : ReadAll(e.path().string());
    }
    return out;
}

// vsdm writing into a FIFO that this test reads at its own pace: the job can be
// caught at a known point of its stream and signalled there.
class SlowConsumerRun {
public:
    SlowConsumerRun(const TempHome& home, const std::string& jobFile) : m_errPath(home.sub("run.err")) {
        const std::string fifo = home.sub("stream.fifo");
        ::unlink(fifo.c_str());
        if (mkfifo(fifo.c_str(), 0600) != 0) return;
        m_read = open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);  // so that vsdm's open does not wait
        m_pid = StartShell(Vsdm() + " run " + jobFile + " --out " + fifo, m_errPath);
    }
    ~SlowConsumerRun() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        if (m_read >= 0) close(m_read);
    }
    bool started() const { return m_pid > 0 && m_read >= 0; }

    // Reads until the stream holds at least `bytes` (false if it ended first).
    bool ReadUntil(size_t bytes) {
        pollfd pfd{m_read, POLLIN, 0};
        if (m_stream.empty()) {
            if (poll(&pfd, 1, 30000) != 1) return false;
            fcntl(m_read, F_SETFL, 0);
        }
        std::array<char, 65536> buf{};
        while (m_stream.size() < bytes) {
            const ssize_t n = read(m_read, buf.data(), std::min(buf.size(), bytes - m_stream.size()));
            if (n <= 0) return false;
            m_stream.append(buf.data(), static_cast<size_t>(n));
        }
        return true;
    }
    // Sends `signal` while vsdm waits on this consumer, takes the rest, and returns the
    // wait status.
    int SignalAndDrain(int signal) {
        usleep(200000);
        kill(m_pid, signal);
        return Drain();
    }
    // Takes the rest of the stream and returns the wait status.
    int Drain() {
        std::array<char, 65536> buf{};
        ssize_t n = 0;
        while ((n = read(m_read, buf.data(), buf.size())) > 0) m_stream.append(buf.data(), static_cast<size_t>(n));
        int wstatus = 0;
        waitpid(m_pid, &wstatus, 0);
        m_pid = -1;
        return wstatus;
    }
    const std::string& stream() const { return m_stream; }
    std::string errors() const { return ReadAll(m_errPath); }

private:
    std::string m_errPath;
    int m_read = -1;
    pid_t m_pid = -1;
    std::string m_stream;
};

}  // namespace vstest
