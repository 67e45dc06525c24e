#include "parallel.h"

#include "objecttarget.h"
#include "output.h"
#include "split.h"
#include "streamcount.h"

#include "vshost/streamset.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <set>

extern char** environ;

namespace vsdm {

namespace {

int Rank(int status) {
    switch (status) {
        case kExitOk:
            return 0;
        case kExitItemsFailed:
            return 1;
        case kExitJobFailed:
            return 2;
        case kExitStopped:
            return 3;
        case kExitStreamFailed:
            return 4;
        default:
            return 2;  // a child that refused its own command line: it could not start
    }
}

std::string ProgramToSpawn() {
    std::string self = SelfPath();
    if (self.empty()) throw std::runtime_error("cannot find this program's own file to start the streams");
    return self;
}

struct Child {
    unsigned number = 0;  // 1-based, as in the member's name
    std::string path;     // its stream
    std::vector<size_t> share;
    pid_t pid = -1;
    int reportFd = -1;   // read end of its report pipe
    std::string report;  // what came through it
    bool running = false;
    int waitStatus = 0;
    std::string why;  // set when it could not be started
};

// Starts one child with SIGINT and SIGTERM back at their defaults and nothing blocked,
// and its report pipe on kChildReportFd.
void Spawn(Child& c, const std::string& self, const StreamsOptions& o) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0 || ::fcntl(pipeFds[0], F_SETFL, O_NONBLOCK) != 0) {
        c.why = std::string("no report pipe: ") + std::strerror(errno);
        return;
    }
    std::vector<std::string> args = {self,    "run",     o.jobFile,
                                     "--out", c.path,    "--home",
                                     o.home,  "--share", std::to_string(c.number) + ":" + FormatShare(c.share)};
    if (o.incrementalFrom != 0) {
        args.push_back("--incremental-from");
        args.push_back(std::to_string(o.incrementalFrom));
    }
    if (!o.compress.empty()) {
        args.push_back("--compress");
        args.push_back(o.compress);
    }
    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], kChildReportFd);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGTERM);
    sigaddset(&defaults, SIGCHLD);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int rc = posix_spawn(&c.pid, self.c_str(), &actions, &attr, argv.data(), environ);
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    if (rc != 0) {
        ::close(pipeFds[0]);
        c.why = std::string("could not be started: ") + std::strerror(rc);
        return;
    }
    c.reportFd = pipeFds[0];
    c.running = true;
}

// Takes what the child's report pipe holds now (a report larger than the pipe's buffer
// would otherwise hold the child up at its end); closes it at its end.
void TakeReport(Child& c) {
    char buf[4096];
    while (c.reportFd >= 0) {
        const ssize_t n = ::read(c.reportFd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN) return;
        if (n <= 0) {
            ::close(c.reportFd);
            c.reportFd = -1;
            return;
        }
        c.report.append(buf, static_cast<size_t>(n));
    }
}

void Add(RunSummary& total, const RunSummary& s) {
    for (const SummaryCount& c : kSummaryCounts) total.*c.field += s.*c.field;
    total.vmPaths.insert(total.vmPaths.end(), s.vmPaths.begin(), s.vmPaths.end());
    total.incompleteDisks.insert(total.incompleteDisks.end(), s.incompleteDisks.begin(), s.incompleteDisks.end());
}

}  // namespace

int WorseStatus(int a, int b) {
    const int worst = Rank(b) > Rank(a) ? b : a;
    return Rank(worst) == Rank(kExitJobFailed) ? kExitJobFailed : worst;
}

