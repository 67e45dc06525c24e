// The file-level reader end to end: guest volumes of a generated snapshot mounted
// through live browse, collect files, files sent through the file-backup writer, the
// stream decoded and restored.
#include "open_sample.h"
#include "probe.h"
#include "stream_support.h"

#include "vshost/home.h"
#include "vssample/sample.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>

namespace fs = std::filesystem;
using namespace vstest;

namespace {

constexpr KTJobID kJob = 4711;

struct FileLevelProbe : ProbePipe, DataReaderVMware {
    explicit FileLevelProbe(KtEvent* event, const std::string& stream = "/dev/null")
        : ProbePipe(stream), DataReaderVMware(pipe.get(), event, kJob) {}
    using DataReaderVMware::m_bValid;
    using DataReaderVMware::m_pCollectFile;
    using DataReaderVMware::m_sCollectFileName;
    using DataReaderVMware::m_snapSrc;
    using DataReaderVMware::m_sOrigClientMountPath;
    using DataReaderVMware::m_sPathToRestore;
    using DataReaderVMware::m_sSnapMountPath;
    using DataReaderVMware::VMGuidVolGuidToVolumePathMap;
    using DataReaderVSBase::m_bSnapRestore;
};

size_t Count(const StreamView& s, char kind) {
    const std::string kinds = s.Kinds();
    return static_cast<size_t>(std::count(kinds.begin(), kinds.end(), kind));
}

class FileLevel : public ::testing::Test {
protected:
    void SetUp() override {
        sample = vssample::GenerateSample();
        const vssample::SampleVM& db = sample.vm("db01");
        vm = db.biosUuid;
        volC = db.guestVolumeGuids.at(0);
        folderC = fs::path(db.folder) / "guest/C";
        folderD = fs::path(db.folder) / "guest/D";
    }
    void TearDown() override { VMLivebrowse::UnmountAll(); }

    // An item's volume mounted and its files listed: the collect file, or "" with `rc` set.
    std::string List(FileLevelProbe& r, const std::string& snapPath, const std::string& clientPath, int filter,
                     unsigned& rc) {
        std::string out;
        if ((rc = r.OnSnapSrcPath(snapPath.c_str())) != 0) return out;
        FSRSnapSrcPath item;
        item.fileFilterCount = filter;
        item.sClientPath = clientPath;
        rc = r.CreateListOfFilesToRead(item, out);
        return out;
    }
    // One item as the data mover drives it; the first failing step's result.
    unsigned Item(FileLevelProbe& r, const std::string& snapPath, const std::string& clientPath, int filter = 0,
                  std::string* collect = nullptr) {
        unsigned rc = 0;
        const std::string list = List(r, snapPath, clientPath, filter, rc);
        if (rc != 0) return rc;
        if (collect) *collect = ReadAll(list);
        return r.SendFiles(list.c_str());
    }

