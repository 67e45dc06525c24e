// Fuzz target: the item entry points of the three readers, driven as the data mover
// drives them against a generated sample snapshot. Set up once per process: a temporary
// host home, a tiny sample snapshot, and one reader of each kind initialised and opened
// on the sample's archive files, writing its stream to /dev/null.
//
// An input is "<selector><snap source path>\n<rest>"; the selector byte modulo 4 picks
// the extent reader (0), the file-collection reader (1) or the file-level reader without
// (2) or with (3) a name filter. For the first two the rest is the item's options XML,
// for the file-level reader its client path. An item may fail, but only with a log line
// that says why; a crash, hang, leak or sanitizer report is a finding. After each item
// the reader is put back as it was opened (VMs unmounted, no path processed), so that no
// input depends on the ones before it and memory stays flat.
#include "DataReaderVMware.h"
#include "DataReaderVSFileCollection.h"
#include "open_sample.h"
#include "probe.h"
#include "scratch_tmp.h"
#include "temp_home.h"

#include "hostapi/filebackup.h"
#include "vshost/home.h"
#include "vssample/sample.h"

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr KTJobID kJob = 4713;

struct CollectionReader : ProbePipe, DataReaderVSFileCollection {
    CollectionReader(KtEvent* event) : ProbePipe("/dev/null"), DataReaderVSFileCollection(pipe.get(), event, kJob) {}
    using DataReaderVSBase::m_bMatchAnyVM;
    using DataReaderVSBase::m_processedSnapPaths;
    using DataReaderVSBase::m_tempFolders;
    using DataReaderVSBase::m_vmNameMap;
    using DataReaderVSBase::UnMountAllMountedVMs;
    using DataReaderVSFileCollection::CloseAllDiskHandles;
};

struct FileLevelReader : ProbePipe, DataReaderVMware {
    FileLevelReader(KtEvent* event) : ProbePipe("/dev/null"), DataReaderVMware(pipe.get(), event, kJob) {}
    using DataReaderVMware::VMGuidVolGuidToVolumePathMap;
};

// Prepared for items, then the sample's first archive file opened.
template <typename Reader>
void Open(Reader& r, const vssample::SampleSnapshot& s) {
    if (vstest::PrepareSample(r, s, s.instanceType) != 0 || vstest::OpenSampleArchiveFile(r, s, kJob) != 0)
        std::abort();
}

struct Setup {
    Setup() {
        // Small extents over the smallest sample disks: a whole VM is a handful of extents.
        vshost::settings::Set("VirtualServer", "nVDiskExtentSizeKB", "64");
        vssample::SampleOptions options;
        options.diskSize = 4ull << 20;
        sample = vssample::GenerateSample(options);

        extent = std::make_unique<Probe>(&event, kJob);
        Open(*extent, sample);
        collection = std::make_unique<CollectionReader>(&event);
        Open(*collection, sample);
        fileLevel = std::make_unique<FileLevelReader>(&event);
        Open(*fileLevel, sample);
        extentTempFolders = extent->m_tempFolders.size();
        collectionTempFolders = collection->m_tempFolders.size();
        log.Clear();
    }
    ~Setup() {
        fileLevel.reset();
        collection.reset();
        extent.reset();
        VMLivebrowse::UnmountAll();
    }
    Setup(const Setup&) = delete;
    Setup& operator=(const Setup&) = delete;

    vsfuzz::MemoryTmp tmp;
    vstest::TempHome home;
    vshost::LogCapture log;
    KtEvent event;
    vssample::SampleSnapshot sample;
    std::unique_ptr<Probe> extent;
    std::unique_ptr<CollectionReader> collection;
    std::unique_ptr<FileLevelReader> fileLevel;
    size_t extentTempFolders = 0;
    size_t collectionTempFolders = 0;
};

// Puts an extent or file-collection reader back as it was opened. A reader records each
// VM mount's folder name (made by nothing here: the sample has no version-2 indexing)
// and the name the library gave the VM for the life of the job; a job has few items,
// a fuzzing run has millions.
template <typename Reader>
void Reset(Reader& r, size_t tempFolders) {
    r.CloseAllDiskHandles();
    r.UnMountAllMountedVMs();
    r.m_processedSnapPaths.clear();
    r.m_bMatchAnyVM = false;
    r.m_vmNameMap.clear();
    r.m_tempFolders.resize(tempFolders);
}

Setup& Get() {
    static Setup setup;
    return setup;
}

// Lines every item logs on its way in; a failure must have logged something else. A
// host log line is "pid tid date time job tag message"; only its message counts, since
// a message may quote the item's path.
bool SaysWhy(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        size_t at = 0;
        for (int field = 0; field < 6 && at != std::string::npos; ++field) {
            at = line.find(' ', at);
            if (at != std::string::npos) ++at;
        }
        if (at == std::string::npos) return true;
        const std::string_view message = std::string_view(line).substr(at);
        if (message.starts_with("Received SnapSrcPath [") || message.starts_with("Parsed SnapSrcPath VM [") ||
            message.starts_with("Mounting VM ["))
            continue;
        return true;
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Setup& s = Get();
    // Item paths and options are short; a cap keeps every execution fast.
    if (size == 0 || size > 4096) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    const size_t cut = text.find('\n');
    const std::string path = text.substr(0, cut);
    const std::string rest = cut == std::string::npos ? std::string() : text.substr(cut + 1);

    unsigned rc = 0;
    switch (data[0] % 4) {
        case 0:
        case 1: {
            FSRSnapSrcPath item;
            item.sSnapSrcPath = path;
            item.sOptionsXml = rest;
            if (data[0] % 4 == 0) {
                Probe& r = *s.extent;
                rc = static_cast<unsigned>(r.OnSnapSrcPath(&item));
                Reset(r, s.extentTempFolders);
            } else {
                CollectionReader& r = *s.collection;
                rc = static_cast<unsigned>(r.OnSnapSrcPath(&item));
                Reset(r, s.collectionTempFolders);
            }
            break;
        }
        default: {
            FileLevelReader& r = *s.fileLevel;
            rc = r.OnSnapSrcPath(path.c_str());
            if (rc == 0) {
                FSRSnapSrcPath item;
                item.sClientPath = rest;
                item.fileFilterCount = data[0] % 4 == 3 ? 1 : 0;
                std::string collect;
                rc = r.CreateListOfFilesToRead(item, collect);
                if (rc == 0) rc = r.SendFiles(collect.c_str());
            }
            r.VMGuidVolGuidToVolumePathMap.clear();
            VMLivebrowse::UnmountAll();
            break;
        }
    }
    if (rc != 0 && !SaysWhy(s.log.Lines())) std::abort();
    // Emptied before the input ends: libFuzzer looks for a leak whenever an input leaves
    // more blocks allocated than it found, and the home's log file would grow.
    s.log.Clear();
    if (::truncate(vshost::LogFilePath().c_str(), 0) != 0) std::abort();
    return 0;
}