std::string EncodeSummary(const RunSummary& s) {
    nlohmann::json doc = {{"streamComplete", s.streamComplete},
                          {"status", s.status},
                          {"vms", s.vmPaths},
                          {"incompleteDisks", s.incompleteDisks}};
    for (const SummaryCount& c : kSummaryCounts) doc[c.name] = s.*c.field;
    return doc.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

bool DecodeSummary(const std::string& text, RunSummary& s) {
    const nlohmann::json doc = nlohmann::json::parse(text, nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) return false;
    try {
        RunSummary r;
        for (const SummaryCount& c : kSummaryCounts) r.*c.field = doc.at(c.name).get<uint64_t>();
        r.streamComplete = doc.at("streamComplete").get<bool>();
        r.status = doc.at("status").get<int>();
        r.vmPaths = doc.at("vms").get<std::vector<std::string>>();
        r.incompleteDisks = doc.at("incompleteDisks").get<std::vector<std::string>>();
        s = std::move(r);
        return true;
    } catch (const nlohmann::json::exception&) {
        return false;
    }
}

// Starts every child and waits for all of them; a SIGINT or SIGTERM is passed on to the
// children still running. True when the run was stopped.
bool SpawnAndWait(std::vector<Child>& children, const std::string& self, const StreamsOptions& o) {
    // The signals are taken synchronously below; a child is reaped only there, so a pid
    // that a signal is forwarded to is always still this run's child.
    sigset_t handled, old;
    sigemptyset(&handled);
    sigaddset(&handled, SIGINT);
    sigaddset(&handled, SIGTERM);
    sigaddset(&handled, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &handled, &old);

    for (Child& c : children) Spawn(c, self, o);

    bool stopped = false;
    for (;;) {
        for (Child& c : children) {
            if (!c.running) continue;
            int st = 0;
            const pid_t r = ::waitpid(c.pid, &st, WNOHANG);
            if (r == c.pid) {
                c.running = false;
                c.waitStatus = st;
            }
        }
        for (Child& c : children) TakeReport(c);
        if (std::none_of(children.begin(), children.end(), [](const Child& c) { return c.running; })) break;
        const timespec tick{0, 50L * 1000 * 1000};
        const int sig = sigtimedwait(&handled, nullptr, &tick);
        if (sig == SIGINT || sig == SIGTERM) {
            stopped = true;
            for (const Child& c : children)
                if (c.running) ::kill(c.pid, sig);
        }
    }
    // Take what is still pending, so that unblocking does not end this process.
    const timespec zero{0, 0};
    while (true) {
        const int sig = sigtimedwait(&handled, nullptr, &zero);
        if (sig < 0) break;
        if (sig == SIGINT || sig == SIGTERM) stopped = true;
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return stopped;
}

// One child's outcome into the run's summary: its report, or what its stream holds when
// it left none; returns the child's status.
int MergeChild(Child& c, bool stopped, RunSummary& total, bool& complete, std::ostream& report) {
    RunSummary s;
    const std::string name = "stream " + std::to_string(c.number) + " (" + c.path + ")";
    bool reported = false;
    TakeReport(c);
    if (c.reportFd >= 0) ::close(c.reportFd);
    reported = !c.report.empty() && DecodeSummary(c.report, s);
    int childStatus = kExitJobFailed;
    if (!c.why.empty()) {
        report << "vsdm: " << name << " " << c.why << "\n";
    } else if (WIFSIGNALED(c.waitStatus) && stopped &&
               (WTERMSIG(c.waitStatus) == SIGINT || WTERMSIG(c.waitStatus) == SIGTERM)) {
        // The stop reached it before it could take the signal itself.
        report << "vsdm: " << name << " was stopped before it began\n";
        childStatus = kExitStopped;
    } else if (WIFSIGNALED(c.waitStatus)) {
        const int sig = WTERMSIG(c.waitStatus);
        report << "vsdm: " << name << " is incomplete: its process was killed by signal " << sig << " ("
               << strsignal(sig) << ")\n";
        childStatus = kExitStreamFailed;
    } else {
        childStatus = WEXITSTATUS(c.waitStatus);
    }
    if (!reported) {
        // What the stream holds is all there is to go by; its items are not known
        // to have succeeded.
        CountStream(c.path, s);
        s.items = c.share.size();
        s.itemsFailed = s.items;
    }
    if (!s.streamComplete) {
        complete = false;
        total.incompleteStreams.push_back(name + (StreamExists(c.path) ? "" : ": missing"));
    }
    Add(total, s);
    return childStatus;
}

RunSummary RunStreams(const DataMoverJob& job, const StreamsOptions& o, std::ostream& report) {
    const auto started = std::chrono::steady_clock::now();
    RunSummary total;
    const std::vector<std::vector<size_t>> shares = SplitItems(job.items, o.streams);
    total.streams = static_cast<unsigned>(shares.size());

    CheckNotAnInput(job, o.jobFile, job.out);
    for (size_t k = 0; k < shares.size(); ++k)
        CheckNotAnInput(job, o.jobFile, vshost::StreamSetMemberPath(job.out, static_cast<unsigned>(k + 1)));

    std::vector<Child> children(shares.size());
    vshost::StreamSet set;
    set.jobId = job.host.jobId;
    for (size_t k = 0; k < shares.size(); ++k) {
        Child& c = children[k];
        c.number = static_cast<unsigned>(k + 1);
        c.path = vshost::StreamSetMemberPath(job.out, c.number);
        c.share = shares[k];
        set.members.push_back(std::filesystem::path(c.path).filename().string());
        // A stream left by an earlier run must not pass for this run's.
        RemoveStream(c.path);
    }
    // The manifest goes first: whatever happens to the children, the set names every
    // stream it should hold, and a missing or unfinished one shows.
    std::string why;
    if (!PublishStreamSet(job.out, set, why)) {
        report << "vsdm: " << why << "\n";
        total.status = kExitStreamFailed;
        return total;
    }

    const bool stopped = SpawnAndWait(children, ProgramToSpawn(), o);

    int status = kExitOk;
    bool complete = true;
    for (Child& c : children) status = WorseStatus(status, MergeChild(c, stopped, total, complete, report));
    std::sort(total.vmPaths.begin(), total.vmPaths.end());
    total.vmPaths.erase(std::unique(total.vmPaths.begin(), total.vmPaths.end()), total.vmPaths.end());
    total.vms = total.vmPaths.size();
    total.streamComplete = complete;
    // Every child was told of a stop; one that had finished already is no less stopped.
    if (stopped) status = WorseStatus(status, kExitStopped);
    if (!complete && Rank(status) < Rank(kExitStopped)) status = kExitStreamFailed;
    total.status = status;
    total.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return total;
}

}  // namespace vsdm
