#include "runner.h"
#include "objecttarget.h"
#include "output.h"
#include "resume.h"
#include "streamcount.h"

#include "DataReaderVSBase.h"
#include "Factories.h"

#include "hostapi/archive.h"
#include "hostapi/event.h"
#include "hostapi/filebackup.h"
#include "hostapi/filecollection.h"
#include "hostapi/snapsrc.h"
#include "vscodec/streamreader.h"
#include "vshost/changetrack.h"
#include "vshost/home.h"
#include "vshost/pending.h"
#include "vshost/streamtap.h"

#include <dlfcn.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <thread>

namespace vsdm {

namespace {

KtEvent* g_stop = nullptr;

extern "C" void OnStopSignal(int) {
    if (g_stop) g_stop->set();
}

class StopSignals {
public:
    explicit StopSignals(KtEvent& event) {
        g_stop = &event;
        struct sigaction sa {};
        sa.sa_handler = OnStopSignal;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGINT, &sa, &m_oldInt);
        sigaction(SIGTERM, &sa, &m_oldTerm);
    }
    ~StopSignals() {
        sigaction(SIGINT, &m_oldInt, nullptr);
        sigaction(SIGTERM, &m_oldTerm, nullptr);
        g_stop = nullptr;
    }

private:
    struct sigaction m_oldInt {};
    struct sigaction m_oldTerm {};
};

// The plug-in stays loaded for the life of the process, as the VM-info library it loads does.
class Plugin {
public:
    explicit Plugin(const std::string& path) : m_handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {}
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;
    void* handle() const { return m_handle; }
    template <typename F>
    F Resolve(const char* name) const {
        return reinterpret_cast<F>(dlsym(m_handle, name));
    }

private:
    void* m_handle;
};

std::string Human(double bytes) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int u = 0;
    while (bytes >= 1024 && u < 4) {
        bytes /= 1024;
        ++u;
    }
    char buf[32];
    (void)std::snprintf(buf, sizeof buf, u ? "%.1f %s" : "%.0f %s", bytes, units[u]);
    return buf;
}

// A line on stderr, rewritten in place, while the job runs.
class ProgressLine {
public:
    ProgressLine(const CPipelayer& pipe, std::ostream& out, uint64_t expectBytes)
        : m_pipe(pipe), m_out(out), m_expect(expectBytes), m_thread([this] { Loop(); }) {}
    ~ProgressLine() {
        m_done = true;
        m_thread.join();
        m_out << "\r\033[K" << std::flush;
    }

private:
    void Loop() {
        const auto start = std::chrono::steady_clock::now();
        while (!m_done) {
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
            const vsStreamProgress p = m_pipe.Progress();
            const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            const double read = static_cast<double>(p.totals.dataBytes + p.totals.holeBytes);
            const double speed = secs > 0 ? read / secs : 0;
            std::string where = p.entry;
            if (where.size() > 60) where = "..." + where.substr(where.size() - 57);
            m_out << "\r\033[K" << where << "  read " << Human(read) << ", sent "
                  << Human(static_cast<double>(p.bytesWritten)) << ", holes "
                  << Human(static_cast<double>(p.totals.holeBytes)) << ", " << Human(speed) << "/s";
            if (m_expect > 0 && speed > 0 && read < static_cast<double>(m_expect))
                m_out << ", ETA " << static_cast<long>((static_cast<double>(m_expect) - read) / speed) << " s";
            m_out << std::flush;
        }
    }

