#include "probe.h"
#include "temp_home.h"

#include "vshost/catalog.h"
#include "vshost/home.h"
#include "vshost/job.h"

#include <gtest/gtest.h>

#include <string>

namespace {

class SnapMountPath : public ::testing::Test {
protected:
    vstest::TempHome home;
    vshost::LogCapture log;
    KtEvent event;
};

TEST_F(SnapMountPath, JoinsTheFourValuesAndPrintsThemWithoutThePassword) {
    Probe r(&event);
    EXPECT_EQ(r.getSnapMountPath(), "{vcname:,esxname:,username:,password:}");
    r.PrintSnapMountPath(r.getSnapMountPath());
    EXPECT_TRUE(log.Contains("DataReaderVSBase::PrintSnapMountPath: MountPath VC:[] ESX:[] User:[][0]"));

    r.m_sVCName = "vc1";
    r.m_sESXServerName = "esx7";
    r.m_sUserName = "DOM\\admin";
    r.m_sPassword = "c3RvcmVk";
    const std::string path = r.getSnapMountPath();
    EXPECT_EQ(path, "{vcname:vc1,esxname:esx7,username:DOM\\admin,password:c3RvcmVk}");
    r.PrintSnapMountPath(path);
    EXPECT_TRUE(log.Contains("MountPath VC:[vc1] ESX:[esx7] User:[DOM\\admin][8]"));

    // Values are not escaped: a "," ends the VC when printed, a "}" ends the password.
    r.m_sVCName = "vc,1";
    r.m_sPassword = "ab}cd";
    r.PrintSnapMountPath(r.getSnapMountPath());
    EXPECT_TRUE(log.Contains("MountPath VC:[vc] ESX:[esx7] User:[DOM\\admin][2]"));

    // Missing markers leave their fields empty; the others are still read.
    r.PrintSnapMountPath("{vcname:only,password:xyz}");
    EXPECT_TRUE(log.Contains("MountPath VC:[only] ESX:[] User:[][3]"));
    for (const std::string& line : log.Lines()) EXPECT_EQ(line.find("c3RvcmVk"), std::string::npos) << line;
}

TEST_F(SnapMountPath, ConfiguredProxyEsxWinsForLaterCallersToo) {
    vshost::settings::Set("VirtualServer", "sProxyESX", "esx-proxy");
    Probe r(&event);
    r.m_sESXServerName = "esx-task";
    const std::string before = r.m_sESXServerName;  // what a mount context copied earlier keeps
    EXPECT_EQ(r.getSnapMountPath(), "{vcname:,esxname:esx-proxy,username:,password:}");
    EXPECT_EQ(before, "esx-task");
    EXPECT_EQ(r.m_sESXServerName, "esx-proxy");
    EXPECT_TRUE(log.Contains("DataReaderVSBase::getSnapMountPath: Proxy ESX:[esx-proxy] found in the registry"));
}

}  // namespace
