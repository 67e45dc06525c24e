#include "worker.h"

#include "objecttarget.h"
#include "queue.h"
#include "resume.h"
#include "runner.h"

#include "hostapi/archive.h"
#include "hostapi/event.h"
#include "vshost/home.h"
#include "vshost/queue.h"

#include <unistd.h>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <optional>
#include <sstream>
#include <streambuf>
#include <thread>

namespace fs = std::filesystem;
namespace queue = vshost::queue;

namespace vsdm {
namespace {

std::atomic<bool> g_stopWorker{false};

// How often a worker with nothing to lease looks whether the items others hold have ended
// or one of their leases expired: one small read of the catalog.
constexpr std::chrono::milliseconds kIdlePoll{250};

extern "C" void OnWorkerSignal(int) {
    g_stopWorker.store(true);
}

// SIGINT and SIGTERM between items end the worker; during an item the run's own handlers
// stop the item, and the worker ends after it.
class WorkerSignals {
public:
    WorkerSignals() {
        g_stopWorker.store(false);
        struct sigaction sa {};
        sa.sa_handler = OnWorkerSignal;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGINT, &sa, &m_oldInt);
        sigaction(SIGTERM, &sa, &m_oldTerm);
    }
    ~WorkerSignals() {
        sigaction(SIGINT, &m_oldInt, nullptr);
        sigaction(SIGTERM, &m_oldTerm, nullptr);
    }
    WorkerSignals(const WorkerSignals&) = delete;
    WorkerSignals& operator=(const WorkerSignals&) = delete;

private:
    struct sigaction m_oldInt {};
    struct sigaction m_oldTerm {};
};

int64_t Now() {
    return static_cast<int64_t>(std::time(nullptr));
}

// Who holds a lease: the host, its home and the process, as `vsdm job status` shows it.
std::string Owner() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') (void)std::snprintf(name, sizeof name, "?");
    return std::string(name) + ":" + vshost::HomeDir() + " pid " + std::to_string(::getpid());
}

// The run's report, to the worker's and into a copy from which a failure's reason is taken.
class Tee : public std::streambuf {
public:
    Tee(std::ostream& a, std::ostream& b) : m_a(a), m_b(b) {}

protected:
    int_type overflow(int_type ch) override {
        if (traits_type::eq_int_type(ch, traits_type::eof())) return traits_type::not_eof(ch);
        m_a.put(traits_type::to_char_type(ch));
        m_b.put(traits_type::to_char_type(ch));
        if (ch == '\n') m_a.flush();
        return ch;
    }

private:
    std::ostream& m_a;
    std::ostream& m_b;
};

int64_t BytesRead(const CPipelayer& pipe) {
    const vsStreamProgress p = pipe.Progress();
    return static_cast<int64_t>(p.totals.dataBytes + p.totals.holeBytes);
}

// Holds an item's lease while it runs: renews it every third of its length with the
// progress so far, records the stream the attempt writes, and stops the run when the
// lease is lost (gone to another worker, or expired while the catalog could not be
// reached), so that the attempt ends and records nothing.
class LeaseKeeper final : public RunObserver {
public:
    LeaseKeeper(queue::Lease lease, int seconds, KtEvent& stop)
        : m_lease(std::move(lease)), m_seconds(seconds), m_stop(stop), m_expires(Now() + seconds) {
        m_thread = std::thread([this] { Loop(); });
    }
    ~LeaseKeeper() override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_done = true;
        }
        m_wake.notify_all();
        m_thread.join();
    }
    LeaseKeeper(const LeaseKeeper&) = delete;
    LeaseKeeper& operator=(const LeaseKeeper&) = delete;

    void Started(const std::string& writing, const CPipelayer& pipe) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_pipe = &pipe;
        }
        bool recorded = false;
        std::string why = "the lease went to another worker before the stream was recorded";
        try {
            recorded = queue::RecordStream(m_lease, writing);
        } catch (const std::exception& e) {
            why = std::string("the stream could not be recorded: ") + e.what();
        }
        if (!recorded) Lose(why);
    }
    void Ended() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_pipe) m_progress = BytesRead(*m_pipe);
        m_pipe = nullptr;
    }
    bool Lost() const { return m_lost.load(); }
    std::string Why() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_why;
    }
    int64_t Progress() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_pipe ? BytesRead(*m_pipe) : m_progress;
    }

