#include "runner.h"
#include "output.h"
#include "resume.h"

#include "entrymodel.h"
#include "streamindex.h"

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

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
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
#include <map>
#include <set>
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
std::string FailureReason(const vshost::LogCapture& log, KTJobID jobId, size_t& causesSeen) {
    const auto causes = vshost::PendingCauses(jobId);
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

// What the stream holds, read back from its file.
void CountStream(const std::string& path, RunSummary& s) {
    // Only a regular file can be read back; a pipe or FIFO has handed its bytes on.
    struct stat sb {};
    if (::stat(path.c_str(), &sb) != 0 || !S_ISREG(sb.st_mode)) return;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    vshost::StreamReader reader(fd);
    vshost::StreamRecord rec;
    std::set<std::string> vms;
    // By disk ("\\vm\\disk"): extents it has, extents sent, and whether it was read to its end.
    struct DiskCount {
        uint64_t allocated = 0, sent = 0;
        bool completed = false;
    };
    std::map<std::string, DiskCount> disks;
    std::string extentDisk;
    bool inExtent = false, extentHasData = false, inFile = false;
    vsstream::EntryModel model;    // what vsstream verify would call incomplete
    vsstream::IndexBuilder index;  // where each extent lies, for vsstream serve
    std::string why;
    while (reader.Next(rec)) {
        index.Take(rec, model, model.Apply(rec, why));
        if (rec.kind == vshost::stream::Kind::FileLevelHeader) inFile = true;
        if (rec.kind == vshost::stream::Kind::DirectoryEntry) ++s.folders;
        if (auto* eof = std::get_if<vshost::EndOfFileRecord>(&rec.body); eof && inFile) {
            ++(eof->complete ? s.files : s.filesFailed);
            inFile = false;
        }
        if (auto* h = std::get_if<vshost::FileHeaderRecord>(&rec.body)) {
            const size_t depth = static_cast<size_t>(std::count(h->path.begin(), h->path.end(), '\\'));
            if (depth == 1) vms.insert(h->path);
            inExtent = depth == 3 && h->path.find("\\Extent", h->path.rfind('\\')) != std::string::npos;
            if (inExtent) extentDisk = h->path.substr(0, h->path.rfind('\\'));
            extentHasData = false;
            if (depth == 2 && !h->container) ++s.configFiles;
        } else if (auto* c = std::get_if<vshost::CollectionHeaderRecord>(&rec.body)) {
            inExtent = false;
            if (!c->container) {
                ++s.nodes;
                if (c->arg15 & FC_ATTRIBUTE_DIRECTORY) ++s.nodeFolders;
            }
        } else if (std::holds_alternative<vshost::DataRecord>(rec.body)) {
            extentHasData = true;
        } else if (std::holds_alternative<vshost::EndOfFileRecord>(rec.body) && inExtent) {
            ++s.extentsSent;
            ++disks[extentDisk].sent;
            if (!extentHasData) ++s.holeExtents;
            inExtent = false;
        } else if (auto* d = std::get_if<vshost::DiskInfoRecord>(&rec.body)) {
            if (d->itemType == 3) disks["\\" + d->vmGuid + "\\" + d->name].allocated = d->extentCount;
        } else if (auto* done = std::get_if<vshost::DiskReadCompletedRecord>(&rec.body)) {
            ++s.disks;
            disks["\\" + done->vmGuid + "\\" + done->diskName].completed = true;
        }
    }
    // Beside the stream, made while its bytes are fresh; `vsstream index` makes it anew.
    if (reader.state() != vshost::StreamReader::State::ReadError)
        vsstream::SaveIndex(index.Finish(reader, fd), vsstream::IndexPath(path), why);
    ::close(fd);
    s.vms = vms.size();
    s.vmPaths.assign(vms.begin(), vms.end());
    // Of a disk read to its end, the extents not sent are those its reader found unchanged;
    // of any other disk they were never read.
    for (const auto& [name, d] : disks) {
        const uint64_t rest = d.allocated > d.sent ? d.allocated - d.sent : 0;
        (d.completed ? s.extentsUnchanged : s.extentsNotRead) += rest;
    }
    s.streamComplete = reader.state() == vshost::StreamReader::State::Complete;
    for (const std::string& disk : model.IncompleteDisks())
        s.incompleteDisks.push_back(disk + ": " + vsstream::EntryModel::IncompleteWhy(*model.Disk(disk)));
    if (s.streamBytes == 0) {
        // Not counted while writing (a stream another process left): take the decoder's totals.
        s.dataBytes = reader.counted().dataBytes;
        s.holeBytes = reader.counted().holeBytes;
        s.streamBytes = reader.offset();
    }
}

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
    size_t causesSeen = vshost::PendingCauses(job.host.jobId).size();
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

    StreamTarget target(job.out);
    std::unique_ptr<CPipelayer> pipe = CPipelayer::OpenFd(target.fd());
    if (options.compressLevel != 0 && !pipe->SetCompression(options.compressLevel))
        throw std::runtime_error("the stream cannot be compressed at zstd level " +
                                 std::to_string(options.compressLevel));

    KtEvent stop;
    StopSignals signals(stop);
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
    if (opened && !target.Publish(writeError)) written = false;
    if (!opened) target.Discard();
    s.streamLeft = opened;

    const vsStreamTotals totals = pipe->Totals();
    s.dataBytes = totals.dataBytes;
    s.holeBytes = totals.holeBytes;
    s.streamBytes = pipe->BytesWritten();
    s.streamComplete = pipe->Finished();
    if (opened && job.out != "-") CountStream(job.out, s);
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
    const auto causes = vshost::PendingCauses(job.host.jobId);
    for (const auto& c : causes) {
        out << "  pending cause 0x" << std::hex << std::uppercase << c.causeId << std::dec << std::nouppercase;
        for (const auto& a : c.eventArgs) out << " [" << a << "]";
        out << "\n";
    }
    out << "  log " << vshost::LogFilePath() << "\n";
}

}  // namespace vsdm
