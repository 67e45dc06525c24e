#include "temp_home.h"

#include "hostapi/appmgr.h"
#include "hostapi/job.h"
#include "vshost/catalog.h"
#include "vshost/job.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace {

std::string ErrorOf(const std::string& text) {
    try {
        vshost::ParseJobText(text, "job.json");
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

TEST(JobFile, ParsesTheOptionsItKnows) {
    const vshost::JobDescription job = vshost::ParseJobText(R"({
        "jobId": 4711, "appId": [3, 9],
        "taskOptions": {"77": "vc1", "76": ""},
        "eventOptions": {"120015": true},
        "jobOptions": {"restoreOptions": {"lookupInstanceFromTask": 1},
                       "virtualServerRestoreOptions": {"instanceId": 12}},
        "later": "ignored"})");
    EXPECT_EQ(job.jobId, 4711);
    EXPECT_EQ(job.appId2, 9u);
    EXPECT_EQ(job.taskOptions.at(77), "vc1");
    EXPECT_EQ(job.taskOptions.at(76), "");
    EXPECT_TRUE(job.eventOptions.at(120015));
    EXPECT_TRUE(job.hasJobOptions);
    EXPECT_EQ(job.lookupInstanceFromTask, 1);
    EXPECT_EQ(job.instanceId, 12u);
    EXPECT_FALSE(vshost::ParseJobText(R"({"jobId": 1})").hasJobOptions);

    EXPECT_THROW(vshost::ParseJobFile("/nonexistent/job.json"), std::runtime_error);
}

// A bad job file is refused naming the field; a number its field cannot hold is never
// wrapped: job 2^64-1 would run as job -1, option 2^32+77 as option 77.
TEST(JobFile, BadFieldsAndNumbersOutOfRangeAreRefusedByName) {
    const std::pair<const char*, const char*> cases[] = {
        {"{\"jobId\": 1,", "job.json: not valid JSON"},
        {"[1]", "one JSON object"},
        {"{}", "field \"jobId\": missing"},
        {R"({"jobId": -4})", "field \"jobId\""},
        {R"({"jobId": 1, "appId": [3]})", "field \"appId\""},
        {R"({"jobId": 1, "taskOptions": {"x77": "a"}})", "taskOptions.x77"},
        {R"({"jobId": 1, "taskOptions": {"77": 5}})", "taskOptions.77"},
        {R"({"jobId": 1, "eventOptions": {"120015": "yes"}})", "eventOptions.120015"},
        {R"({"jobId": 1, "jobOptions": {"virtualServerRestoreOptions": {"instanceId": "12"}}})",
         "jobOptions.virtualServerRestoreOptions.instanceId"},
        {R"({"jobId": 18446744073709551615})", "field \"jobId\""},
        {R"({"jobId": 1, "appId": [3, -9]})", "field \"appId[1]\""},
        {R"({"jobId": 1, "taskOptions": {"4294967373": "vc1"}})", "field \"taskOptions.4294967373\""},
        {R"({"jobId": 1, "eventOptions": {"99999999999999999999": true}})",
         "field \"eventOptions.99999999999999999999\""},
        {R"({"jobId": 1, "jobOptions": {"restoreOptions": {"lookupInstanceFromTask": 4294967297}}})",
         "field \"jobOptions.restoreOptions.lookupInstanceFromTask\""},
    };
    for (const auto& [text, field] : cases) EXPECT_NE(ErrorOf(text).find(field), std::string::npos) << text;
    EXPECT_EQ(vshost::ParseJobText(R"({"jobId": 9223372036854775807})").jobId, 9223372036854775807);
}

TEST(JobFile, RegisteredJobAnswersTaskEventAndJobOptions) {
    vshost::JobDescription job;
    job.jobId = 77001;
    job.taskOptions[77] = std::string(2000, 'v');
    job.eventOptions[120015] = true;
    job.instanceId = 12;
    vshost::RegisterJob(job);

    char buffer[1024];
    ASSERT_NE(SchedularInterfaceNet::GetTaskOptionString(77001, KT_TASKOPT_RST_SERVER_NAME, buffer, sizeof buffer), 0);
    EXPECT_EQ(std::string(buffer), std::string(1023, 'v'));  // cut to the buffer, terminated
    EXPECT_EQ(SchedularInterfaceNet::GetTaskOptionString(77001, KT_TASKOPT_RST_USER_NAME, buffer, sizeof buffer), 0);
    EXPECT_EQ(SchedularInterfaceNet::GetTaskOptionString(1, KT_TASKOPT_RST_SERVER_NAME, buffer, sizeof buffer), 0);

    bool failback = false;
    EXPECT_EQ(EvTask(77001, 0, nullptr, false).getOptionBool(EV_OPTION_FAILBACK_REPLICATION, failback), 0);
    EXPECT_TRUE(failback);
    EXPECT_EQ(EvTask(77001, 0, nullptr, false).getOptionBool(1, failback), 0);
    EXPECT_FALSE(failback);
    EXPECT_NE(EvTask(1, 0, nullptr, false).getOptionBool(EV_OPTION_FAILBACK_REPLICATION, failback), 0);

    vsJobMgr jobMgr;
    jobMgr.setJobId("77001");
    ASSERT_TRUE(jobMgr.LoadJobOptions());
    EXPECT_EQ(jobMgr.GetVirtualServerRestoreOptions().ulInstanceId, 12u);
    jobMgr.setJobId("77001x");
    EXPECT_FALSE(jobMgr.LoadJobOptions());
    vshost::UnregisterJob(77001);
    jobMgr.setJobId("77001");
    EXPECT_FALSE(jobMgr.LoadJobOptions());
}

// The password tool's stored form is used by whole jobs (tests/e2e/vsdm); here: nothing
// on standard input is refused.
TEST(PasswordTool, AnEmptyPasswordIsRefused) {
    vstest::TempHome home;
    EXPECT_NE(
        std::system((std::string(VS_PASSWD_TOOL) + " --home '" + home.path() + "' < /dev/null 2>/dev/null").c_str()),
        0);
}

}  // namespace
