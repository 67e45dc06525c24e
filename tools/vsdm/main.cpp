// vsdm: the data mover. Runs a job's items through the plug-in into a backup stream.
#include "demo.h"
#include "jobspec.h"
#include "parallel.h"
#include "queue.h"
#include "runner.h"
#include "snapshots.h"
#include "split.h"
#include "worker.h"

#include "vshost/home.h"

#include <CLI/CLI.hpp>

#include <unistd.h>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <streambuf>

namespace {

// Standard error of one stream of a parallel run: each line written whole and marked
// with the stream's number, so that the children's lines stay apart.
class PrefixedLines : public std::streambuf {
public:
    explicit PrefixedLines(std::string prefix) : m_prefix(std::move(prefix)) {}
    ~PrefixedLines() override {
        if (!m_line.empty()) Emit();
    }

protected:
    int_type overflow(int_type ch) override {
        if (traits_type::eq_int_type(ch, traits_type::eof())) return traits_type::not_eof(ch);
        m_line.push_back(traits_type::to_char_type(ch));
        if (ch == '\n') Emit();
        return ch;
    }

private:
    void Emit() {
        const std::string text = m_prefix + m_line;
        (void)!::write(STDERR_FILENO, text.data(), text.size());
        m_line.clear();
    }
    std::string m_prefix;
    std::string m_line;
};

// "--streams N": a whole number from 1 to kMaxStreams.
bool ParseStreams(const std::string& text, unsigned& n) {
    if (text.empty() || text.size() > 3 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    n = static_cast<unsigned>(std::stoul(text));
    return n >= 1 && n <= vsdm::kMaxStreams;
}

// The command line, once parsed.
struct Args {
    std::string command;  // "run", "demo", "backup", "snapshot add", ...
    std::string keep;     // demo --keep
    std::string jobFile, out, home, streamsText = "1", shareText, resume, compress;
    long long incrementalFrom = 0;
    vsdm::SnapshotAdd add;
    std::vector<std::string> volumes;  // snapshot add: DATASTORE=FOLDER
    long long snapJob = 0;             // snapshot remove, backup --snapshot
    std::vector<std::string> vms;      // backup --vm
    bool incremental = false;
    std::string readerText = "extent";
    long long jobId = 0;  // job status, worker --job
    bool once = false;    // worker --once
};

// vsdm job create|status and vsdm worker.
struct QueueCommands {
    CLI::App* create;
    CLI::App* status;
    CLI::App* worker;
};

QueueCommands AddQueueCommands(CLI::App& app, Args& a, const char* homeHelp) {
    CLI::App* job = app.add_subcommand("job", "jobs whose items workers on many hosts share through the catalog");
    job->require_subcommand(1);
    CLI::App* create = job->add_subcommand(
        "create",
        "queue the job backup would make (one item per VM) for vsdm worker; prints its id. Each item's stream "
        "is PREFIXjob<ID>.item<N>.<ATTEMPT>");
    create->add_option("--snapshot", a.snapJob, "the snapshot's job id")->required();
    create->add_option("--vm", a.vms, "a VM by name or UUID (repeatable; default: every VM)");
    create->add_flag("--incremental", a.incremental, "read each disk against its last completed backup");
    create->add_option("--reader", a.readerText, "extent (default), fileCollection or fileLevel");
    create->add_option("--compress", a.compress, "zstd[:LEVEL]: compress the streams' data records");
    create->add_option("--out", a.out, "PREFIX of every item's stream: a folder ending in /, or a name's start")
        ->required();
    create->add_option("--home", a.home, homeHelp);
    CLI::App* status = job->add_subcommand("status", "each item's state, host, progress and failure reason");
    status->add_option("JOBID", a.jobId, "the job's id")->required();
    status->add_option("--home", a.home, homeHelp);
    CLI::App* worker = app.add_subcommand(
        "worker",
        "lease items of queued jobs one at a time and back them up, until none is left (any number of workers, "
        "on any hosts that share the catalog)");
    worker->add_option("--job", a.jobId, "take items of this job only");
    worker->add_flag("--once", a.once, "stop after one item");
    worker->add_option("--home", a.home, homeHelp);
    return {create, status, worker};
}

constexpr int kGoOn = -1;

// Parses the command line into `a`; kGoOn, or the status to exit with.
int Parse(int argc, char** argv, Args& a) {
    CLI::App app{
        "vsdm: the data mover. Exit status of run: 0 all items succeeded, 1 some items failed, "
        "2 the job could not start, 3 the stream could not be written, 4 stopped by a signal, "
        "64 bad command line or job file (a missing or unknown option, a field out of range, no stream "
        "target, a target that is one of the job's inputs, a home that does not exist, a resumed stream or "
        "--incremental-from job that is not this job's to build on); nothing is read or written then."};
    app.require_subcommand(1);

    CLI::App* run = app.add_subcommand("run", "run the job that JOB.json describes");
    run->add_option("JOB", a.jobFile, "job file (docs/job-file.md)")->required();
    run->add_option("--out", a.out,
                    "stream file, s3://BUCKET/KEY (an object), or - for standard output (overrides the job's \"out\")");
    run->add_option("--home", a.home, "host home (overrides the job's \"home\" and $VSHOST_HOME)");
    run->add_option("--incremental-from", a.incrementalFrom,
                    "read each disk against the change id that job JOBID recorded for it");
    run->add_option("--streams", a.streamsText,
                    "share the items among N processes, each writing its own stream; the output is then a "
                    "stream set (docs/parallel-streams.md)");
    // One process of a parallel run: "K:I,J,..." runs items I, J, ... as stream K.
    run->add_option("--share", a.shareText)->group("");
    run->add_option("--compress", a.compress,
                    "zstd[:LEVEL]: compress the stream's data records at zstd LEVEL (1 to 19; zstd alone is 1, "
                    "the fastest), on threads of their own");
    run->add_option("--resume", a.resume,
                    "STREAM of a stopped attempt of this job: skip the disks it holds whole, go on inside the one it "
                    "was reading");

    CLI::App* demo = app.add_subcommand("demo", "back up a generated sample snapshot, restore it, compare");
    demo->add_option("--keep", a.keep, "build in this (new or empty) folder and leave it there");
    demo->add_option("--home", a.home,
                     "make the sample snapshot in this host home (a new or empty folder) and leave it there");

    const char* homeHelp = "host home (else $VSHOST_HOME)";
    CLI::App* snapshot = app.add_subcommand("snapshot", "register, list and remove datastore snapshots of the home");
    snapshot->require_subcommand(1);
    CLI::App* add = snapshot->add_subcommand(
        "add",
        "register a snapshot whose volumes are the given folders (nothing is written into them); makes the "
        "home if it does not exist yet");
    add->add_option("--snap-job", a.add.snapJobId, "the snapshot job that made the snapshot")->required();
    add->add_option("--engine", a.add.snapEngineId, "its snap engine id (default 0)");
    add->add_option("--media-agent", a.add.mediaAgent, "this backup host's name in the catalog (default: host name)");
    add->add_option("--home", a.home, homeHelp);
    add->add_option("VOLUME", a.volumes, "DATASTORE=FOLDER, one per datastore volume")->required();
    CLI::App* list =
        snapshot->add_subcommand("list", "the snapshots, their volumes and VMs, and what would be refused");
    list->add_option("--home", a.home, homeHelp);
    CLI::App* remove = snapshot->add_subcommand("remove", "forget a snapshot (its volumes are untouched)");
    remove->add_option("SNAPJOB", a.snapJob, "the snapshot's job id")->required();
    remove->add_option("--home", a.home, homeHelp);

    CLI::App* backup = app.add_subcommand(
        "backup",
        "back up VMs of a registered snapshot: makes the job (a new job id, every VM or those named, change "
        "tracking on) and runs it as run does");
    backup->add_option("--snapshot", a.snapJob, "the snapshot's job id")->required();
    backup->add_option("--vm", a.vms, "a VM by name or UUID (repeatable; default: every VM)");
    backup->add_flag("--incremental", a.incremental, "read each disk against its last completed backup");
    backup->add_option("--reader", a.readerText, "extent (default), fileCollection or fileLevel");
    backup->add_option("--out", a.out, "stream file, s3://BUCKET/KEY (an object), or - for standard output")
        ->required();
    backup->add_option("--compress", a.compress, "zstd[:LEVEL]: compress the stream's data records, as run does");
    backup->add_option("--home", a.home, homeHelp);
    const QueueCommands queue = AddQueueCommands(app, a, homeHelp);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Help is asked for and given; every other fault of the command line is a usage error.
        const int rc = app.exit(e);
        return rc == 0 ? 0 : vsdm::kExitUsage;
    }
    for (CLI::App* sub : {run, demo, backup, queue.worker})
        if (sub->parsed()) a.command = sub->get_name();
    for (CLI::App* sub : {queue.create, queue.status})
        if (sub->parsed()) a.command = "job " + sub->get_name();
    for (CLI::App* sub : {add, list, remove})
        if (sub->parsed()) a.command = "snapshot " + sub->get_name();
    return kGoOn;
}

// The home of a command that names no job file: --home, else $VSHOST_HOME. Only the
// set-up command makes one; a misspelt name must not become a new, empty home.
void OpenChosenHome(const std::string& flag, bool make) {
    const char* env = std::getenv("VSHOST_HOME");
    const std::string chosen = !flag.empty() ? flag : env ? env : "";
    if (chosen.empty()) throw vsdm::UsageError("no host home: give --home or $VSHOST_HOME");
    std::error_code ec;
    if (!make && !std::filesystem::is_directory(chosen, ec))
        throw vsdm::UsageError("the host home " + chosen + " does not exist" +
                               (flag.empty() ? " (from $VSHOST_HOME)" : "") + ": give the folder of an existing home");
    vshost::OpenHome(chosen);
}

vsdm::ReaderKind ReaderOf(const std::string& text) {
    for (auto kind : {vsdm::ReaderKind::Extent, vsdm::ReaderKind::FileCollection, vsdm::ReaderKind::FileLevel})
        if (text == vsdm::ReaderName(kind)) return kind;
    throw vsdm::UsageError("--reader must be extent, fileCollection or fileLevel, not \"" + text + "\"");
}

// The snapshot commands; the status to exit with.
int RunSnapshotCommand(Args& a) {
    try {
        OpenChosenHome(a.home, a.command == "snapshot add");
        if (a.command == "snapshot add") {
            for (const std::string& v : a.volumes) a.add.volumes.push_back(vsdm::ParseVolumeArg(v));
            vsdm::AddSnapshot(a.add, std::cout);
        } else if (a.command == "snapshot list") {
            vsdm::ListSnapshots(std::cout);
        } else {
            vsdm::RemoveSnapshot(a.snapJob, std::cout);
        }
        return 0;
    } catch (const vsdm::UsageError& e) {
        std::cerr << "vsdm: " << e.what() << "\n";
        return vsdm::kExitUsage;
    } catch (const std::exception& e) {
        std::cerr << "vsdm: " << e.what() << "\n";
        return vsdm::kExitJobFailed;
    }
}

// "--compress zstd[:LEVEL]": the level, 1 when none is given.
int ParseCompress(const std::string& text) {
    const std::string why = "--compress takes zstd or zstd:LEVEL with LEVEL from " +
                            std::to_string(vsdm::kMinCompressLevel) + " to " + std::to_string(vsdm::kMaxCompressLevel) +
                            ", not \"" + text + "\"";
    if (text == "zstd") return 1;
    const std::string digits = text.rfind("zstd:", 0) == 0 ? text.substr(5) : "";
    if (digits.empty() || digits.size() > 2 || digits.find_first_not_of("0123456789") != std::string::npos)
        throw std::runtime_error(why);
    const int level = std::stoi(digits);
    if (level < vsdm::kMinCompressLevel || level > vsdm::kMaxCompressLevel) throw std::runtime_error(why);
    return level;
}

// Loads the job and checks what the command line asks of it; throws what is wrong.
void Prepare(const Args& a, unsigned streams, vsdm::DataMoverJob& job, vsdm::RunOptions& options) {
    if (!a.compress.empty()) options.compressLevel = ParseCompress(a.compress);
    job = vsdm::LoadJob(a.jobFile);
    if (!a.home.empty()) job.home = a.home;
    // A run uses a home; making one is for the tools that set homes up (vshost-passwd,
    // mksnap). A misspelt name must not become a new, empty home.
    const char* env = std::getenv("VSHOST_HOME");
    const std::string chosen = !job.home.empty() ? job.home : env ? env : "";
    std::error_code ec;
    if (!chosen.empty() && !std::filesystem::is_directory(chosen, ec))
        throw vsdm::UsageError("the host home " + chosen + " does not exist" +
                               (job.home.empty() ? " (from $VSHOST_HOME)" : "") +
                               ": give the folder of an existing home");
    if (!job.home.empty()) vshost::OpenHome(job.home);
    if (vshost::HomeDir().empty()) throw std::runtime_error("no host home: give --home, \"home\" or $VSHOST_HOME");
    if (!a.out.empty()) job.out = a.out;
    if (streams > 1 && job.out == "-")
        throw std::runtime_error("--streams " + a.streamsText +
                                 " writes one stream per process into files: it cannot go to standard output");
    if (streams > 1 && !a.resume.empty())
        throw std::runtime_error("--resume goes on from one stream: it cannot be combined with --streams " +
                                 a.streamsText);
    if (streams > 1 && job.out.empty())
        throw std::runtime_error("no stream target: give --out FILE (the stream set's name)");
    if (!a.shareText.empty()) {
        const size_t colon = a.shareText.find(':');
        if (colon == std::string::npos) throw std::runtime_error("--share must be K:ITEMS");
        options.share = vsdm::ParseShare(a.shareText.substr(colon + 1), job.items.size());
    }
}

int RunParallel(const Args& a, const vsdm::DataMoverJob& job, unsigned streams) {
    try {
        vsdm::StreamsOptions parallel;
        parallel.jobFile = a.jobFile;
        parallel.home = vshost::HomeDir();
        parallel.streams = streams;
        parallel.incrementalFrom = a.incrementalFrom;
        parallel.compress = a.compress;
        const vsdm::RunSummary summary = vsdm::RunStreams(job, parallel, std::cerr);
        vsdm::PrintSummary(job, summary, std::cerr);
        return summary.status;
    } catch (const vsdm::UsageError& e) {
        std::cerr << "vsdm: " << e.what() << "\n";
        return vsdm::kExitUsage;
    } catch (const std::exception& e) {
        std::cerr << "vsdm: " << e.what() << "\n";
        return vsdm::kExitJobFailed;
    }
}

// One stream: the whole job, or a child's share of a parallel run.
int RunOne(const Args& a, const vsdm::DataMoverJob& job, vsdm::RunOptions& options, std::ostream& err) {
    const bool child = !a.shareText.empty();
    options.out = a.out;
    options.jobFile = a.jobFile;
    options.incrementalFrom = a.incrementalFrom;
    options.resumeFrom = a.resume;
    options.progress = !child && isatty(STDERR_FILENO) != 0;
    try {
        const vsdm::RunSummary summary = vsdm::RunJob(job, options, err);
        if (child) {
            // The parent merges and prints; it counts a stream without a report as failed.
            const std::string text = vsdm::EncodeSummary(summary);
            (void)!::write(vsdm::kChildReportFd, text.data(), text.size());
            return summary.status;
        }
        vsdm::PrintSummary(job, summary, std::cerr);
        return summary.status;
    } catch (const vsdm::UsageError& e) {
        err << "vsdm: " << e.what() << "\n";
        return vsdm::kExitUsage;
    } catch (const std::exception& e) {
        err << "vsdm: " << e.what() << "\n";
        return vsdm::kExitJobFailed;
    }
}

// vsdm backup: the job made from the catalog, then run as `vsdm run` runs one.
int RunBackup(const Args& a) {
    vsdm::DataMoverJob job;
    vsdm::RunOptions options;
    try {
        OpenChosenHome(a.home, false);
        vsdm::BackupRequest request;
        request.snapJobId = a.snapJob;
        request.vms = a.vms;
        request.incremental = a.incremental;
        request.reader = ReaderOf(a.readerText);
        request.out = a.out;
        if (!a.compress.empty()) options.compressLevel = ParseCompress(a.compress);
        job = vsdm::MakeBackupJob(request, std::cerr);
    } catch (const std::exception& e) {
        std::cerr << "vsdm: " << e.what() << "\n";
        return vsdm::kExitUsage;
    }
    return RunOne(a, job, options, std::cerr);
}

// vsdm job create|status and vsdm worker; the status to exit with.
int RunQueueCommand(const Args& a) {
    try {
        OpenChosenHome(a.home, false);
        if (a.command == "job create") {
            vsdm::QueuedJobRequest request;
            request.backup.snapJobId = a.snapJob;
            request.backup.vms = a.vms;
            request.backup.incremental = a.incremental;
            request.backup.reader = ReaderOf(a.readerText);
            request.backup.out = a.out;
            if (!a.compress.empty()) request.compressLevel = ParseCompress(a.compress);
            std::cout << vsdm::CreateQueuedJob(request, std::cerr) << "\n";
            return 0;
        }
        if (a.command == "job status") {
            vsdm::PrintJobStatus(a.jobId, std::cout);
            return 0;
        }
        vsdm::WorkerOptions options;
        options.jobId = a.jobId;
        options.once = a.once;
        return vsdm::RunWorker(options, std::cerr);
    } catch (const vsdm::UsageError& e) {
        std::cerr << "vsdm: " << e.what() << "\n";
        return vsdm::kExitUsage;
    } catch (const std::exception& e) {
        std::cerr << "vsdm: " << e.what() << "\n";
        return vsdm::kExitJobFailed;
    }
}

int Run(int argc, char** argv) {
    Args a;
    if (const int status = Parse(argc, argv, a); status != kGoOn) return status;
    if (a.command.rfind("snapshot ", 0) == 0) return RunSnapshotCommand(a);
    if (a.command == "backup") return RunBackup(a);
    if (a.command == "worker" || a.command.rfind("job ", 0) == 0) return RunQueueCommand(a);
    if (a.command == "demo") {
        try {
            return vsdm::RunDemo(a.keep, a.home, std::cout);
        } catch (const std::exception& e) {
            std::cerr << "vsdm demo: " << e.what() << "\n";
            return 1;
        }
    }

    unsigned streams = 1;
    if (!ParseStreams(a.streamsText, streams)) {
        std::cerr << "vsdm: --streams must be a whole number from 1 to " << vsdm::kMaxStreams << ", not \""
                  << a.streamsText << "\"\n";
        return vsdm::kExitUsage;
    }
    // A child of a parallel run names its stream on every line it writes.
    const bool child = !a.shareText.empty();
    std::unique_ptr<PrefixedLines> prefixed;
    std::unique_ptr<std::ostream> childErr;
    if (child) {
        prefixed =
            std::make_unique<PrefixedLines>("vsdm [stream " + a.shareText.substr(0, a.shareText.find(':')) + "]: ");
        childErr = std::make_unique<std::ostream>(prefixed.get());
    }
    std::ostream& err = child ? *childErr : std::cerr;

    vsdm::DataMoverJob job;
    vsdm::RunOptions options;
    try {
        Prepare(a, streams, job, options);
    } catch (const std::exception& e) {
        err << "vsdm: " << e.what() << "\n";
        return vsdm::kExitUsage;
    }
    return streams > 1 ? RunParallel(a, job, streams) : RunOne(a, job, options, err);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        // Out of memory or a fault of this program, outside any job step.
        std::cerr << "vsdm: " << e.what() << "\n";
        return vsdm::kExitJobFailed;
    }
}
