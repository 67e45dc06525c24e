// The plug-in as the data mover sees it: loaded with dlopen, readers made by the
// exported factories and deleted through the virtual destructor.
//
// Each test needs a process of its own (as ctest runs them): once a process has loaded
// a libVMInfo.so, every later dlopen of that name finds the loaded one.
#include "Factories.h"
#include "temp_home.h"

#include "vshost/catalog.h"
#include "vshost/home.h"

#include "hostapi/archive.h"

#include <gtest/gtest.h>

#include <fcntl.h>

#include <dlfcn.h>

#include <filesystem>
#include <memory>
#include <string>

namespace fs = std::filesystem;

namespace {

struct Plugin {
    explicit Plugin(const std::string& path) : handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {}
    ~Plugin() {
        if (handle) dlclose(handle);
    }
    template <typename Fn>
    Fn Resolve(const char* name) const {
        return reinterpret_cast<Fn>(dlsym(handle, name));
    }
    void* handle;
};

// A copy of the plug-in in a folder of its own, beside whichever VM-info library the
// test puts there (or none).
std::string Install(const vstest::TempHome& home, const std::string& folder, const std::string& vminfo) {
    const fs::path dir = fs::path(home.path()) / folder / "lib";
    fs::create_directories(dir);
    fs::copy_file(VS_PLUGIN_PATH, dir / "libvsdatareader.so");
    if (!vminfo.empty()) fs::copy_file(vminfo, dir / "libVMInfo.so");
    return (dir / "libvsdatareader.so").string();
}

TEST(Plugin, FactoriesMakeReadersThatLogUnderTheirTags) {
    vstest::TempHome home;
    vshost::LogCapture log;
    KtEvent event;
    Plugin plugin(VS_PLUGIN_PATH);
    ASSERT_NE(plugin.handle, nullptr) << dlerror();

    auto* password = plugin.Resolve<std::string*>("m_ProxyDecryptedPassword");
    ASSERT_NE(password, nullptr);

    auto makeExtent = plugin.Resolve<CreateDataReaderVSExtentFn>("CreateDataReaderVSExtent");
    auto makeCollection = plugin.Resolve<CreateDataReaderVSFileCollectionFn>("CreateDataReaderVSFileCollection");
    auto makeFileLevel = plugin.Resolve<CreateDataReaderVMwareFn>("CreateDataReaderVMware");
    ASSERT_TRUE(makeExtent && makeCollection && makeFileLevel);

    // One stream each: a stream is finished when its last writer leaves.
    const int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    auto pipe1 = CPipelayer::OpenFd(devNull), pipe2 = CPipelayer::OpenFd(devNull), pipe3 = CPipelayer::OpenFd(devNull);
    const struct {
        DataReaderVSBase* reader;
        const char* tag;
        bool ownItems;  // reads items itself rather than through the base
        const char* lastLine;
    } readers[] = {
        {makeExtent(pipe1.get(), &event, 101), "DM_VSEXT\t", true, "DataReaderVSBase deleted successfully."},
        {makeCollection(pipe2.get(), &event, 102), "DM_FS\t", true, "DataReaderVSBase deleted successfully."},
        // The file-level reader's log ends with its own line: its log object goes first.
        {makeFileLevel(pipe3.get(), &event, 103), "DM_VSVMWARE", false, "DataReaderVMware deleted successfully."},
    };
    for (const auto& [reader, tag, ownItems, lastLine] : readers) {
        ASSERT_NE(reader, nullptr);
        // Found beside the plug-in with no environment variable.
        EXPECT_EQ(reader->Initialize(), 0);
        EXPECT_EQ(reader->OnSnapSrcPath(nullptr), -1);
        delete reader;
        EXPECT_EQ(log.Count(std::string(tag) + " DataReaderVSBase::OnSnapSrcPath: Base class handling SnapSrcPath"),
                  ownItems ? 0u : 1u)
            << tag;
        EXPECT_EQ(log.Count(std::string(tag) + " " + lastLine), 1u) << tag;
    }
    close(devNull);
    EXPECT_FALSE(log.Contains("LoadLibrary"));
}

// A VM-info library that is missing, then one without its entry points, each beside its
// own copy of the plug-in (nothing is loaded by the first, so the second finds its own):
// the reader initialises, says why, and every open fails.
TEST(Plugin, AMissingOrBrokenVMInfoLibraryIsReportedAndOpensFail) {
    vstest::TempHome home;
    vshost::settings::Set("Log", "nDATAREADERVSEXT", "0");  // only lines that must appear
    vshost::LogCapture log;
    KtEvent event;
    vshost::Catalog().AddApplication(vshost::AppRecord{});
    const struct {
        const char *folder, *library, *line;
        size_t times;  // a missing library is looked for at the initialisation and again at the open
    } cases[] = {
        {"missing", "", "DataReaderVSBase::LoadVMInfoDLL: ERROR: LoadLibrary(libVMInfo.so) failed! Err=0x", 2},
        {"broken", VS_FIXTURE_NO_ENTRY_POINTS,
         "DataReaderVSBase::CreateIVMInfoObject: ERROR: Could not map proc address CreateVMInfoObject in VMInfo.dll Err=0x",
         1},
    };
    for (const auto& c : cases) {
        Plugin plugin(Install(home, c.folder, c.library));
        ASSERT_NE(plugin.handle, nullptr) << dlerror();
        auto make = plugin.Resolve<CreateDataReaderVSExtentFn>("CreateDataReaderVSExtent");
        auto pipe = CPipelayer::OpenFd(open("/dev/null", O_WRONLY | O_CLOEXEC));
        std::unique_ptr<DataReaderVSBase> reader(make(pipe.get(), &event, 7));
        log.Clear();
        EXPECT_EQ(reader->Initialize(), 0) << c.folder;  // not fatal here
        EXPECT_EQ(reader->OpenArchiveFile(DMInitParams{}, DMOpenArchiveParams{}), -1) << c.folder;
        EXPECT_EQ(log.Count(c.line), c.times) << c.folder;
        EXPECT_EQ(log.Count("Failed to dynamically load VMInfo library."), c.times - 1) << c.folder;
    }
}

}  // namespace