    const CPipelayer& m_pipe;
    std::ostream& m_out;
    uint64_t m_expect;
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

// Change ids of what job `from` completed, as options of the items of that VM.
void FillIncremental(DataMoverJob& job, int64_t from, std::ostream& report) {
    const auto disks = vshost::changetrack::JobDisks(from);
    if (std::none_of(disks.begin(), disks.end(), [](const auto& d) { return !d.changeId.empty(); }))
        throw UsageError("job " + std::to_string(from) + " recorded no disks with change ids to build on");
    for (JobItem& item : job.items) {
        const std::string vm = ItemVM(item);
        size_t added = 0;
        EditItemOptions(item, [&](VirtualServer::SnapSrcPathOptions& options) {
            options.useCBT = 1;
            for (const auto& d : disks) {
                if (d.vmGuid != vm || d.changeId.empty()) continue;
                DiskEntry(options, d.diskName).changeId = d.changeId;
                ++added;
            }
        });
        report << "item " << item.path << ": " << added << " disk(s) read against job " << from << "\n";
    }
}

// One file-level item: the VM and volume mounted, the collect file listed, its files sent.
int RunFileLevelItem(DataReaderVMware& reader, const JobItem& item) {
    if (reader.OnSnapSrcPath(item.path.c_str()) != 0) return -1;
    FSRSnapSrcPath request;
    request.fileFilterCount = item.fileFilterCount;
    request.sClientPath = item.clientPath;
    request.sSnapSrcPath = item.path;
    std::string collectFile;
    if (reader.CreateListOfFilesToRead(request, collectFile) != 0) return -1;
    return reader.SendFiles(collectFile.c_str()) == 0 ? 0 : -1;
}

std::string CauseText(const vshost::PendingCause& c) {
    char id[16];
    (void)std::snprintf(id, sizeof id, "0x%X", static_cast<unsigned>(c.causeId));
    std::string text = std::string("pending cause ") + id;
    for (const auto& a : c.eventArgs) text += " [" + a + "]";
    return text;
}

bool TellsOfError(std::string_view text) {
    std::string line(text);
    std::transform(line.begin(), line.end(), line.begin(), [](unsigned char c) { return std::tolower(c); });
    return line.find("error") != std::string::npos || line.find("fail") != std::string::npos;
}

// Why an item failed: the pending causes it raised, else the first line it logged of an
// error (or its last line), without the line's process, thread, time and job fields.
// The job's pending causes; none, and why said once to `report`, when the catalog that
// holds them cannot be read (a reason or a summary must not fail for want of them).
std::vector<vshost::PendingCause> CausesOrNone(KTJobID jobId, std::ostream* report) {
    try {
        return vshost::PendingCauses(jobId);
    } catch (const std::exception& e) {
        if (report) *report << "  pending causes not read: " << e.what() << "\n";
        return {};
    }
}

std::string FailureReason(const vshost::LogCapture& log, KTJobID jobId, size_t& causesSeen) {
    const auto causes = CausesOrNone(jobId, nullptr);
    std::string reason;
    for (size_t i = causesSeen; i < causes.size(); ++i) reason += (reason.empty() ? "" : "; ") + CauseText(causes[i]);
    causesSeen = causes.size();
    if (!reason.empty()) return reason;
    const auto lines = log.Lines();  // the lines that tell of an error (see TellsOfError)
    // The first line that tells of an error is the cause; what follows it is its echo.
    std::string line = lines.empty() ? log.Last() : lines.front();
    if (line.empty()) return "nothing was logged; see the log";
    size_t at = 0;
    for (int field = 0; field < 5 && at != std::string::npos; ++field) at = line.find(' ', at == 0 ? 0 : at + 1);
    return "logged \"" + (at == std::string::npos ? line : line.substr(at + 1)) + "\"";
}

}  // namespace

std::string SelfPath() {
    char self[4096];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return std::string();
    return std::string(self, static_cast<size_t>(n));
}

std::string PluginPath() {
    const std::string self = SelfPath();
    if (self.empty()) return "libvsdatareader.so";
    const std::filesystem::path bin = std::filesystem::path(self).parent_path();
    return (bin.parent_path() / "lib" / "libvsdatareader.so").string();
}

// The job as this run takes it: its stream target checked, its share, its incremental
// base and what a resumed attempt already holds.
void PrepareJob(DataMoverJob& job, const RunOptions& options, std::ostream& report) {
    if (!options.out.empty()) job.out = options.out;
    if (job.out.empty()) throw UsageError("no stream target: give --out FILE (or - for standard output)");
    CheckNotAnInput(job, options.jobFile, job.out);
    if (options.share) {
        std::vector<JobItem> mine;
        for (size_t i : *options.share) mine.push_back(job.items.at(i));
        job.items = std::move(mine);
    }
    if (options.incrementalFrom != 0) FillIncremental(job, options.incrementalFrom, report);
    if (!options.resumeFrom.empty()) {
        std::error_code ec;
        if (options.resumeFrom == job.out || std::filesystem::equivalent(options.resumeFrom, job.out, ec))
            throw UsageError("the resumed attempt needs a stream of its own: give --out another file than " +
                             options.resumeFrom);
        ApplyResume(job, options.resumeFrom, report);
    }
}

DataReaderVSBase* MakeReader(Plugin& plugin, const DataMoverJob& job, CPipelayer* pipe, KtEvent* stop) {
    switch (job.reader) {
        case ReaderKind::Extent:
            if (auto make = plugin.Resolve<CreateDataReaderVSExtentFn>("CreateDataReaderVSExtent"))
                return make(pipe, stop, job.host.jobId);
            break;
        case ReaderKind::FileCollection:
            if (auto make = plugin.Resolve<CreateDataReaderVSFileCollectionFn>("CreateDataReaderVSFileCollection"))
                return make(pipe, stop, job.host.jobId);
            break;
        case ReaderKind::FileLevel:
            if (auto make = plugin.Resolve<CreateDataReaderVMwareFn>("CreateDataReaderVMware"))
                return make(pipe, stop, job.host.jobId);
            break;
    }
    return nullptr;
}

