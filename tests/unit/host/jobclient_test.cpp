// Restore job client: the central-server check of init and the pending causes it
// records in the catalog.
#include "hostapi/jobclient.h"
#include "catalog_backend.h"
#include "hostapi/platform.h"
#include "temp_home.h"
#include "vshost/changetrack.h"
#include "vshost/home.h"
#include "vshost/pending.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using Args = std::vector<std::string>;

int Raise(KTJobClient& c, int causeId) {
    return c.setPendingCauseAndEvent(causeId, 3, 0, false, 300, false, 0, 0, 0, 0);
}

TEST(JobClientTest, InitAcceptsOnlyTheCentralServer) {
    vstest::TempHome home;
    vshost::settings::Set("Host", "sPhysicalMachine", "MaHost01");
    KTRstJobClient c;
    // Out of the box the hub server is this machine, and so is the central server.
    EXPECT_TRUE(c.init(KTPI_PlatformBase(2).getHubServerHostName(), 1, 2, false, nullptr));
    EXPECT_TRUE(c.init("mahost01", 1, 2, false, nullptr));
    EXPECT_FALSE(c.init("mahost0", 1, 2, false, nullptr));
    EXPECT_FALSE(c.init("", 1, 2, false, nullptr));
    EXPECT_FALSE(c.init(nullptr, 1, 2, false, nullptr));

    vshost::settings::Set("Host", "sHubServerHostName", "hub.example");
    EXPECT_FALSE(c.init(KTPI_PlatformBase(2).getHubServerHostName(), 1, 2, false, nullptr));
    vshost::settings::Set("Host", "sCatalogServerName", "HUB.Example");
    EXPECT_TRUE(c.init(KTPI_PlatformBase(2).getHubServerHostName(), 1, 2, false, nullptr));
    EXPECT_FALSE(c.init("mahost01", 1, 2, false, nullptr));
}

class JobClientOn : public vstest::CatalogBackendTest {};
VS_ON_BOTH_CATALOGS(JobClientOn);

TEST_P(JobClientOn, CausesCarryTheirArgumentsInOrderPerJob) {
    vstest::TempHome home(CatalogConnection());
    const char* hub = "central01";
    vshost::settings::Set("Host", "sCatalogServerName", hub);

    KTRstJobClient ready;
    ASSERT_TRUE(ready.init(hub, 100, 2, false, nullptr));
    ready << "first"
          << "with \"quotes\", \\ and \xC3\xA9" << nullptr;
    EXPECT_EQ(ready.setPendingCauseAndEvent(-7, 1, 2, true, 300, true, 4, 0xFFFFFFFFu, 6, 0xFFFFFFFEu), 0);
    // The arguments went with that cause only.
    EXPECT_EQ(Raise(ready, 0x5B000004), 0);

    KTRstJobClient notReady;
    EXPECT_FALSE(notReady.init("other", 100, 2, false, nullptr));
    notReady << "vm01";
    EXPECT_EQ(Raise(notReady, 0x4800006A), 0);

    KTRstJobClient otherJob;
    ASSERT_TRUE(otherJob.init(hub, 200, 2, false, nullptr));
    // Bytes that are not UTF-8 are replaced, not allowed to lose the cause.
    otherJob << "bad\xFF";
    EXPECT_EQ(Raise(otherJob, 0x5B00001E), 0);

    const auto job100 = vshost::PendingCauses(100);
    ASSERT_EQ(job100.size(), 3u);
    // Every argument where it belongs, the extremes of each kept.
    const vshost::PendingCause& a = job100[0];
    EXPECT_EQ(a.eventArgs, (Args{"first", "with \"quotes\", \\ and \xC3\xA9", ""}));
    EXPECT_EQ(std::tie(a.jobId, a.seq, a.causeId, a.arg2, a.arg3, a.flag1, a.messageType, a.flag2, a.alertLevel,
                       a.flags, a.value1, a.value2, a.clientReady),
              std::make_tuple(100, 1, -7, 1, 2, true, 300, true, 4, 0xFFFFFFFFu, 6u, 0xFFFFFFFEu, true));
    EXPECT_EQ(std::tie(job100[1].seq, job100[1].causeId, job100[1].flag1, job100[1].arg2),
              std::make_tuple(2, 0x5B000004, false, 3));
    EXPECT_TRUE(job100[1].eventArgs.empty());
    EXPECT_EQ(std::tie(job100[2].seq, job100[2].causeId, job100[2].clientReady), std::make_tuple(3, 0x4800006A, false));
    EXPECT_EQ(job100[2].eventArgs, Args{"vm01"});

    const auto job200 = vshost::PendingCauses(200);
    ASSERT_EQ(job200.size(), 1u);
    EXPECT_EQ(job200[0].seq, 1);
    EXPECT_EQ(job200[0].eventArgs, Args{"bad\xEF\xBF\xBD"});
    EXPECT_TRUE(vshost::PendingCauses(300).empty());
}

