// Home layout, settings store, platform information and the stop event.
#include "hostapi/event.h"
#include "hostapi/fileutil.h"
#include "hostapi/platform.h"
#include "temp_home.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <chrono>
#include <fstream>
#include <thread>

namespace {
std::string Get(const std::string& section, const std::string& key) {
    std::string v = "<absent>";
    vshost::settings::Get(section, key, v);
    return v;
}
}  // namespace

TEST(HomeTest, LayoutSettingsFileAndSave) {
    vstest::TempHome home;
    std::ofstream(home.sub("settings.ini")) << "; c\n# c\n\n  [ Host ]  \r\n sPhysicalMachine =  ma01  \nsEmpty=\n";
    vshost::OpenHome(home.path());
    for (const char* dir : {"keys", "IndexCache", "JobResults", "Log Files"})
        EXPECT_TRUE(CQiPath::IsDirectory(home.sub(dir))) << dir;
    EXPECT_EQ(Get("Host", "sPhysicalMachine"), "ma01");
    EXPECT_EQ(Get("Host", "sEmpty"), "");
    EXPECT_EQ(Get("host", "sPhysicalMachine"), "<absent>");  // case-sensitive
    EXPECT_EQ(Get("Host", "sphysicalmachine"), "<absent>");

    vshost::settings::Set("VirtualServer", "nEnable", "1");
    vshost::settings::Erase("Host", "sPhysicalMachine");
    vshost::settings::Save();
    vshost::CloseHome();
    EXPECT_EQ(Get("VirtualServer", "nEnable"), "<absent>");
    vshost::OpenHome(home.path());
    EXPECT_EQ(Get("VirtualServer", "nEnable"), "1");
    EXPECT_EQ(Get("Host", "sEmpty"), "");
    EXPECT_EQ(Get("Host", "sPhysicalMachine"), "<absent>");
    // What settings.ini could not give back is refused up front.
    EXPECT_THROW(vshost::settings::Set("Host", "k", "two\nlines"), std::invalid_argument);
    EXPECT_THROW(vshost::settings::Set("Host", "a=b", "v"), std::invalid_argument);
}

TEST(HomeTest, MalformedSettingsNameFileAndLine) {
    vstest::TempHome good;
    vstest::TempHome bad;
    vshost::OpenHome(good.path());
    for (const char* line : {"[Broken\n", "justtext\n", "= value\n", "[]\n"}) {
        std::ofstream(bad.sub("settings.ini")) << "[A]\nk=v\n" << line;
        try {
            vshost::OpenHome(bad.path());
            ADD_FAILURE() << "accepted: " << line;
        } catch (const std::runtime_error& e) {
            EXPECT_NE(std::string(e.what()).find(bad.sub("settings.ini") + ":3"), std::string::npos) << e.what();
        }
        EXPECT_EQ(vshost::HomeDir(), good.path());  // a failed open keeps the previous home
    }
}

// $VSHOST_HOME counts only in a process that never opened a home, so the check runs in a
// fresh child, which finds the folder name in the environment its parent set.
TEST(HomeTest, FirstServiceUseOpensHomeFromEnvironment) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::string dir;
    if (const char* inherited = std::getenv("VSTEST_ENV_HOME")) {
        dir = inherited;
    } else {
        dir = ::testing::TempDir() + "vsenvhome-XXXXXX";
        ASSERT_NE(mkdtemp(dir.data()), nullptr);
        setenv("VSTEST_ENV_HOME", dir.c_str(), 1);
        setenv("VSHOST_HOME", dir.c_str(), 1);
    }
    EXPECT_EXIT(
        {
            bool ok = KTPI_HubClient().getJobResultsDirectory("m") == dir + "/JobResults" && vshost::HomeDir() == dir &&
                      CQiPath::IsDirectory(dir + "/Log Files");
            std::_Exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    unsetenv("VSHOST_HOME");
    unsetenv("VSTEST_ENV_HOME");
    CQiDirectory::Remove(dir, true);
}

TEST(PlatformTest, NumbersLeaveValueWhenUnusable) {
    vstest::TempHome home;
    KTPlatformInfo pi;
    for (auto [text, expected] : {std::pair{"42", 42ul}, {" 7 ", 7ul}, {"0x10", 16ul}, {"010", 8ul}}) {
        vshost::settings::Set("S", "k", text);
        unsigned long v = 999;
        EXPECT_EQ(pi.getNumber("S", "k", &v), 1) << text;
        EXPECT_EQ(v, expected) << text;
    }
    for (const char* text : {"", "abc", "12abc", "-1", "+3", "1.5", "99999999999999999999999"}) {
        vshost::settings::Set("S", "k", text);
        unsigned long v = 999;
        EXPECT_EQ(pi.getNumber("S", "k", &v), 0) << text;
        EXPECT_EQ(v, 999u) << text;
    }
    unsigned long v = 5;
    std::string s = "keep";
    EXPECT_EQ(pi.getNumber("S", "absent", &v) + pi.getString("S", "absent", &s), 0);
    EXPECT_EQ(v, 5u);
    EXPECT_EQ(s, "keep");
}

TEST(PlatformTest, MachineNamesAndDirectories) {
    vstest::TempHome home;
    char host[256] = {};
    ASSERT_EQ(gethostname(host, sizeof host - 1), 0);
    KTPlatformInfo pi;
    KTPI_HubClient hub;
    KTPI_Base base;
    EXPECT_EQ(pi.getPhysicalMachine(), host);
    EXPECT_STREQ(hub.getHubServerHostName(), host);
    EXPECT_EQ(hub.getJobResultsDirectory("m"), home.sub("JobResults"));
    EXPECT_STREQ(base.getTesselDirectory(), home.path().c_str());

    vshost::settings::Set("Host", "sPhysicalMachine", "ma01");
    EXPECT_STREQ(hub.getHubServerHostName(), "ma01");
    vshost::settings::Set("Host", "sHubServerHostName", "hub01");
    EXPECT_STREQ(hub.getHubServerHostName(), "hub01");
    // An empty results folder or a missing base folder: checked through the reader's
    // initialisation (tests/unit/reader/lifecycle_test.cpp).
    vshost::CloseHome();
    EXPECT_EQ(hub.getJobResultsDirectory("m"), "");
    EXPECT_EQ(base.getTesselDirectory(), nullptr);
}

// No timing is asserted: a wait that times out says so; one that another thread sets
// while it waits (the setter sleeps first, so a wait that returned at once would see
// nothing set) returns true.
TEST(EventTest, WaitHonoursTimeoutAndSet) {
    KtEvent ev;
    EXPECT_FALSE(ev.wait(0));
    EXPECT_FALSE(ev.wait(20));
    std::thread setter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        ev.set();
    });
    EXPECT_TRUE(ev.wait(600000));
    setter.join();
}