// Initialises the reader and opens each archive file of the job; false when the job
// cannot start. `openCount` is how many were opened (each is closed again).
bool OpenArchiveFiles(DataReaderVSBase& reader, DataReaderVMware* fileLevel, const DataMoverJob& job,
                      std::ostream& report, size_t& openCount) {
    bool opened = reader.Initialize() == 0;
    if (!opened) report << "vsdm: the reader could not be initialised (see the log)\n";
    std::string list;
    for (uint64_t id : job.archiveFiles) list += (list.empty() ? "" : "|") + std::to_string(id);
    if (opened)
        opened =
            (fileLevel ? fileLevel->PreOpenArchiveFile(list.data(), 0) : reader.PreOpenArchiveFile(list.data())) == 0;

    DMInitParams init;
    init.appId1 = job.host.appId1;
    init.appId2 = job.host.appId2;
    init.jobId = job.host.jobId;
    init.mediaAgentName = job.mediaAgent;
    (void)std::snprintf(init.jobToken, sizeof init.jobToken, "%s", job.jobToken.c_str());
    for (uint64_t id : job.archiveFiles) {
        if (!opened) break;
        DMOpenArchiveParams open;
        open.archiveFileId = static_cast<uint32_t>(id);
        open.archGroupId = static_cast<uint32_t>(job.archGroupId);
        open.copyId = static_cast<uint32_t>(job.copyId);
        open.hubcellId = job.hubcellId;
        if (reader.OpenArchiveFile(init, open) != 0) {
            report << "vsdm: archive file " << id << " could not be opened (see the log and the pending causes)\n";
            opened = false;
        } else {
            ++openCount;
        }
    }
    return opened;
}

// Every item of the job in turn, until the end or a stop; a failed item is named with why.
void RunItems(DataReaderVSBase& reader, DataReaderVMware* fileLevel, const DataMoverJob& job, const RunOptions& options,
              CPipelayer& pipe, KtEvent& stop, std::ostream& report, RunSummary& s) {
    std::unique_ptr<ProgressLine> progress;
    if (options.progress) progress = std::make_unique<ProgressLine>(pipe, std::cerr, 0);
    // What an item raised and the first lines it logged of an error are kept until it
    // ends, to tell why it failed; a few lines, however many files or extents it logs.
    vshost::LogCapture itemLog(TellsOfError, 4);
    size_t causesSeen = CausesOrNone(job.host.jobId, nullptr).size();
    for (const JobItem& item : job.items) {
        if (stop.wait(0)) break;
        itemLog.Clear();
        FSRSnapSrcPath path;
        path.sSnapSrcPath = item.path;
        path.sOptionsXml = item.optionsXml;
        ++s.items;
        const int rc = fileLevel ? RunFileLevelItem(*fileLevel, item) : reader.OnSnapSrcPath(&path);
        if (rc != 0) {
            ++s.itemsFailed;
            report << "item " << item.path << ": failed (" << rc
                   << "): " << FailureReason(itemLog, job.host.jobId, causesSeen) << "\n";
        }
    }
}

// The pipeline into `target`, compressed as asked.
std::unique_ptr<CPipelayer> OpenPipeline(const Target& target, const RunOptions& options) {
    std::unique_ptr<CPipelayer> pipe = CPipelayer::OpenFd(target.fd());
    // An object is stored only when its upload completes, after the reader is done: the
    // disks it completes wait in the pipeline until then, and are forgotten if it never
    // is (a sync of the pipe before would prove nothing). A process killed before that
    // leaves no object and records none of them.
    if (target.StoredOnlyWhenPublished()) pipe->HoldRecordsUntilStored();
    if (options.compressLevel != 0 && !pipe->SetCompression(options.compressLevel))
        throw std::runtime_error("the stream cannot be compressed at zstd level " +
                                 std::to_string(options.compressLevel));
    return pipe;
}

// The disks a stream stored only at its publishing completed, recorded once it was
// stored, or forgotten (and said so) when it was not.
void RecordHeldDisks(CPipelayer& pipe, bool stored, std::ostream& report) {
    const size_t held = pipe.HeldRecords();
    if (held == 0) return;
    std::string why;
    if (!stored)
        report << "vsdm: " << held << " completed disk(s) not recorded: the stream was not stored\n";
    else if (!pipe.RecordHeld(why))
        report << "vsdm: " << held << " completed disk(s) not recorded: " << why << "\n";
}

