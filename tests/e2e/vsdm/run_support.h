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
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <stdexcept>
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

// Two VMs whole and one disk of a third: items of every kind a job's streams share out.
inline std::vector<std::string> ThreeItems(const vssample::SampleSnapshot& s) {
    return {s.vm("web01").biosUuid, s.vm("db01").biosUuid, s.vm("fs01").biosUuid + "\\fs01_data.img"};
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

// Homes a, b and c of one catalog (`catalog`: its connection), leases of 2 s, snapshot
// `snapJob` registered from a with its datastores `datastores` ("ds1=FOLDER ...").
inline std::vector<std::string> SharedHomes(const TempHome& scratch, const std::string& catalog, int snapJob,
                                            const std::string& datastores) {
    std::vector<std::string> homes;
    for (const char* name : {"a", "b", "c"}) {
        homes.push_back(scratch.sub(name));
        std::filesystem::create_directory(homes.back());
        std::ofstream(homes.back() + "/settings.ini") << "[Catalog]\nsConnection=" << catalog << "\nnLeaseSeconds=2\n";
    }
    const RunResult added = Shell(Vsdm() + " snapshot add --snap-job " + std::to_string(snapJob) + " " + datastores +
                                  " --home " + homes[0]);
    if (added.status != 0) throw std::runtime_error(added.output);
    return homes;
}

// A shared job of snapshot `snapJob` created from `home`: its id, as vsdm job create prints it.
inline std::string CreateJob(const std::string& home, int snapJob, const std::string& args) {
    const RunResult created = Shell("(" + Vsdm() + " job create --snapshot " + std::to_string(snapJob) + " " + args +
                                    " --home " + home + " 2>/dev/null)");
    if (created.status != 0) throw std::runtime_error(created.output);
    return created.output.substr(0, created.output.find('\n'));
}

// A FIFO that a writer (vsdm, one of its stream processes, a worker) writes its stream
// into and this test reads at its own pace, so that the writer can be caught at a known
// point of its stream and signalled there. Made and opened before the writer starts, so
// that the writer's open goes on; `pipeBytes` shrinks the pipe so that the writer waits on
// every page.
class HeldFifo {
public:
    explicit HeldFifo(std::string path, int pipeBytes = 0) : m_path(std::move(path)) {
        ::unlink(m_path.c_str());
        if (mkfifo(m_path.c_str(), 0600) != 0) throw std::runtime_error("mkfifo " + m_path);
        m_fd = open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (m_fd < 0 || (pipeBytes > 0 && fcntl(m_fd, F_SETPIPE_SZ, pipeBytes) < 0))
            throw std::runtime_error("FIFO " + m_path);
        m_chunk = pipeBytes > 0 ? static_cast<size_t>(pipeBytes) : 65536;
    }
    ~HeldFifo() {
        if (m_fd >= 0) close(m_fd);
    }
    HeldFifo(const HeldFifo&) = delete;
    HeldFifo& operator=(const HeldFifo&) = delete;

    // One read of at most `most` bytes: how many it took, 0 when none wait, -1 at the end
    // of the stream (once a writer came and went: a FIFO nobody opened yet reads as empty).
    ssize_t ReadSome(size_t most = SIZE_MAX) {
        std::vector<char> buf(std::min(most, m_chunk));
        const ssize_t n = m_fd < 0 ? 0 : read(m_fd, buf.data(), buf.size());
        if (n > 0) m_bytes.append(buf.data(), static_cast<size_t>(n));
        if (n > 0 || (n < 0 && errno == EAGAIN) || (n == 0 && m_bytes.empty())) return std::max<ssize_t>(n, 0);
        return -1;
    }
    // Reads until `enough` holds for what was read, at most `cap` bytes in all; false if
    // the stream ended (or stayed idle for a minute) first.
    bool ReadUntil(const std::function<bool(const std::string&)>& enough, size_t cap = SIZE_MAX) {
        for (int idle = 0; idle < 60000;) {
            if (enough(m_bytes)) return true;
            const ssize_t n = ReadSome(cap - m_bytes.size());
            if (n < 0) return false;
            pollfd pfd{m_fd, POLLIN, 0};
            if (n == 0) idle += poll(&pfd, 1, 1) == 0 ? 1 : 0;
        }
        return false;
    }
    bool ReadTo(size_t bytes) {
        return ReadUntil([bytes](const std::string& b) { return b.size() >= bytes; }, bytes);
    }
    // Reads until the writer closes the stream.
    void Drain() {
        ReadUntil([](const std::string&) { return false; });
    }
    // Leaves what was read as a regular file in the FIFO's place: the stream's file.
    const std::string& KeepAsFile() {
        close(m_fd);
        m_fd = -1;
        unlink(m_path.c_str());
        WriteFile(m_path, m_bytes);
        return m_bytes;
    }
    const std::string& bytes() const { return m_bytes; }

private:
    std::string m_path;
    int m_fd = -1;
    size_t m_chunk = 65536;
    std::string m_bytes;
};

// vsdm run with its stream into a HeldFifo.
class SlowConsumerRun {
public:
    SlowConsumerRun(const TempHome& home, const std::string& jobFile)
        : m_errPath(home.sub("run.err")), m_fifo(home.sub("stream.fifo")) {
        m_pid = StartShell(Vsdm() + " run " + jobFile + " --out " + home.sub("stream.fifo"), m_errPath);
    }
    ~SlowConsumerRun() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    bool started() const { return m_pid > 0; }
    // Reads until the stream holds at least `bytes` (false if it ended first).
    bool ReadUntil(size_t bytes) { return m_fifo.ReadTo(bytes); }
    // Sends `signal` while vsdm waits on this consumer, takes the rest, and returns the
    // wait status.
    int SignalAndDrain(int signal) {
        usleep(200000);
        kill(m_pid, signal);
        return Drain();
    }
    // Takes the rest of the stream and returns the wait status.
    int Drain() {
        m_fifo.Drain();
        int wstatus = 0;
        waitpid(m_pid, &wstatus, 0);
        m_pid = -1;
        return wstatus;
    }
    const std::string& stream() const { return m_fifo.bytes(); }
    std::string errors() const { return ReadAll(m_errPath); }

private:
    std::string m_errPath;
    HeldFifo m_fifo;
    pid_t m_pid = -1;
};

}  // namespace vstest
