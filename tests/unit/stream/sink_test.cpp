// The pipeline sink: failed writes on its writer thread are reported and stick;
// interrupted and partial writes lose nothing; a vanished reader does not kill the
// process.
#include "stream_support.h"
#include "vshost/home.h"

#include <gtest/gtest.h>

#include <sys/time.h>
#include <algorithm>
#include <atomic>
#include <csignal>
#include <thread>

using namespace vstest;

TEST(StreamSink, AFullDeviceFailsEveryCallFromTheFirstFailedWrite) {
    TempHome home;
    vshost::LogCapture log;
    {  // The writer thread meets the full device behind the calls that handed the data
       // over: the failure shows at a later call, at the latest at the disk's
       // read-completed marker (which waits for every byte before it), and sticks.
        StreamFile s("/dev/full");
        SendVM(s.writer, "vm1");
        const std::string extent = Pattern(3u << 20, 1);
        ASSERT_EQ(Header(s.writer, "\\vm1\\disk0\\Extent0", extent.size(), false), 0);
        const int statuses[] = {s.writer.allocateAndSendDataBuffer(extent.data(), extent.size()),
                                s.writer.sendEOF(true, 0), s.writer.sendDiskReadCompleted("vm1", "disk0", "cid-1")};
        const auto* first = std::find_if(std::begin(statuses), std::end(statuses), [](int rc) { return rc != 0; });
        ASSERT_NE(first, std::end(statuses)) << "the marker went out although nothing could be written";
        for (const auto* rc = first; rc != std::end(statuses); ++rc) EXPECT_EQ(*rc, vsArchive::kErrPipeline);
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

// Plain, and compressed on several writer threads that pack side by side and must
// still write in order.
TEST(StreamSink, InterruptedAndPartialWritesThroughAPipeLoseNothing) {
    for (const int level : {0, 3}) {
        SCOPED_TRACE("zstd level " + std::to_string(level));
        TempHome home;
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        // Timer signals without SA_RESTART make write and read return early or fail with
        // EINTR, in whichever thread takes them (the pipeline's writer threads take none).
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
        std::fill(disk.begin() + (4u << 20) + 8192, disk.begin() + (4u << 20) + 65536, '\0');  // a zero run
        // Small records gathered into a batch bigger than the pipe holds, then payloads.
        const std::string config = Pattern(200u << 10, 3);
        {
            auto pipe = CPipelayer::OpenFd(fds[1]);
            EXPECT_TRUE(pipe->SetCompression(level));
            // A progress display polls from a thread of its own while the writer threads write.
            std::atomic<bool> done{false};
            bool backwards = false;
            std::thread poller([&] {
                for (unsigned long long last = 0; !done;) {
                    const unsigned long long now = pipe->Progress().bytesWritten;
                    backwards = backwards || now < last;
                    last = now;
                    std::this_thread::yield();
                }
            });
            vsSim sim;
            vsArchive w(nullptr, nullptr, &sim, "hub");
            EXPECT_EQ(w.init(pipe.get(), nullptr, "c"), 0);  // no ASSERT: the threads must be joined
            SendVM(w, "vm1");
            SendConfig(w, "vm1", "vm1.nvram", config);
            SendDisk(w, "vm1", "disk0", disk, 1u << 20);
            EXPECT_EQ(w.close(true), 0) << w.lastError();
            EXPECT_TRUE(pipe->Close());
            done = true;
            poller.join();
            EXPECT_FALSE(backwards);
            EXPECT_EQ(pipe->Progress().bytesWritten, pipe->BytesWritten());
        }
        close(fds[1]);
        reader.join();
        itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
        sigaction(SIGALRM, &old, nullptr);
        close(fds[0]);

        ASSERT_EQ(decoded.state, vshost::StreamReader::State::Complete) << decoded.error;
        std::string rebuilt;
        uint64_t packed = 0;
        for (const auto& d : decoded.records) {
            if (vshost::stream::HoldsData(d.record.kind)) rebuilt += d.bytes;
            if (auto* h = std::get_if<vshost::HoleRecord>(&d.record.body)) rebuilt += std::string(h->length, '\0');
            packed += d.record.kind == vshost::stream::Kind::PackedData;
        }
        EXPECT_TRUE(rebuilt == config + disk);
        EXPECT_GE(packed, level == 0 ? 1u : 6u);  // the zero run; with compression every extent of data
    }
}