// The summary is counted, and the stream's index gathered (when its target can have
// one), as the stream is written: no second pass over it. A stream whose index cannot be
// gathered is written all the same.
std::unique_ptr<vsstream::IndexRecorder> TapStream(const std::string& out, CPipelayer& pipe, StreamCounter& counter,
                                                   std::ostream& report) {
    const std::string folder = IndexFolderOf(out);
    std::unique_ptr<vsstream::IndexRecorder> recorder;
    try {
        if (!folder.empty()) recorder = std::make_unique<vsstream::IndexRecorder>(folder);
    } catch (const std::runtime_error& e) {
        report << "vsdm: no index of " << out << ": " << e.what() << " (vsstream index makes one)\n";
    }
    if (recorder &&
        !vshost::TapPlaces(pipe, [r = recorder.get()](uint64_t index, uint64_t offset) { r->Place(index, offset); }))
        throw std::logic_error("the stream's places are asked for after its first record");
    vshost::TapRecords(pipe, [&counter, r = recorder.get()](const vshost::StreamRecord& record) {
        counter.Apply(record);
        if (r) r->Take(record);
    });
    return recorder;
}

// A complete stream gets its index beside it; any other loses the one an earlier stream
// of its name left (standard output, a FIFO or a device has none). An index that cannot
// be written costs the stream nothing: it is said, and `vsstream index` makes it.
void PublishIndexOf(const std::string& out, vsstream::IndexRecorder* index, bool stored, uint64_t streamBytes,
                    std::ostream& report) {
    if (IndexFolderOf(out).empty()) return;
    std::string why;
    if (index && stored && index->complete() && PublishIndex(out, *index, streamBytes, why)) return;
    RemoveIndex(out);
    if (!why.empty()) report << "vsdm: no index of " << out << ": " << why << " (vsstream index makes one)\n";
}

int ExitStatusOf(bool written, bool stopped, bool opened, const RunSummary& s, const std::string& writeError,
                 std::ostream& report) {
    if (!written) {
        report << "vsdm: the stream could not be written: " << writeError << "\n";
        return kExitStreamFailed;
    } else if (stopped) {
        return kExitStopped;
    } else if (!opened) {
        return kExitJobFailed;
    } else if (s.itemsFailed > 0) {
        return kExitItemsFailed;
    }
    return kExitOk;
}

RunSummary RunJob(DataMoverJob job, const RunOptions& options, std::ostream& report) {
    RunSummary s;
    const auto started = std::chrono::steady_clock::now();
    PrepareJob(job, options, report);
    vshost::RegisterJob(job.host);

    Plugin plugin(PluginPath());
    if (!plugin.handle()) throw std::runtime_error(std::string("cannot load the plug-in: ") + dlerror());

    const std::unique_ptr<Target> target = OpenTarget(job.out);
    std::unique_ptr<CPipelayer> pipe = OpenPipeline(*target, options);

    StreamCounter counter;
    const std::unique_ptr<vsstream::IndexRecorder> index = TapStream(job.out, *pipe, counter, report);

    KtEvent ownStop;
    KtEvent& stop = options.stop ? *options.stop : ownStop;
    StopSignals signals(stop);
    // Declared after the pipe, so that the observer hears of the end before the pipe goes.
    struct Observed {
        RunObserver* observer;
        ~Observed() {
            if (observer) observer->Ended();
        }
    } observed{options.observer};
    if (options.observer) {
        // A file is written under a temporary name until published; an object has its key.
        const auto* file = dynamic_cast<const StreamTarget*>(target.get());
        options.observer->Started(file ? file->writing() : job.out, *pipe);
    }
    DataReaderVSBase* reader = MakeReader(plugin, job, pipe.get(), &stop);
    if (!reader) throw std::runtime_error(std::string("the plug-in made no ") + ReaderName(job.reader) + " reader");
    std::unique_ptr<DataReaderVSBase> owned(reader);

    reader->setShortClientName(job.mediaAgent.c_str());
    reader->setVSInstanceType(static_cast<VirtualServerInstanceType>(job.instanceType));
    reader->setMountType(static_cast<MountType>(job.mountType));
    reader->setVSBlockLevel(job.blockLevel);
    reader->SetSnapEngineID(job.snapEngineId);

    // The file-level reader has operations of its own around the common lifecycle.
    DataReaderVMware* fileLevel =
        job.reader == ReaderKind::FileLevel ? static_cast<DataReaderVMware*>(reader) : nullptr;
    if (fileLevel && !fileLevel->isValid()) throw std::runtime_error("the plug-in made an invalid file-level reader");

    size_t openCount = 0;
    const bool opened = OpenArchiveFiles(*reader, fileLevel, job, report, openCount);

    if (opened) RunItems(*reader, fileLevel, job, options, *pipe, stop, report, s);
    for (size_t i = 0; i < openCount; ++i) {
        if (fileLevel)
            fileLevel->Close();
        else
            reader->Close(1);
    }
    const bool stopped = stop.wait(0);
    // A job that could not start backed nothing up: its stream must not read as complete.
    if (stopped || !opened) pipe->Abandon();
    owned.reset();  // the reader's writer finishes the stream as it goes
    VMLivebrowse::UnmountAll();
    bool written = pipe->Close();
    std::string writeError = written ? std::string() : pipe->ErrorText();
    // Only a job that started replaces the stream of that name.
    if (opened && !target->Publish(writeError)) written = false;
    if (!opened) target->Discard();
    s.streamLeft = opened;
    RecordHeldDisks(*pipe, opened && written, report);

    const vsStreamTotals totals = pipe->Totals();
    s.dataBytes = totals.dataBytes;
    s.holeBytes = totals.holeBytes;
    s.streamBytes = pipe->BytesWritten();
    // An object that was not stored is no stream at all, whatever its writer finished.
    s.streamComplete = pipe->Finished() && (written || !target->StoredOnlyWhenPublished());
    if (opened) counter.CountInto(s);
    if (opened) PublishIndexOf(job.out, index.get(), written && !stopped, s.streamBytes, report);
    s.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    s.status = ExitStatusOf(written, stopped, opened, s, writeError, report);
    return s;
}