private:
    void Loop() {
        const auto every = std::chrono::milliseconds(std::max(200, m_seconds * 1000 / 3));
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_wake.wait_for(lock, every, [this] { return m_done; })) {
            const int64_t progress = m_pipe ? BytesRead(*m_pipe) : m_progress;
            lock.unlock();
            const int64_t now = Now();
            bool held = true;
            std::string problem;
            try {
                held = queue::Renew(m_lease, now, m_seconds, progress);
            } catch (const std::exception& e) {
                problem = e.what();
            }
            lock.lock();
            if (!held) {
                LoseLocked("the lease went to another worker");
            } else if (problem.empty()) {
                m_expires = now + m_seconds;
            } else if (now >= m_expires) {
                LoseLocked("the lease could not be renewed (" + problem + ") and expired");
            }
        }
    }
    void Lose(const std::string& why) {
        std::lock_guard<std::mutex> lock(m_mutex);
        LoseLocked(why);
    }
    void LoseLocked(const std::string& why) {
        if (m_lost.exchange(true)) return;
        m_why = why;
        m_stop.set();
    }

    queue::Lease m_lease;
    int m_seconds;
    KtEvent& m_stop;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_done = false;
    const CPipelayer* m_pipe = nullptr;
    int64_t m_progress = 0;
    int64_t m_expires;
    std::atomic<bool> m_lost{false};
    std::string m_why;
    std::thread m_thread;
};

// The fence on completed disks lasts as long as the item runs in this process.
class HeldLease {
public:
    explicit HeldLease(const queue::Lease& lease) { queue::HoldLease(lease); }
    ~HeldLease() { queue::ReleaseLease(); }
    HeldLease(const HeldLease&) = delete;
    HeldLease& operator=(const HeldLease&) = delete;
};

// Where an earlier attempt's stream is now: as recorded, or, when that was the temporary
// name of a stream since published, under its final name. Empty when it is gone.
std::string EarlierStream(const std::string& key, std::ostream& report) {
    // An object exists once its attempt stored it; a killed attempt's open upload is made
    // into one of the parts it stored (the lease says that attempt is over).
    if (IsObject(key)) {
        if (StreamExists(key)) return key;
        std::string said;
        const bool kept = KeepCutObject(key, said);
        report << "the earlier attempt's stream " << key << ": " << said << "\n";
        return kept ? key : std::string();
    }
    std::error_code ec;
    if (fs::exists(key, ec)) return key;
    const size_t at = key.rfind(".partial-");
    if (at != std::string::npos && fs::exists(key.substr(0, at), ec)) return key.substr(0, at);
    return {};
}

// Goes on from what the earlier attempts' streams hold together (the resume rules of
// `vsdm run --resume`); a stream that is gone or holds nothing to build on is passed over.
void ResumeFromEarlier(DataMoverJob& job, const std::vector<std::string>& streams, std::ostream& report) {
    ResumePoints points;
    bool any = false;
    for (const std::string& key : streams) {
        const std::string path = EarlierStream(key, report);
        if (path.empty()) {
            report << "the earlier attempt's stream " << key << " is gone: not built on\n";
            continue;
        }
        try {
            StreamIdentity identity;
            const ResumePoints these = ReadResumePoints(path, &identity);
            CheckSameJob(job, identity, path);
            MergeResumePoints(points, these);
            any = true;
            report << "going on from the earlier attempt's stream " << path << "\n";
        } catch (const UsageError& e) {
            report << e.what() << ": not built on\n";
        }
    }
    if (any) ApplyResumePoints(job, std::move(points), report);
}

