// The S3 object store the object-storage tests write to: the one the AWS_* variables
// name, or else a throw-away single-node Ceph that scripts/s3-test-server starts for the
// life of the test program. Without either, the tests that need it are skipped, loudly.
#pragma once

#include "vsobj/s3.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace vstest {

class S3Server : public ::testing::Environment {
public:
    void SetUp() override {
        if (std::getenv("AWS_ENDPOINT_URL")) return;
        const std::string script = VS_SOURCE_DIR "/scripts/s3-test-server";
        if (!std::filesystem::exists("/usr/bin/radosgw")) return;
        char dir[] = "/tmp/vs-s3-XXXXXX";
        if (!mkdtemp(dir)) return;
        m_dir = dir;
        FILE* p = popen(("'" + script + "' start " + m_dir + " 2>&1").c_str(), "r");
        char line[512];
        while (p && fgets(line, sizeof line, p)) {
            std::string text(line);
            if (text.rfind("export ", 0) != 0) continue;
            text = text.substr(7);
            text.erase(text.find_last_not_of("\r\n") + 1);
            const size_t eq = text.find('=');
            if (eq != std::string::npos) setenv(text.substr(0, eq).c_str(), text.substr(eq + 1).c_str(), 1);
        }
        if (p) pclose(p);
    }
    void TearDown() override {
        if (m_dir.empty()) return;
        const std::string script = VS_SOURCE_DIR "/scripts/s3-test-server";
        (void)std::system(("'" + script + "' stop " + m_dir + " >/dev/null 2>&1").c_str());
    }
    static bool Available() { return std::getenv("AWS_ENDPOINT_URL") != nullptr; }

private:
    std::string m_dir;
};

// This test program's bucket, made on first use.
inline std::string Bucket() {
    static const std::string bucket = [] {
        const std::string name = "vstest-" + std::to_string(::getpid());
        vsobj::S3Client(vsobj::SettingsFromEnvironment()).CreateBucket(name);
        return name;
    }();
    return bucket;
}

}  // namespace vstest

#define VS_NEEDS_S3()                                                                                             \
    do {                                                                                                          \
        if (!vstest::S3Server::Available())                                                                       \
            GTEST_SKIP() << "NO OBJECT STORE: set AWS_ENDPOINT_URL and keys, or install radosgw (scripts/setup)"; \
    } while (0)
