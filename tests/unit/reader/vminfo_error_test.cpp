// VM-info failures reported to the job: each library error code against the pending
// cause the host catalog recorded for it, and the debug line in the host log.
#include "probe.h"
#include "temp_home.h"

#include "vshost/home.h"
#include "vshost/pending.h"

#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace {

const std::string kFn = "void DataReaderVSBase::CheckVMInfoError(IVMInfo*, MountCtx&): ";
constexpr KTJobID kJob = 880011;

struct Expected {
    std::string line;  // debug line for VM "vm01" on proxy host "esx7"
    int causeId;
    std::vector<std::string> args;  // event arguments of the cause
};

// Written out from the error table by hand, so a slip in the reader's table shows.
const std::map<int, Expected>& ErrorTable() {
    static const std::vector<std::string> vm = {"vm01"};
    static const std::vector<std::string> none;
    static const std::map<int, Expected> table = {
        {1, {"VM [vm01] was not found.", 0x5B000004, vm}},
        {2, {"VM [vm01] is Non Windows machine.  Volume/File Mount is not supported.", 0x5B000006, vm}},
        {3, {"Don't have Enough space for Job Completion.", 0x5B000005, vm}},
        {4, {"VSS Failed.", 0x5B000008, vm}},
        {5, {"VCBMounter Failed", 0x5B000007, vm}},
        {9, {"Files with same names are present to be backed-up", 0x5B00000C, vm}},
        {11, {"Failed to create the shadow.  Backup is failing.", 0x5B000009, none}},
        {12, {"VCBMounter Not present..Failing the backup.", 0x5B000014, none}},
        {13, {"Proxy mount path error", 0x5B000017, none}},
        {15, {"VM Version is too low", 0x5B000018, vm}},
        {16, {"VM [vm01] config file path is invalid on [esx7]", 0x5B000019, vm}},
        {17, {"Error creating VM [vm01] snapshot.", 0x5B00001A, vm}},
        {18, {"Error with VM [vm01] change tracking.", 0x5B00001B, vm}},
        {19, {"Error connecting to VM [vm01]", 0x5B00001C, vm}},
        {21, {"Error downloading VM [vm01] config file.", 0x5B00001D, vm}},
        {23, {"Error opening VM [vm01] disk", 0x5B00001E, vm}},
        {27, {"Error registering VM [vm01]", 0x5B000020, vm}},
        {28, {"Error reading SNAP metadata", 0x5B00001F, none}},
        {29, {"Error with vol snap info", 0x5B00002C, none}},
        {30, {"Error mounting snap volumes", 0x5B00002D, none}},
        {31, {"Failed to get VM list from snapshot.", 0x5B00002E, none}},
        {32, {"Failed to get Datastore list for snapshot.", 0x5B00002F, none}},
        {33, {"Failed to create hardware snapshot.", 0x5B000030, none}},
        {169,
         {"Error opening VM [vm01] disk for SAN access.  It may be necessary to restart services on the MediaAgent.",
          0x4800006A,
          {"Unable to open the disk(s) for virtual machine [vm01] for SAN access.  It may be necessary to restart "
           "services on the MediaAgent."}}},
        {170,
         {"Error opening VM [vm01] disk for SAN access.  SAN is only supported for physical machines.", 0x5B00001E,
          vm}},
        {213,
         {"Error opening VM [vm01] disk.  The VDDK version is too high for the host version.",
          0x4800006A,
          {"Unable to open the disk(s) for virtual machine [vm01].  VDDK version 6.5 or higher cannot be used to "
           "access virtual machines on hosts running ESX 5.1 or lower."}}},
        {214,
         {"Error opening VM [vm01] disk.  The VDDK version is too low for the host version.",
          0x4800006A,
          {"Unable to open the disk(s) for virtual machine [vm01].  VDDK version 6.5 is required to access virtual "
           "machines on host version 6.5.  The VDDK will be auto updated.  It may be necessary to restart services "
           "on the MediaAgent."}}},
    };
    return table;
}

class VMInfoError : public ::testing::Test {
protected:
    void SetUp() override {
        ctx.sMountedName = "vm01";
        ctx.sVMName = "vm01-config-name";  // not the name the messages show
        ctx.hostCredentials.sHost = "esx7";
        ctx.hostCredentials.sServer = "vc9";
    }

    // Prepares a connected VM-info object for the reader (instance type 102 needs no
    // credentials).
    void Prepare() {
        ASSERT_EQ(r.Initialize(), 0);
        r.setVSInstanceType(static_cast<VirtualServerInstanceType>(102));
        ASSERT_TRUE(r.PrepareVMInfoObject());
        ASSERT_NE(r.m_pVMInfo, nullptr);
    }

    // Makes `code` the library's last error through a failing operation, then reports
    // it with only this call's log lines captured.
    void Report(int code) {
        vshost::settings::Set("VMInfoFaults", "GetFullMountInfo", std::to_string(code));
        std::vector<VMInfoStructs::SMountInfoFull> infos;
        ASSERT_EQ(r.m_pVMInfo->GetFullMountInfo(ctx, infos), 0);
        ASSERT_EQ(r.m_pVMInfo->GetErrorInfo(), code);
        log.Clear();
        r.CheckVMInfoError(r.m_pVMInfo, ctx);
    }