// Why a run failed, from what it reported: its failed items and its own complaints.
std::string FailureOf(const std::string& text) {
    std::string why;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        const bool failedItem = line.rfind("item ", 0) == 0 && line.find(": failed") != std::string::npos;
        if (failedItem || line.rfind("vsdm: ", 0) == 0) why += (why.empty() ? "" : "; ") + line;
    }
    return why.empty() ? "the run failed; see the worker's output and log" : why;
}

enum class ItemEnd { Done, Failed, Lost, Stopped, StreamLost };

struct Attempt {
    DataMoverJob job;
    RunSummary summary;
    bool ran = false;
    std::string error;  // the run could not be made or threw
    std::string target;
};

Attempt RunAttempt(const queue::Item& item, const queue::WorkJob& work, LeaseKeeper& keeper, KtEvent& stop,
                   std::ostream& out) {
    Attempt a;
    try {
        a.job = ItemJob(work.spec, item.spec, item.jobId, item.itemNo);
        a.job.out = a.target = ItemStreamName(work.outPrefix, item.jobId, item.itemNo, item.generation);
        ResumeFromEarlier(a.job, item.streams, out);
        RunOptions options;
        options.out = a.job.out;
        options.compressLevel = work.compress;
        options.stop = &stop;
        options.observer = &keeper;
        a.summary = RunJob(a.job, options, out);
        a.ran = true;
    } catch (const std::exception& e) {
        a.error = e.what();
        out << "vsdm: " << e.what() << "\n";
    }
    return a;
}

ItemEnd RunItem(const queue::Item& item, const queue::WorkJob& work, const std::string& owner, int seconds,
                std::ostream& report) {
    const queue::Lease lease{item.jobId, item.itemNo, item.generation, owner};
    report << "worker: item " << item.itemNo << " of job " << item.jobId << " (" << item.path << "), attempt "
           << item.generation << "\n";
    std::ostringstream captured;
    Tee tee(report, captured);
    std::ostream out(&tee);
    KtEvent stop;
    Attempt a;
    int64_t progress = 0;
    std::string lostWhy;
    {
        const HeldLease fence(lease);
        LeaseKeeper keeper(lease, seconds, stop);
        a = RunAttempt(item, work, keeper, stop, out);
        progress = keeper.Progress();
        if (keeper.Lost()) lostWhy = keeper.Why();
    }
    out.flush();
    // The summary is told once the catalog has taken the outcome: an attempt whose lease
    // went to another worker succeeded at nothing, whatever it read.
    const auto summarize = [&](bool counts) {
        if (!a.ran) return;
        RunSummary s = a.summary;
        if (!counts) s.itemsFailed = s.items;
        PrintSummary(a.job, s, report);
    };
    if (!lostWhy.empty()) {
        summarize(false);
        report << "worker: item " << item.itemNo << " of job " << item.jobId << ": " << lostWhy
               << "; this attempt records nothing\n";
        return ItemEnd::Lost;
    }
    const bool stopped = a.ran && a.summary.status == kExitStopped;
    // A stream that could not be written (its store went away, its disk filled) says
    // nothing of the item: it goes back to the queue, and this worker, whose target
    // fails, takes no more.
    const bool streamLost = a.ran && a.summary.status == kExitStreamFailed;
    queue::Outcome outcome = queue::Outcome::Failed;
    if (stopped || streamLost)
        outcome = queue::Outcome::GivenBack;
    else if (a.ran && a.summary.status == kExitOk)
        outcome = queue::Outcome::Done;
    const std::string failure =
        outcome == queue::Outcome::Failed ? (a.error.empty() ? FailureOf(captured.str()) : a.error) : std::string();
    // A stream left under its final name replaces its temporary in the item's streams.
    const std::string stream = a.ran && a.summary.streamLeft ? a.target : std::string();
    bool recorded = false;
    try {
        recorded = queue::Finish(lease, outcome, failure, stream, progress);
    } catch (const std::exception& e) {
        summarize(false);
        report << "worker: the outcome of item " << item.itemNo << " of job " << item.jobId
               << " could not be recorded (" << e.what()
               << "); this attempt records nothing, and the item goes to the next worker once its lease expires\n";
        return ItemEnd::Lost;
    }
    summarize(recorded);
    if (!recorded) {
        report << "worker: item " << item.itemNo << " of job " << item.jobId
               << ": the lease went to another worker before the outcome was recorded; this attempt records "
                  "nothing\n";
        return ItemEnd::Lost;
    }
    if (stopped) return ItemEnd::Stopped;
    if (streamLost) {
        report << "worker: item " << item.itemNo << " of job " << item.jobId
               << " is given back: its stream could not be written (" << FailureOf(captured.str()) << ")\n";
        return ItemEnd::StreamLost;
    }
    return outcome == queue::Outcome::Done ? ItemEnd::Done : ItemEnd::Failed;
}

