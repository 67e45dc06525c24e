// The pipeline sink: failed writes are reported and stick; interrupted and partial
// writes lose nothing; a vanished reader does not kill the process.
#include "stream_support.h"
#include "vshost/home.h"

#include <gtest/gtest.h>

#include <sys/time.h>
#include <atomic>
#include <csignal>
#include <thread>

using namespace vstest;

TEST(StreamSink, AFullDeviceFailsEveryCallFromTheFirstFailedWrite) {
    TempHome home;
    vshost::LogCapture log;
    {  // data beyond one batch reaches the device at once
        StreamFile s("/dev/full");
        SendVM(s.writer, "vm1");
        const std::string extent = Pattern(3u << 20, 1);
        ASSERT_EQ(Header(s.writer, "\\vm1\\a.vmx", extent.size(), false), 0);
        const int rc = s.writer.allocateAndSendDataBuffer(extent.data(), extent.size());
        EXPECT_TRUE(s.writer.isError(rc));
        EXPECT_EQ(rc, vsArchive::kErrPipeline);
        EXPECT_NE(s.writer.lastError().find("No space left on device"), std::string::npos) << s.writer.lastError();
        EXPECT_TRUE(s.pipe->Failed());
        EXPECT_TRUE(s.writer.isError(s.writer.sendHole(10)));
        EXPECT_TRUE(s.writer.isError(s.writer.sendEOF(true, 0)));
        EXPECT_TRUE(s.writer.isError(Header(s.writer, "\\vm1\\b", 0, false)));
        EXPECT_TRUE(s.writer.isError(s.writer.sendVMReadCompleted("vm1")));
        unsigned long got = 0;
        void* buf = nullptr;
        EXPECT_TRUE(s.writer.isError(s.writer.allocateBuffer(10, &got, &buf)));
        EXPECT_TRUE(s.writer.isError(s.writer.close(true)));
        EXPECT_FALSE(s.pipe->Finished());
        EXPECT_FALSE(s.pipe->Close());
        EXPECT_EQ(log.Count("No space left on device"), 1u);  // reported once, refused always
    }
    {  // records that fit in one batch: the failure shows at the close that flushes them
        StreamFile s("/dev/full");
        SendVM(s.writer, "vm1");
        EXPECT_TRUE(s.writer.isError(s.writer.close(true)));
        EXPECT_NE(s.writer.lastError().find("No space left on device"), std::string::npos);
        EXPECT_FALSE(s.pipe->Finished());
    }
}

TEST(StreamSink, AReaderThatGoesAwayIsAnErrorNotASignal) {
    TempHome home;
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[0]);
    struct sigaction before {};
    sigaction(SIGPIPE, nullptr, &before);
    auto pipe = CPipelayer::OpenFd(fds[1]);
    vsSim sim;
    vsArchive w(nullptr, nullptr, &sim, "hub");
    ASSERT_EQ(w.init(pipe.get(), nullptr, "c"), 0);
    SendVM(w, "vm1");
    EXPECT_TRUE(w.isError(w.close(true)));
    EXPECT_NE(w.lastError().find("Broken pipe"), std::string::npos) << w.lastError();

    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    EXPECT_FALSE(sigismember(&pending, SIGPIPE));  // the write's signal was taken back
    struct sigaction after {};
    sigaction(SIGPIPE, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before.sa_handler);  // and the process's disposition left alone
    close(fds[1]);
}

namespace {
void NoOp(int) {}
}  // namespace

TEST(StreamSink, InterruptedAndPartialWritesThroughAPipeLoseNothing) {
    TempHome home;
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    // Timer signals without SA_RESTART make write and read return early or fail with
    // EINTR, in whichever thread they land.
    struct sigaction sa {
    }, old{};
    sa.sa_handler = NoOp;
    sigaction(SIGALRM, &sa, &old);
    itimerval every{{0, 200}, {0, 200}};
    setitimer(ITIMER_REAL, &every, nullptr);

    DecodeResult decoded;
    std::thread reader([&] { decoded = DecodeFd(fds[0]); });
    std::string disk = Pattern(6u << 20, 9);
    std::fill(disk.begin() + (2u << 20), disk.begin() + (3u << 20), '\0');
    // Small records gathered into a batch bigger than the pipe holds, then a payload
    // that goes out behind it in the same write.
    const std::string config = Pattern(200u << 10, 3);
    {
        auto pipe = CPipelayer::OpenFd(fds[1]);
        vsSim sim;
        vsArchive w(nullptr, nullptr, &sim, "hub");
        EXPECT_EQ(w.init(pipe.get(), nullptr, "c"), 0);  // no ASSERT: the reader thread must be joined
        SendVM(w, "vm1");
        SendConfig(w, "vm1", "vm1.nvram", config);
        SendDisk(w, "vm1", "disk0", disk, 1u << 20);
        EXPECT_EQ(w.close(true), 0) << w.lastError();
    }
    close(fds[1]);
    reader.join();
    itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &old, nullptr);
    close(fds[0]);

    ASSERT_EQ(decoded.state, vshost::StreamReader::State::Complete) << decoded.error;
    std::string rebuilt;
    for (const auto& d : decoded.records) {
        if (d.record.kind == vshost::stream::Kind::Data) rebuilt += d.bytes;
        if (auto* h = std::get_if<vshost::HoleRecord>(&d.record.body)) rebuilt += std::string(h->length, '\0');
    }
    EXPECT_TRUE(rebuilt == config + disk);
}
