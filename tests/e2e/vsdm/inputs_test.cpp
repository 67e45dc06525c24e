// What the data mover takes in and puts out: a resumed stream of another job, item
// orders the reader cannot serve, a job that cannot start, and stream targets that are
// the job's own inputs. Each is refused or left safe before anything is written.
#include "jobspec.h"
#include "run_support.h"

#include "vshost/changetrack.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

namespace fs = std::filesystem;
using vstest::RunResult;
using vstest::Shell;
using vstest::WriteJob;

RunResult RunJobFile(const vstest::TempHome& home, const std::string& job, const std::string& args) {
    return Shell(vstest::Vsdm() + " run " + home.sub(job) + " " + args);
}

// Temporaries a run left beside its stream.
std::vector<std::string> Partials(const std::string& folder) {
    std::vector<std::string> out;
    for (const auto& e : fs::directory_iterator(folder))
        if (e.path().filename().string().find(".partial") != std::string::npos) out.push_back(e.path().string());
    return out;
}

// What a job field cannot hold is refused at load, naming the field: a value of the
// wrong kind, a number out of its range (instance type 2^32+102 would run as 102; a
// copy id goes negative), or a text too long for the one stream record it goes into.
// Names of files are taken relative to the job file's folder.
TEST(VsdmInputs, FieldsAJobCannotHoldAreRefusedAtLoad) {
    const nlohmann::json good = {{"jobId", 7},
                                 {"appId", {3, 17}},
                                 {"mediaAgent", "ma01"},
                                 {"archiveFiles", {1207}},
                                 {"items", {{{"path", "vm"}}}}};
    nlohmann::json named = good;
    named.update({{"out", "s.bin"}, {"home", "h"}});
    const auto job = vsdm::ParseJob(named.dump(), "j", "/base");
    EXPECT_EQ(job.out, "/base/s.bin");
    EXPECT_EQ(job.home, "/base/h");

    const std::string huge(5u << 20, 'm');
    const auto json = [](const char* text) { return nlohmann::json::parse(text); };
    const std::pair<nlohmann::json, std::string> cases[] = {
        {{{"reader", "tape"}}, "\"reader\""},
        {{{"archiveFiles", nlohmann::json::array()}}, "\"archiveFiles\""},
        {{{"archiveFiles", {-4}}}, "\"archiveFiles\""},
        {{{"items", {{{"options", "x"}}}}}, "items[0]"},
        {{{"items", nlohmann::json::array()}}, "field \"items\""},
        {{{"instanceType", "102"}}, "\"instanceType\""},
        {{{"jobToken", std::string(80, 't')}}, "\"jobToken\""},
        {json(R"({"instanceType": 4294967398})"), "\"instanceType\""},
        {json(R"({"mountType": -1})"), "\"mountType\""},
        {json(R"({"snapEngineId": 4294967296})"), "\"snapEngineId\""},
        {json(R"({"open": {"copyId": -1}})"), "\"copyId\""},
        {json(R"({"open": {"archGroupId": 4294967296}})"), "\"archGroupId\""},
        {json(R"({"archiveFiles": [4294967297]})"), "\"archiveFiles\""},
        {json(R"({"items": [{"path": "vm", "filter": 2147483648}]})"), "\"filter\""},
        {json(R"({"items": [{"path": "vm", "bytes": -1}]})"), "\"bytes\""},
        {{{"mediaAgent", huge}}, "field \"mediaAgent\": is 5242880 bytes long"},
        {{{"items", {{{"path", "vm\\" + huge}}}}}, "(items[0]): field \"path\""},
        {{{"items", {{{"path", "vm"}, {"clientPath", huge}}}}}, "(items[0]): field \"clientPath\""},
    };
    for (const auto& [change, field] : cases) {
        nlohmann::json doc = good;
        doc.update(change);
        try {
            vsdm::ParseJob(doc.dump(), "j", "/base");
            ADD_FAILURE() << field;
        } catch (const std::runtime_error& e) {
            EXPECT_NE(std::string(e.what()).find(field), std::string::npos) << std::string(e.what()).substr(0, 200);
        }
    }
    nlohmann::json noAgent = good;
    noAgent.erase("mediaAgent");
    EXPECT_THROW(vsdm::ParseJob(noAgent.dump(), "j", "/base"), std::runtime_error);
    // Text that is no JSON, and a number too large for any number type, are bad input too, not a crash.
    EXPECT_THROW(vsdm::ParseJob("{\"jobId\": 7,", "j", "/base"), std::runtime_error);
    EXPECT_THROW(vsdm::ParseJob("{\"jobId\": 5e555555}", "j", "/base"), std::runtime_error);
}

