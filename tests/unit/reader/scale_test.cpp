// A job of many VMs through one extent reader: what each VM costs must not pile up.
// Descriptors and temporary folders are counted after every VM; a VM's disks, mount
// folder and catalog connections must be gone by the time the next VM starts.
#include "open_sample.h"
#include "probe.h"
#include "temp_home.h"

#include "vshost/home.h"
#include "vssample/sample.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace fs = std::filesystem;

namespace {

constexpr KTJobID kJob = 4712;

size_t OpenDescriptors() {
    size_t n = 0;
    for ([[maybe_unused]] const auto& e : fs::directory_iterator("/proc/self/fd")) ++n;
    return n;
}

size_t EntriesBelow(const std::string& folder) {
    std::error_code ec;
    size_t n = 0;
    for (fs::recursive_directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) ++n;
    return n;
}

TEST(ExtentReaderScale, ManyVMsLeaveNoDescriptorsOrFoldersBehind) {
    vstest::TempHome home;
    vshost::LogCapture log;
    vssample::SampleOptions sampleOptions;
    const vssample::SampleSnapshot s = vssample::GenerateFleet(60, sampleOptions);
    const std::string jobResults = home.sub("JobResults");
    KtEvent event;
    const size_t before = OpenDescriptors();
    {
        Probe r(&event, kJob, home.sub("fleet.bin"));
        vstest::OpenOnSample(r, s, kJob);
        // Change tracking on: digests stored for every disk, the catalog written per disk.
        const std::string xml = vstest::DiskOptions({});
        size_t descriptorsAfterFirst = 0, entriesAfterFirst = 0;
        for (size_t i = 0; i < s.vms.size(); ++i) {
            ASSERT_EQ(vstest::RunItems(r, {{s.vms[i].biosUuid, xml}}), std::vector<int>{0}) << s.vms[i].name;
            if (i == 0) {
                descriptorsAfterFirst = OpenDescriptors();
                entriesAfterFirst = EntriesBelow(jobResults);
            } else {
                ASSERT_EQ(OpenDescriptors(), descriptorsAfterFirst) << "after " << s.vms[i].name;
                ASSERT_EQ(EntriesBelow(jobResults), entriesAfterFirst) << "after " << s.vms[i].name;
            }
        }
        for (size_t i = 0; i < s.afileIds.size(); ++i) r.Close(1);
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(EntriesBelow(jobResults), 0u);
}

}  // namespace