TEST(JobClientTest, UnrecordableCauseIsLoggedNotThrown) {
    vshost::LogCapture log;
    vshost::CloseHome();  // also rules out a $VSHOST_HOME of the caller
    KTRstJobClient c;
    c.init("anything", 42, 2, false, nullptr);
    c << "lost";
    EXPECT_EQ(Raise(c, 0x5B000019), -1);
    EXPECT_EQ(log.Count("KTJobClient::setPendingCauseAndEvent: cause [0x5B000019] of job [42] not recorded"), 1u);

    vstest::TempHome home;
    // A catalog that cannot be opened fails the same way.
    std::filesystem::remove(home.sub("catalog.db"));
    std::filesystem::create_directory(home.sub("catalog.db"));
    EXPECT_EQ(Raise(c, 0x5B00001A), -1);
    EXPECT_EQ(log.Count("cause [0x5B00001A] of job [42] not recorded"), 1u);
    std::filesystem::remove(home.sub("catalog.db"));

    // Arguments of a cause that was not recorded do not stick to the next one.
    EXPECT_EQ(Raise(c, 0x5B00001B), 0);
    const auto causes = vshost::PendingCauses(42);
    ASSERT_EQ(causes.size(), 1u);
    EXPECT_TRUE(causes[0].eventArgs.empty());
}

// Processes of one parallel job, each with its own connections and file locks and each
// running clients in threads of its own, write causes, change-tracking digests and
// completed disks at the same time: none is turned away busy, every cause gets a number
// of its own, and each client's causes keep their order and their own arguments.
TEST_P(JobClientOn, ConcurrentClientsRecordIntoOneJob) {
    vstest::TempHome home(CatalogConnection());
    constexpr int kProcesses = 3, kThreads = 2, kEach = 12, kWriters = kProcesses * kThreads;
    vshost::PendingCauses(8);  // the catalog exists before the race
    EXPECT_TRUE(vstest::InProcesses(kProcesses, [](int p) {
        std::atomic<int> failures = 0;
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&failures, writer = p * kThreads + t] {
                for (int i = 0; i < kEach; ++i) {
                    KTRstJobClient c;
                    c.init(KTPI_PlatformBase(2).getHubServerHostName(), 8, 2, false, nullptr);
                    c << std::to_string(i).c_str();
                    if (Raise(c, writer) != 0) ++failures;
                    try {
                        const std::string disk = "disk" + std::to_string(writer) + "_" + std::to_string(i);
                        vshost::changetrack::DiskDigests digests;
                        digests.diskSize = 1 << 20;
                        digests.extentSize = 1 << 20;
                        digests.extents[0] = vshost::changetrack::Digest{1, 2};
                        vshost::changetrack::Store("cid-" + disk, digests);
                        vshost::changetrack::RecordJobDisk(8, {"vm", disk, "cid-" + disk});
                    } catch (const std::exception&) {
                        ++failures;
                    }
                }
            });
        }
        for (auto& th : threads) th.join();
        return failures.load();
    }));
    const auto causes = vshost::PendingCauses(8);
    ASSERT_EQ(causes.size(), static_cast<size_t>(kWriters * kEach));
    std::vector<int> next(kWriters, 0);
    for (size_t i = 0; i < causes.size(); ++i) {
        EXPECT_EQ(causes[i].seq, static_cast<int>(i + 1));
        const int writer = causes[i].causeId;
        ASSERT_TRUE(writer >= 0 && writer < kWriters);
        EXPECT_EQ(causes[i].eventArgs, Args{std::to_string(next[static_cast<size_t>(writer)]++)});
        EXPECT_TRUE(causes[i].clientReady);
    }
    EXPECT_EQ(vshost::changetrack::JobDisks(8).size(), static_cast<size_t>(kWriters * kEach));
}

}  // namespace