// A stream resumed by a job must be that job's: another job id, another snapshot job or
// other archive files are refused before anything is recorded or written.
TEST(VsdmInputs, ResumeTakesOnlyAStreamOfThisJob) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    vssample::SampleOptions later;
    later.snapJobId = 5002;
    later.firstAfileId = 1300;
    const vssample::SampleSnapshot s2 = vssample::GenerateSample(later);
    const std::vector<std::string> vms = {s.vm("web01").biosUuid};
    WriteJob(home, "j101.json", vstest::SampleJob(home, s, 101, vms));
    ASSERT_EQ(RunJobFile(home, "j101.json", "--out " + home.sub("s101.bin")).status, 0);

    struct Case {
        int64_t jobId;
        std::vector<uint64_t> archiveFiles;
        const char* named;
    };
    const Case cases[] = {
        {102, s.afileIds, "written by job 101, this is job 102"},
        {101, s2.afileIds, "snapshot job 5001, this job's of 5002"},
        {101, {s.afileIds.front()}, "archive files"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.named);
        nlohmann::json job = vstest::SampleJob(home, s, c.jobId, vms);
        job["archiveFiles"] = c.archiveFiles;
        WriteJob(home, "other.json", job);
        const RunResult r =
            RunJobFile(home, "other.json", "--resume " + home.sub("s101.bin") + " --out " + home.sub("r.bin"));
        EXPECT_EQ(r.status, 64) << r.output;
        EXPECT_NE(r.output.find(c.named), std::string::npos) << r.output;
        EXPECT_FALSE(fs::exists(home.sub("r.bin")));
    }
    EXPECT_TRUE(vshost::changetrack::JobDisks(102).empty());
}

// The extent reader leaves a disk where one extent of it ended: a whole-disk item after
// it would send nothing and still mark the disk read. The job is refused at load.
TEST(VsdmInputs, AWholeDiskAfterOneOfItsExtentsIsRefused) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    const std::string disk = s.vm("web01").biosUuid + "\\" + s.vm("web01").disks.front().name;
    WriteJob(home, "job.json", vstest::SampleJob(home, s, 110, {disk + "\\Extent1", disk}));
    const RunResult r = RunJobFile(home, "job.json", "--out " + home.sub("s.bin"));
    EXPECT_EQ(r.status, 64) << r.output;
    EXPECT_NE(r.output.find("items[1] (" + disk + ") reads the whole disk after items[0] (" + disk + "\\Extent1)"),
              std::string::npos)
        << r.output;
    EXPECT_FALSE(fs::exists(home.sub("s.bin")));

    // The other order is served.
    WriteJob(home, "job.json", vstest::SampleJob(home, s, 111, {disk, disk + "\\Extent1"}));
    EXPECT_EQ(RunJobFile(home, "job.json", "--out " + home.sub("s.bin")).status, 0);
}

// A job that cannot start (its archive file is unknown) leaves no stream that passes
// for a backup: a stream file keeps what it held, standard output gets an incomplete one.
TEST(VsdmInputs, AJobThatCannotStartLeavesNoCompleteStream) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    nlohmann::json job = vstest::SampleJob(home, s, 120, {s.vm("web01").biosUuid});
    job["archiveFiles"] = {424242};
    WriteJob(home, "job.json", job);

    RunResult r = RunJobFile(home, "job.json", "--out " + home.sub("new.bin"));
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_NE(Shell(vstest::Vsstream() + " verify " + home.sub("new.bin")).status, 0);

    std::ofstream(home.sub("old.bin")) << "an earlier stream";
    r = RunJobFile(home, "job.json", "--out " + home.sub("old.bin"));
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_EQ(vstest::ReadAll(home.sub("old.bin")), "an earlier stream");
    EXPECT_EQ(Partials(home.path()), std::vector<std::string>{});

    r = Shell(vstest::Vsdm() + " run " + home.sub("job.json") + " --out - 2>/dev/null | " + vstest::Vsstream() +
              " verify -");
    EXPECT_NE(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("incomplete"), std::string::npos) << r.output;
}

// The stream never replaces a file the job reads or the home keeps, whatever name it
// is reached by; a stream file is replaced only once the new one is whole.
TEST(VsdmInputs, TheStreamNeverReplacesAnInput) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    WriteJob(home, "job.json", vstest::SampleJob(home, s, 130, {s.vm("web01").biosUuid}));
    fs::create_hard_link(home.sub("catalog.db"), home.sub("catalog-link"));
    fs::create_hard_link(home.sub("catalog.db"), home.sub("set.1"));
    const std::string flat = s.vm("web01").disks.front().path;

    const std::string run = vstest::Vsdm() + " run " + home.sub("job.json");
    const std::pair<std::string, std::string> targets[] = {
        {home.sub("job.json"), run + " --out " + home.sub("job.json")},
        {home.sub("catalog.db"), run + " --out " + home.sub("catalog.db")},
        {home.sub("catalog.db"), run + " --out " + home.sub("catalog-link")},
        {flat, run + " --out " + flat},
        {home.sub("catalog.db"), "{ " + run + " --out - >>" + home.sub("catalog.db") + "; }"},
        {home.sub("catalog.db"), run + " --streams 2 --out " + home.sub("set")},
    };
    for (const auto& [file, command] : targets) {
        SCOPED_TRACE(command);
        const std::string before = vstest::ReadAll(file);
        const RunResult r = Shell(command);
        EXPECT_EQ(r.status, 64) << r.output;
        EXPECT_NE(r.output.find("give --out another file"), std::string::npos) << r.output;
        EXPECT_TRUE(vstest::ReadAll(file) == before);
    }
    EXPECT_EQ(RunJobFile(home, "job.json", "--out " + home.path()).status, 64);

    std::ofstream(home.sub("s.bin")) << "an earlier stream";
    EXPECT_EQ(RunJobFile(home, "job.json", "--out " + home.sub("s.bin")).status, 0);
    EXPECT_EQ(Shell(vstest::Vsstream() + " verify " + home.sub("s.bin")).status, 0);
    EXPECT_EQ(Partials(home.path()), std::vector<std::string>{});
}

