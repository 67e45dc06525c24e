// A job that carries a server password, from the stored form a user makes to the
// restored disks: the password is never written in plain (the home is swept for it
// when the test ends), and what the host keeps is its owner's alone.
#include "run_support.h"

#include "vshost/catalog.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

namespace fs = std::filesystem;

unsigned Mode(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 07777;
}

TEST(VsdmSecurity, AJobsPasswordIsNeverWrittenInPlainAndTheHomeIsTheOwnersAlone) {
    vstest::TempHome home;
    const std::string plain = vstest::Secret("Vc-P@ss w0rd;4711");
    vssample::SampleOptions options;
    options.instanceType = 100;  // an instance type that connects to its server with the job's credentials
    const vssample::SampleSnapshot s = vssample::GenerateSample(options);
    SHostCredentials stored;
    stored.sHost = "esx1";
    stored.sServer = "vc1";
    stored.sUser = "DOM\\backup";
    stored.sPassword = plain;
    vshost::Catalog().AddCredential(s.appId1, s.appId2, stored);

    // The stored form, as the user makes it for the job file.
    const auto storedFormOf = [&](const std::string& password) {
        const vstest::RunResult r =
            vstest::Shell("printf '%s' '" + password + "' | '" VSHOST_PASSWD_TOOL "' --home " + home.path());
        EXPECT_EQ(r.status, 0) << r.output;
        EXPECT_EQ(r.output.find(password), std::string::npos);
        return r.output.substr(0, r.output.find('\n'));
    };
    const std::string storedForm = storedFormOf(plain);
    ASSERT_FALSE(storedForm.empty());

    nlohmann::json job = vstest::SampleJob(home, s, 81, {s.vm("web01").biosUuid, s.vm("db01").biosUuid});
    job["instanceType"] = 100;
    job["taskOptions"] = {{"77", "vc1"}, {"82", "esx1"}, {"75", "DOM\\backup"}, {"76", storedForm}};
    std::ofstream(home.sub("job.json")) << job.dump();
    const vstest::RunResult run =
        vstest::Shell(vstest::Vsdm() + " run " + home.sub("job.json") + " --out " + home.sub("s.bin"));
    ASSERT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(run.output.find(plain), std::string::npos);
    const std::string log = vstest::ReadAll(home.sub("Log Files/vsreader.log"));
    EXPECT_NE(log.find("password length [" + std::to_string(plain.size()) + "]"), std::string::npos)
        << "the library was given the password";
    const vstest::RunResult restore =
        vstest::Shell(vstest::Vsstream() + " restore " + home.sub("s.bin") + " --to " + home.sub("restore"));
    ASSERT_EQ(restore.status, 0) << restore.output;

    // The wrong password is refused: the credentials are really checked on this path.
    job["taskOptions"]["76"] = storedFormOf("wrong password");
    std::ofstream(home.sub("wrong.json")) << job.dump();
    EXPECT_EQ(vstest::Shell(vstest::Vsdm() + " run " + home.sub("wrong.json") + " --out " + home.sub("w.bin")).status,
              2);

    EXPECT_EQ(Mode(home.sub("s.bin")), 0600u);
    vshost::settings::Set("Log", "nVMINFO", "2");
    vshost::settings::Save();
    EXPECT_EQ(Mode(home.sub("settings.ini")), 0600u);

    // A home the host makes itself is closed to everyone else, whatever the umask.
    const std::string fresh = home.sub("fresh");
    const mode_t oldMask = umask(0);
    const vstest::RunResult made = vstest::Shell("printf 'x' | '" VSHOST_PASSWD_TOOL "' --home " + fresh);
    umask(oldMask);
    ASSERT_EQ(made.status, 0) << made.output;
    EXPECT_EQ(Mode(fresh), 0700u);
    EXPECT_EQ(Mode(fresh + "/keys"), 0700u);
    EXPECT_EQ(Mode(fresh + "/keys/secret.key"), 0600u);
    EXPECT_EQ(Mode(fresh + "/catalog.db"), 0600u);
    EXPECT_EQ(Mode(fresh + "/Log Files"), 0700u);
    EXPECT_EQ(Mode(fresh + "/Log Files/vsreader.log"), 0600u);
    EXPECT_EQ(Mode(fresh + "/JobResults"), 0700u);
    EXPECT_EQ(Mode(fresh + "/IndexCache"), 0700u);
}

}  // namespace