    vstest::TempHome home;
    vshost::LogCapture log;
    KtEvent event;
    Probe r{&event, kJob};
    MountCtx ctx;
};

TEST_F(VMInfoError, EveryCodeRaisesExactlyItsCauseAndUnknownCodesNone) {
    Prepare();
    std::vector<int> codes;
    for (int code = -3; code <= 220; ++code) codes.push_back(code);
    codes.insert(codes.end(), {INT_MIN, INT_MAX, 0x5B000004, 256 + 1});

    size_t raised = 0;
    for (int code : codes) {
        SCOPED_TRACE("code " + std::to_string(code));
        const MountCtx before = ctx;
        Report(code);
        EXPECT_EQ(ctx, before);  // the report changes nothing of the mount
        EXPECT_FALSE(log.Contains("JobClient initialization failed"));

        const auto causes = vshost::PendingCauses(kJob);
        auto row = ErrorTable().find(code);
        if (row == ErrorTable().end()) {
            EXPECT_EQ(causes.size(), raised);
            raised = causes.size();  // one slip should not fail every later code
            EXPECT_EQ(log.Count(kFn + "Unknown VMInfo error [" + std::to_string(code) + "]"), 1u);
            continue;
        }
        const Expected& want = row->second;
        ASSERT_EQ(causes.size(), raised + 1);
        ++raised;
        const vshost::PendingCause& c = causes.back();
        EXPECT_EQ(c.causeId, want.causeId) << std::hex << "got 0x" << c.causeId << " want 0x" << want.causeId;
        EXPECT_EQ(c.eventArgs, want.args);
        EXPECT_EQ(std::tie(c.seq, c.jobId, c.arg2, c.arg3, c.flag1, c.messageType, c.flag2, c.alertLevel, c.flags,
                           c.value1, c.value2, c.clientReady),
                  std::make_tuple(static_cast<int>(raised), kJob, 3, 0, false, 300, false, 0, 0u, 0u, 0u, true));
        EXPECT_EQ(log.Count(kFn + want.line), 1u);
        EXPECT_FALSE(log.Contains("Unknown VMInfo error"));
    }
    EXPECT_EQ(raised, ErrorTable().size());
    // Nothing went to another job.
    EXPECT_TRUE(vshost::PendingCauses(4711).empty());
}

TEST_F(VMInfoError, MessagesTakeNamesVerbatim) {
    Prepare();
    // An empty proxy host leaves empty brackets.
    ctx.hostCredentials.sHost.clear();
    Report(16);
    EXPECT_TRUE(log.Contains(kFn + "VM [vm01] config file path is invalid on []"));

    // Printf directives and the placeholder inside a name are text, not formatting.
    ctx.sMountedName = "web%s{1}%n";
    Report(1);
    EXPECT_TRUE(log.Contains(kFn + "VM [web%s{1}%n] was not found."));
    Report(169);
    EXPECT_TRUE(log.Contains(kFn + "Error opening VM [web%s{1}%n] disk for SAN access."));

    // An empty name still goes out as an (empty) argument.
    ctx.sMountedName.clear();
    Report(23);
    EXPECT_TRUE(log.Contains(kFn + "Error opening VM [] disk"));

    const auto causes = vshost::PendingCauses(kJob);
    ASSERT_EQ(causes.size(), 4u);
    EXPECT_EQ(causes[0].eventArgs, std::vector<std::string>{"vm01"});
    EXPECT_EQ(causes[1].eventArgs, std::vector<std::string>{"web%s{1}%n"});
    EXPECT_EQ(causes[2].eventArgs,
              std::vector<std::string>{"Unable to open the disk(s) for virtual machine [web%s{1}%n] for SAN access.  "
                                       "It may be necessary to restart services on the MediaAgent."});
    EXPECT_EQ(causes[3].eventArgs, std::vector<std::string>{""});
}

TEST_F(VMInfoError, FailedJobClientInitStillRaisesTheCause) {
    // Only lines that must always appear are written for the reader.
    vshost::settings::Set("Log", "nDATAREADERVSEXT", "0");
    Prepare();
    vshost::settings::Set("Host", "sHubServerHostName", "elsewhere");

    Report(23);
    EXPECT_EQ(log.Count("JobClient initialization failed"), 1u);
    EXPECT_TRUE(log.Contains(kFn + "Error opening VM [vm01] disk"));
    Report(214);
    EXPECT_EQ(log.Count("JobClient initialization failed"), 1u);
    // An unknown code still tries the client, then raises nothing.
    Report(215);
    EXPECT_EQ(log.Count("JobClient initialization failed"), 1u);
    EXPECT_TRUE(log.Contains(kFn + "Unknown VMInfo error [215]"));

    const auto causes = vshost::PendingCauses(kJob);
    ASSERT_EQ(causes.size(), 2u);
    EXPECT_EQ(causes[0].causeId, 0x5B00001E);
    EXPECT_EQ(causes[0].eventArgs, std::vector<std::string>{"vm01"});
    EXPECT_FALSE(causes[0].clientReady);
    EXPECT_EQ(causes[1].causeId, 0x4800006A);
    ASSERT_EQ(causes[1].eventArgs.size(), 1u);
    EXPECT_EQ(causes[1].eventArgs[0].rfind("Unable to open the disk(s) for virtual machine [vm01].  VDDK", 0), 0u);
    EXPECT_FALSE(causes[1].clientReady);
}

}  // namespace