    vstest::TempHome home;
    vshost::LogCapture log;
    KtEvent event;
    vssample::SampleSnapshot sample;
    std::string vm, volC;
    fs::path folderC, folderD;
};

TEST_F(FileLevel, WholeVolumesRoundTripThroughVsstream) {
    // An empty folder and a sparse file too: both must come back as they were.
    fs::create_directories(folderC / "Temp");
    {
        std::ofstream sparse(folderC / "pagefile.sys", std::ios::binary);
        sparse.seekp(3 << 20);
        sparse << "end";
    }
    ::chmod((folderC / "Windows/win.ini").c_str(), 0640);
    // A FIFO fails the writer's per-file check: neither header nor end of file for it.
    ASSERT_EQ(::mkfifo((folderC / "pipe").c_str(), 0600), 0);
    const std::string stream = home.sub("fl.bin");
    std::string collect;
    {
        FileLevelProbe r(&event, stream);
        OpenOnSample(r, sample, kJob);
        // C by its GUID, D by its name.
        EXPECT_EQ(Item(r, vm + "\\" + volC, vm + "\\" + volC, 0, &collect), 0u);
        EXPECT_EQ(collect, vm + "\\" + volC + "/\n");
        EXPECT_EQ(Item(r, vm + "\\D:", vm + "\\D:"), 0u);
        r.Close();
    }
    const StreamView d = ViewFile(stream);
    EXPECT_EQ(d.decoded.state, vshost::StreamReader::State::Complete);
    // The file-level reader names only the archive file, not its group.
    vstest::ExpectSampleIdentity(stream, sample, kJob, false);
    EXPECT_FALSE(d.Find(vm + "\\" + volC + "/pipe"));
    EXPECT_EQ(Count(d, 'E'), Count(d, 'G'));

    const fs::path to = home.sub("restore");
    ASSERT_EQ(Tool(home, "restore " + stream + " --to " + to.string()).code, 0);
    for (const auto& [source, restored] : {std::pair{folderC, to / vm / volC}, std::pair{folderD, to / vm / "D:"}}) {
        size_t count = 0;
        for (const auto& e : fs::recursive_directory_iterator(source)) {
            if (e.is_fifo()) continue;
            const fs::path twin = restored / fs::relative(e.path(), source);
            ++count;
            ASSERT_TRUE(fs::exists(twin)) << twin;
            struct stat a {
            }, b{};
            ::stat(e.path().c_str(), &a);
            ::stat(twin.c_str(), &b);
            EXPECT_EQ(std::tie(a.st_mode, a.st_mtim.tv_sec, a.st_mtim.tv_nsec),
                      std::tie(b.st_mode, b.st_mtim.tv_sec, b.st_mtim.tv_nsec))
                << twin;
            EXPECT_TRUE(!e.is_regular_file() || ReadAll(e.path()) == ReadAll(twin)) << twin;
        }
        EXPECT_GE(count, 3u);
    }
    // The sparse file's hole travelled by length, not as zeros.
    ASSERT_TRUE(d.Find(vm + "\\" + volC + "/pagefile.sys"));
    EXPECT_GT(d.Find(vm + "\\" + volC + "/pagefile.sys")->holeBytes, 2u << 20);
}

TEST_F(FileLevel, CollectFileIsNamedRewrittenAndRemoved) {
    std::string name;
    {
        FileLevelProbe r(&event);
        OpenOnSample(r, sample, kJob);
        std::string first, second;
        ASSERT_EQ(Item(r, vm + "\\" + volC, vm + "\\" + volC + "/Windows", 0, &first), 0u);
        name = r.m_sCollectFileName;
        // Job results folder of this job; archive file, stream number and time in the name.
        const std::string expected =
            home.sub("JobResults/4711/ColFile_JID4711_AF" + std::to_string(sample.afileIds[0]) + "_Str0_");
        EXPECT_EQ(name.rfind(expected, 0), 0u) << name;
        EXPECT_EQ(name.substr(name.size() - 4), ".txt");
        EXPECT_EQ(first, vm + "\\" + volC + "/Windows/\n");

        // Same file, content replaced; the control character cuts off what follows it.
        ASSERT_EQ(Item(r, vm + "\\D:", vm + "\\D:/data\x12trailing", 0, &second), 0u);
        EXPECT_EQ(r.m_sCollectFileName, name);
        EXPECT_EQ(second, vm + "\\D:/data/\n");
        EXPECT_EQ(r.countLines(name.c_str()), 1u);

        // The next archive file open removes it.
        DMInitParams init;
        init.jobId = kJob;
        DMOpenArchiveParams open;
        open.archiveFileId = static_cast<uint32_t>(sample.afileIds[1]);
        r.OpenArchiveFile(init, open);
        EXPECT_FALSE(fs::exists(name));
        EXPECT_TRUE(r.m_sCollectFileName.empty());
        ASSERT_EQ(Item(r, vm + "\\D:", vm + "\\D:"), 0u);
        name = r.m_sCollectFileName;
        EXPECT_TRUE(fs::exists(name));
    }
    // And so does the reader's end.
    EXPECT_FALSE(fs::exists(name));
    EXPECT_EQ(log.Count("DM_VSVMWARE DataReaderVMware deleted successfully."), 1u);

    FileLevelProbe r(&event);
    EXPECT_EQ(r.countLines(home.sub("missing.txt").c_str()), 1u);
    std::ofstream(home.sub("long.txt")) << std::string(2000, 'x') << "\nshort\n";
    EXPECT_EQ(r.countLines(home.sub("long.txt").c_str()), 3u);  // a long line counts per 1 KiB read
}

TEST_F(FileLevel, ItemsThatCannotBeReadFailWithTheirReason) {
    FileLevelProbe r(&event);
    OpenOnSample(r, sample, kJob);
    EXPECT_EQ(r.OnSnapSrcPath((vm + "/" + volC).c_str()), ~0u);
    EXPECT_TRUE(log.Contains("[ERROR] Linux path received for restore to a Windows MA.[" + vm + "/" + volC + "]"));
    EXPECT_EQ(r.OnSnapSrcPath(vm.c_str()), ~0u);
    EXPECT_TRUE(log.Contains("Error parsing the VM Guid from the snap source path [" + vm + "]"));
    EXPECT_EQ(r.OnSnapSrcPath("no-such-vm\\C:"), ~0u);
    EXPECT_TRUE(log.Contains("Failed to mount VM"));

    vshost::settings::Set("VMInfoFaults", "MountVM", "23");
    EXPECT_EQ(r.OnSnapSrcPath((vm + "\\" + volC).c_str()), ~0u);
    vshost::settings::Set("VMInfoFaults", "MountVM", "");

    // Three backslash parts never start with their own first two and a "/".
    FSRSnapSrcPath item;
    std::string out = "untouched";
    item.sClientPath = vm + "\\" + volC + "\\Windows";
    EXPECT_EQ(r.CreateListOfFilesToRead(item, out), ~0u);
    EXPECT_TRUE(log.Contains("Failed to scan for srcMountPath"));
    EXPECT_EQ(out, "untouched");
    item.sClientPath.clear();
    EXPECT_EQ(r.CreateListOfFilesToRead(item, out), ~0u);
    EXPECT_TRUE(log.Contains("Path sent by client side in empty or NULL"));

    // The collect file cannot be made when the job results folder is gone.
    ASSERT_EQ(r.OnSnapSrcPath((vm + "\\" + volC).c_str()), 0u);
    fs::remove_all(home.sub("JobResults/4711"));
    item.sClientPath = vm + "\\" + volC;
    EXPECT_EQ(r.CreateListOfFilesToRead(item, out), ~0u);
    EXPECT_TRUE(log.Contains("to create list of files, errno [2]."));

    EXPECT_EQ(r.SendFiles(nullptr), ~0u);
    EXPECT_TRUE(log.Contains("DataReaderVMware::SendFiles: Passed in collect file name is NULL."));
    EXPECT_EQ(r.SendFiles(home.sub("nothere.txt").c_str()), ~0u);
    EXPECT_TRUE(log.Contains("DataReaderVMware::SendFiles: Failed to open collect file."));
}

// A collect file that cannot be written whole (its disk is full) fails the item, whether
// the list is one line or a walk's many: a short list would leave files out unnoticed.
TEST_F(FileLevel, ACollectFileThatCannotBeWrittenFailsTheItem) {
    const std::string full = home.sub("full-list.txt");
    fs::create_symlink("/dev/full", full);
    {
        FileLevelProbe r(&event);
        OpenOnSample(r, sample, kJob);
        r.m_sCollectFileName = full;
        unsigned rc = 0;
        List(r, vm + "\\" + volC, vm + "\\" + volC + "/Windows", 0, rc);
        EXPECT_EQ(rc, ~0u);
        EXPECT_EQ(log.Count("Failed to write the list of files to [" + full + "], errno [28]."), 1u);
    }
    // A walk longer than the list's buffer meets the full disk inside the walk.
    for (int i = 0; i < 200; ++i)
        WriteFile(folderC / "many" / (std::string(40, 'f') + std::to_string(i) + ".doc"), "x");
    fs::remove(full);  // the reader's end removed its collect file, the link
    fs::create_symlink("/dev/full", full);
    FileLevelProbe r(&event);
    r.m_snapSrc.m_bFilter = true;
    r.m_snapSrc.m_sFilePattern = "*.doc";
    r.m_sSnapMountPath = folderC.string();
    r.m_sOrigClientMountPath = "VM1\\VOL1/";
    r.m_sCollectFileName = full;
    r.m_pCollectFile = std::fopen(full.c_str(), "w");
    ASSERT_NE(r.m_pCollectFile, nullptr);
    const CQiError err =
        CQiDirectory::Walk((folderC / "many").string(), &r, -1, false, &DataReaderVMware::PathWalkerStatic);
    EXPECT_EQ(err.AsString().find("write " + full), 0u) << err.AsString();
}

TEST_F(FileLevel, LiveBrowseUnavailableFailsTheItem) {
    // No archive file open and none listed: the open parameters' (none) is tried.
    FileLevelProbe r(&event);
    ASSERT_EQ(r.Initialize(), 0);
    EXPECT_EQ(r.OnSnapSrcPath((vm + "\\" + volC).c_str()), ~0u);
    EXPECT_TRUE(log.Contains("Failed to acquire live browse object"));
}

TEST_F(FileLevel, LifecycleChecksAndFlags) {
    {
        DataReaderVMware bad(nullptr, nullptr, kJob);
        EXPECT_FALSE(bad.isValid());
        EXPECT_TRUE(log.Contains("Invalid pipelayer pointer passed in."));
        EXPECT_FALSE(log.Contains("Invalid KtEvent pointer passed in."));
    }
    FileLevelProbe noEvent(nullptr);
    EXPECT_FALSE(noEvent.isValid());
    EXPECT_TRUE(log.Contains("Invalid KtEvent pointer passed in."));

    FileLevelProbe r(&event);
    DMInitParams init;
    DMOpenArchiveParams open;
    EXPECT_EQ(r.OpenArchiveFile(init, open), ~0);
    EXPECT_TRUE(log.Contains("ClBackupW2kFile object is not initialized."));
    std::string list = sample.afileList;
    r.PreOpenArchiveFile(list.data(), 7ul);
    EXPECT_FALSE(r.m_bSnapRestore);
    r.PreOpenArchiveFile(list.data(), 0ul);
    EXPECT_TRUE(r.m_bSnapRestore);
    EXPECT_TRUE(r.EnableReadSecurityOnly(true));
    EXPECT_FALSE(r.EnableReadSecurityOnly(false));
    EXPECT_TRUE(r.SendComponentRestoreMsgHdr(FSRSnapSrcPath{}));
    EXPECT_TRUE(log.Contains("ClBackup reader is null."));
}

// The volume map's keys: upper case, a trailing backslash, a key by name too, and the
// device path's prefix and closing "}\\" stripped only where the device path is used.
TEST_F(FileLevel, VolumeKeysFromTheMountInformation) {
    VMInfoStructs::SMountInfoFile entry;
    entry.sDevicePath = "\\\\?\\Volume{ab-c1}\\";
    entry.sVolumeGuid = "{ab-c1}";
    entry.sLocalMountPath = "/mnt/Vol1/";
    entry.sVolumeName = "e:";
    const struct {
        int instanceType, mountMode;
        std::string guidKey;
    } cases[] = {
        {101, 0, "VM1\\AB-C1\\"},    // the device path, stripped
        {101, 2, "VM1\\{AB-C1}\\"},  // mount method 2: the volume GUID
        {102, 0, "VM1\\{AB-C1}\\"},  // instance type 102: the volume GUID
    };
    for (const auto& c : cases) {
        FileLevelProbe r(&event);
        r.setVSInstanceType(static_cast<VirtualServerInstanceType>(c.instanceType));
        DataReaderVMCtx ctx;
        ctx.mountCtx.nMountMode = c.mountMode;
        ctx.mountInfoFiles = {entry};
        std::string vmName = "vm1";
        EXPECT_EQ(r.GetFileMountInfo(vmName, ctx), 1u);
        const std::map<std::string, std::string> expected = {{c.guidKey, "/MNT/VOL1/"}, {"VM1\\E:\\", "/MNT/VOL1/"}};
        EXPECT_EQ(r.VMGuidVolGuidToVolumePathMap, expected) << c.instanceType << " " << c.mountMode;
    }
}

// A file that vanished between listing and sending is marked failed and the rest still
// goes; a stop between files leaves the rest unsent.
TEST_F(FileLevel, FailedFilesAreMarkedAndAStopLeavesTheRestUnsent) {
    const std::string vol = vm + "\\" + volC;
    unsigned rc = 0;
    {
        FileLevelProbe r(&event, home.sub("partial.bin"));
        OpenOnSample(r, sample, kJob);
        const std::string collect = List(r, vol, vol, 0, rc);
        ASSERT_EQ(rc, 0u);
        std::ofstream(collect) << vol << "/gone.txt\n" << vol << "/Windows/win.ini\n";
        EXPECT_EQ(r.SendFiles(collect.c_str()), 0u);
        r.Close();
    }
    const StreamView d = ViewFile(home.sub("partial.bin"));
    const Entry* gone = d.Find(vol + "/gone.txt");
    ASSERT_TRUE(gone);
    EXPECT_TRUE(gone->ended && !gone->complete && gone->content.empty());
    const Entry* ini = d.Find(vol + "/Windows/win.ini");
    ASSERT_TRUE(ini);
    EXPECT_TRUE(ini->complete);
    EXPECT_EQ(ini->content, ReadAll(folderC / "Windows/win.ini"));
    {
        FileLevelProbe r(&event, home.sub("stopped.bin"));
        OpenOnSample(r, sample, kJob);
        const std::string collect = List(r, vol, vol, 0, rc);
        ASSERT_EQ(rc, 0u);
        // The volume folder, then Users: the stop comes on the third file's poll.
        event.setAfterPolls(3);
        EXPECT_EQ(r.SendFiles(collect.c_str()), ~0u);
        EXPECT_TRUE(log.Contains("DataReaderVMware::isStopSignaled: Stop signaled by FsRestoreHead."));
        r.Close();
    }
    const StreamView stopped = ViewFile(home.sub("stopped.bin"));
    EXPECT_EQ(Count(stopped, 'R'), 2u);
    EXPECT_EQ(Count(stopped, 'G'), 0u);
}

TEST_F(FileLevel, BrokenStreamFailsTheBackup) {
    WriteFile(folderC / "big.bin", std::string(3 << 20, 'b'));
    FileLevelProbe r(&event, "/dev/full");
    OpenOnSample(r, sample, kJob);
    EXPECT_EQ(Item(r, vm + "\\" + volC, vm + "\\" + volC), ~0u);
    EXPECT_TRUE(log.Contains("indicates FAIL_BACKUP."));
}

// Whatever an item says, nothing outside the guest volume is read: "..", absolute
// paths, links out of the volume (absolute, relative, in the middle of a path), and the
// path where the volume map gives no mount path.
TEST_F(FileLevel, NothingOutsideTheVolumeIsEverSent) {
    const std::string marker = "SECRET-OUTSIDE-THE-VOLUME";
    const fs::path outside = home.sub("outside");
    WriteFile(outside / "secret.txt", marker);
    fs::create_symlink(outside / "secret.txt", folderC / "abs-link");
    fs::create_symlink("../../../../../../outside/secret.txt", folderC / "rel-link");
    fs::create_symlink(outside, folderC / "dir-link");
    fs::create_symlink("Windows/win.ini", folderC / "inner-link");

    const std::string stream = home.sub("sec.bin");
    const std::string volPath = vm + "\\" + volC;
    {
        FileLevelProbe r(&event, stream);
        OpenOnSample(r, sample, kJob);
        EXPECT_EQ(Item(r, volPath, volPath), 0u);  // the whole volume, links included
        const std::string escapes[] = {
            volPath + "/../../../../outside/secret.txt",
            volPath + "/Windows/../../../outside/secret.txt",
            volPath + "/" + outside.string() + "/secret.txt",
            volPath + "/dir-link/secret.txt",
            volPath + "/abs-link",
        };
        for (const std::string& path : escapes) EXPECT_EQ(Item(r, volPath, path), 0u) << path;
        // No mapping at all: a client path of one part, listed with a filter. The folder
        // to walk is then relative and lies in no guest volume: refused, not listed.
        EXPECT_EQ(Item(r, volPath, outside.string() + "/", 1), ~0u);
        EXPECT_TRUE(log.Contains("refusing to walk [" + outside.string().substr(1) + "/]"));
        EXPECT_FALSE(log.Contains("tmp File Name:"));
        EXPECT_EQ(Item(r, volPath, outside.string() + "/secret.txt"), 0u);
        r.Close();
    }
    EXPECT_EQ(ReadAll(stream).find(marker), std::string::npos);
    const StreamView d = ViewFile(stream);
    ASSERT_TRUE(d.Find(volPath + "/inner-link"));
    EXPECT_EQ(d.Find(volPath + "/inner-link")->content, "Windows/win.ini");
    for (const char* link : {"/abs-link", "/rel-link"}) {
        const Entry* e = d.Find(volPath + link);
        ASSERT_TRUE(e) << link;
        EXPECT_TRUE(!e->complete && e->content.empty()) << link;
    }
    EXPECT_TRUE(log.Contains("it is a link that points out of its volume"));
    EXPECT_TRUE(log.Contains("climbs out of its volume"));
}

TEST(FileLevelHost, WildcardsWalksAndSplits) {
    EXPECT_TRUE(CQiDirectory::MatchWildcard("Report.DOC", "*.doc", true));
    EXPECT_FALSE(CQiDirectory::MatchWildcard("Report.DOC", "*.doc", false));
    EXPECT_TRUE(CQiDirectory::MatchWildcard("a1c", "a?c", false));
    EXPECT_FALSE(CQiDirectory::MatchWildcard("ac", "a?c", false));
    EXPECT_TRUE(CQiDirectory::MatchWildcard("abcbc", "*bc", false));
    EXPECT_TRUE(CQiDirectory::MatchWildcard("", "*", false));
    EXPECT_FALSE(CQiDirectory::MatchWildcard("x", "", false));

    std::vector<std::string> parts;
    FXString::Split("a\\\\b\\", "\\", parts);
    EXPECT_EQ(parts, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(FXString::ToUpper("vm1\\Data/é"), "VM1\\DATA/é");

    bool link = true;
    EXPECT_FALSE(CQiPath::IsLink("/no/such/path", link).IsError());
    EXPECT_FALSE(link);
    // Nothing outside a mounted guest volume is looked at or walked: not the root, not
    // a folder of the backup host, not a path relative to the current folder.
    const vstest::TempHome home;
    const std::string host = home.sub("host-folder");
    WriteFile(fs::path(host) / "a.txt", "a");
    fs::create_symlink("a.txt", fs::path(host) / "link");
    EXPECT_FALSE(CQiPath::IsLink(host + "/link", link).IsError());
    EXPECT_FALSE(link);
    int calls = 0;
    const auto count = [](const char*, const char*, bool, void* n) {
        ++*static_cast<int*>(n);
        return CQiError();
    };
    for (const std::string& path : {std::string("/"), host, host + "/../host-folder", std::string(".")})
        EXPECT_TRUE(CQiDirectory::Walk(path, &calls, -1, false, count).IsError()) << path;
    EXPECT_EQ(calls, 0);
}

// The collect file's line form for a walk: under a volume map entry that matches (the
// data mover's own items never match one, see below), folders and matching files each
// as a client-form line under the client mount path.
TEST_F(FileLevel, FilteredWalkWritesClientFormLines) {
    WriteFile(folderC / "docs/a.doc", "a");
    WriteFile(folderC / "docs/b.txt", "b");
    WriteFile(folderC / "docs/sub/c.DOC", "c");
    FileLevelProbe r(&event);
    OpenOnSample(r, sample, kJob);
    // End to end the map lookup misses and leaves no folder to walk (the whole client
    // path is the client mount path): a filtered item fails.
    EXPECT_EQ(Item(r, vm + "\\" + volC, vm + "\\" + volC + "/docs/*.doc", 1), ~0u);
    EXPECT_TRUE(log.Contains("Failure to map to VMGuidVolGuidToVolumePathMap"));
    EXPECT_TRUE(log.Contains("CQiDirectory::Walk returned error [walk of an empty path"));

    ASSERT_EQ(r.OnSnapSrcPath((vm + "\\" + volC).c_str()), 0u);  // the volume mounted for the walker
    r.m_snapSrc.m_bFilter = true;
    r.m_snapSrc.m_bRecurse = true;
    r.m_snapSrc.m_sFilePattern = "*.doc";
    r.m_sSnapMountPath = folderC.string();
    r.m_sOrigClientMountPath = "VM1\\VOL1/";
    const std::string listPath = home.sub("walk.txt");
    r.m_pCollectFile = std::fopen(listPath.c_str(), "w+");
    ASSERT_NE(r.m_pCollectFile, nullptr);
    // Folders pass the filter only when they match it too; "sub" does not, so its
    // content is reached but the folder itself is not listed.
    ASSERT_FALSE(
        CQiDirectory::Walk((folderC / "docs").string(), &r, -1, false, &DataReaderVMware::PathWalkerStatic).IsError());
    std::fclose(r.m_pCollectFile);
    r.m_pCollectFile = nullptr;
    EXPECT_EQ(ReadAll(listPath), "VM1\\VOL1/docs/a.doc\nVM1\\VOL1/docs/sub/c.DOC\n");
}

}  // namespace