void PrintSummary(const DataMoverJob& job, const RunSummary& s, std::ostream& out) {
    const double secs = s.seconds > 0 ? s.seconds : 1e-9;
    out << "job " << job.host.jobId << " (" << ReaderName(job.reader) << " reader): " << s.items - s.itemsFailed
        << " of " << s.items << " items succeeded\n";
    if (job.reader == ReaderKind::FileLevel)
        out << "  files " << s.files << ", folders " << s.folders << ", files failed " << s.filesFailed << "\n";
    else
        out << "  VMs " << s.vms << ", disks completed " << s.disks << ", configuration files " << s.configFiles
            << "\n";
    if (job.reader == ReaderKind::Extent)
        out << "  extents sent " << s.extentsSent << " (" << s.holeExtents << " as holes), unchanged and not sent "
            << s.extentsUnchanged << ", not read " << s.extentsNotRead << "\n";
    if (job.reader == ReaderKind::FileCollection || s.nodes > 0)
        out << "  file-collection nodes " << s.nodes << " (" << s.nodeFolders << " folders, " << s.nodes - s.nodeFolders
            << " files)\n";
    out << "  read " << Human(static_cast<double>(s.dataBytes + s.holeBytes)) << " ("
        << Human(static_cast<double>(s.holeBytes)) << " of holes), stream " << Human(static_cast<double>(s.streamBytes))
        << " in " << std::fixed << std::setprecision(2) << s.seconds << " s: read "
        << Human(static_cast<double>(s.dataBytes + s.holeBytes) / secs) << "/s, written "
        << Human(static_cast<double>(s.streamBytes) / secs) << "/s\n";
    if (s.streams > 1) {
        out << "  stream set " << job.out << " (" << s.streams
            << " streams): " << (s.streamComplete ? "complete" : "INCOMPLETE") << "\n";
        for (const std::string& why : s.incompleteStreams) out << "    INCOMPLETE " << why << "\n";
    } else if (!s.streamLeft && job.out != "-") {
        out << "  stream " << job.out << ": not written, the job could not start\n";
    } else {
        out << "  stream " << (job.out == "-" ? std::string("standard output") : job.out) << ": "
            << (s.streamComplete ? "complete" : "INCOMPLETE") << "\n";
    }
    // A sound stream is not a whole backup of a disk its reader did not finish.
    for (const std::string& disk : s.incompleteDisks) out << "    disk NOT WHOLE " << disk << "\n";
    for (const auto& c : CausesOrNone(job.host.jobId, &out)) {
        out << "  pending cause 0x" << std::hex << std::uppercase << c.causeId << std::dec << std::nouppercase;
        for (const auto& a : c.eventArgs) out << " [" << a << "]";
        out << "\n";
    }
    out << "  log " << vshost::LogFilePath() << "\n";
}

}  // namespace vsdm