// Every fault of the command line exits 64, CLI11's own included, and says what is wrong
// where the tool knows; asking for help is no fault.
TEST(VsdmInputs, UsageErrorsExit64) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    WriteJob(home, "job.json", vstest::SampleJob(home, s, 140, {s.vm("web01").biosUuid}));
    std::ofstream(home.sub("bad.json")) << R"({"jobId": 1, "mediaAgent": "ma01", "archiveFiles": [1], "items": []})";
    const std::string job = home.sub("job.json"), out = " --out " + home.sub("s.bin");
    struct Case {
        std::string args;
        int status;
        const char* says;
    };
    const std::string streams = "--streams must be a whole number from 1 to 64";
    const Case cases[] = {
        {"", 64, ""},
        {"run", 64, ""},
        {"run " + job + " --no-such-option", 64, ""},
        {"run " + job + out + " --incremental-from soon", 64, ""},
        {"run " + job, 64, ""},                                    // no stream target
        {"run " + job + out + " --incremental-from 999", 64, ""},  // a job that recorded nothing
        {"run " + job + out + " --compress zstd:20", 64, ""},
        {"run " + job + out + " --compress gzip", 64, ""},
        {"run " + home.sub("bad.json") + out, 64, "field \"items\""},
        {"run " + job + out + " --streams 0", 64, streams.c_str()},
        {"run " + job + out + " --streams -1", 64, streams.c_str()},
        {"run " + job + out + " --streams two", 64, streams.c_str()},
        {"run " + job + out + " --streams 65", 64, streams.c_str()},
        {"run " + job + out + " --streams 1000000000000", 64, streams.c_str()},
        {"run " + job + out + " --streams ''", 64, streams.c_str()},
        {"run " + job + " --out - --streams 2", 64, "cannot go to standard output"},
        {"--help", 0, ""},
        {"run --help", 0, ""},
    };
    for (const Case& c : cases) {
        const RunResult r = Shell(vstest::Vsdm() + " " + c.args);
        EXPECT_EQ(r.status, c.status) << c.args << ": " << r.output;
        EXPECT_NE(r.output.find(c.says), std::string::npos) << c.args << ": " << r.output;
    }
    EXPECT_FALSE(fs::exists(home.sub("s.bin")));
}

// A failed item says why; a misspelt home or a folder given as the job file is named as
// such; the summary tells extents found unchanged from extents never read.
TEST(VsdmInputs, MessagesSayWhatToFix) {
    vstest::TempHome home;
    const vssample::SampleSnapshot s = vssample::GenerateSample();
    const std::string web01 = s.vm("web01").biosUuid;
    vshost::settings::Set("VDiskFaults", "web01.vmdk", "3");
    vshost::settings::Save();
    WriteJob(home, "job.json", vstest::SampleJob(home, s, 150, {web01, "nosuchvm"}));
    RunResult r = RunJobFile(home, "job.json", "--out " + home.sub("s.bin"));
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_NE(r.output.find("item nosuchvm: failed (-1): pending cause 0x5B000004 [nosuchvm]"), std::string::npos)
        << r.output;
    EXPECT_NE(r.output.find("item " + web01 + ": failed (-1): logged \"DM_VSEXT\t virtual disk read error detected"),
              std::string::npos)
        << r.output;
    EXPECT_NE(r.output.find("unchanged and not sent 0, not read "), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("not read 0"), std::string::npos) << r.output;

    r = RunJobFile(home, "job.json", "--out " + home.sub("s.bin") + " --home " + home.sub("hoem"));
    EXPECT_EQ(r.status, 64) << r.output;
    EXPECT_NE(r.output.find("the host home " + home.sub("hoem") + " does not exist"), std::string::npos) << r.output;
    EXPECT_FALSE(fs::exists(home.sub("hoem")));

    fs::create_directory(home.sub("job.d"));
    r = RunJobFile(home, "job.d", "--out " + home.sub("s.bin"));
    EXPECT_EQ(r.status, 64) << r.output;
    EXPECT_NE(r.output.find("job.d: is a folder, not a job file"), std::string::npos) << r.output;
}

}  // namespace