// Items another worker holds may still come free, if that worker died: waits until every
// item has ended (false) or a lease has expired (true).
bool AwaitExpiry(int64_t jobId) {
    std::optional<int64_t> next;
    while ((next = queue::NextExpiry(jobId)) && *next >= Now() && !g_stopWorker.load())
        std::this_thread::sleep_for(kIdlePoll);
    return next.has_value();
}

}  // namespace

int RunWorker(const WorkerOptions& options, std::ostream& report) {
    const int seconds = queue::LeaseSeconds();
    if (options.jobId != 0 && !queue::FindJob(options.jobId))
        throw UsageError("job " + std::to_string(options.jobId) + " was never queued (vsdm job create)");
    const std::string owner = Owner();
    const WorkerSignals signals;
    unsigned done = 0, failed = 0, lost = 0;
    bool stopped = false, empty = false;
    report << "worker " << owner << ": leases of " << seconds << " s\n";
    std::string unreachable;
    bool streamLost = false;
    while (!g_stopWorker.load()) {
        std::optional<queue::Item> item;
        std::optional<queue::WorkJob> work;
        try {
            item = queue::LeaseNext(options.jobId, owner, Now(), seconds);
            if (!item) {
                empty = !AwaitExpiry(options.jobId);
                if (empty) break;
                continue;
            }
            work = queue::FindJob(item->jobId);
        } catch (const std::exception& e) {
            // Without the catalog there is nothing to lease nor anything to record: the
            // worker ends, and the item it may just have leased goes on when that expires.
            unreachable = e.what();
            break;
        }
        if (!work) throw std::runtime_error("job " + std::to_string(item->jobId) + " has items but no job record");
        switch (RunItem(*item, *work, owner, seconds, report)) {
            case ItemEnd::Done:
                ++done;
                break;
            case ItemEnd::Failed:
                ++failed;
                break;
            case ItemEnd::Lost:
                ++lost;
                break;
            case ItemEnd::Stopped:
                stopped = true;
                g_stopWorker.store(true);
                break;
            case ItemEnd::StreamLost:
                streamLost = true;
                break;
        }
        if (streamLost) break;
        if (options.once) break;
    }
    stopped = stopped || g_stopWorker.load();
    if (!unreachable.empty())
        report << "worker " << owner << ": the catalog cannot be reached: " << unreachable << "\n";
    if (streamLost) report << "worker " << owner << ": its streams cannot be written; it takes no more items\n";
    report << "worker " << owner << ": " << done << " item(s) done, " << failed << " failed, " << lost
           << " lost to another worker"
           << (stopped ? "; stopped"
               : empty ? "; no item left"
                       : "")
           << "\n";
    if (stopped) return kExitStopped;
    if (!unreachable.empty() || streamLost) return kExitJobFailed;
    return failed + lost > 0 ? kExitItemsFailed : kExitOk;
}

}  // namespace vsdm
