// The archive writer: what a VM's calls become, refused calls, shared pipelines.
#include "stream_support.h"
#include "vshost/changetrack.h"
#include "vshost/home.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <ctime>

using vshost::stream::Kind;
using namespace vstest;

TEST(StreamWriter, RoundTripOfAVmWithEveryRecordKind) {
    TempHome home;
    StreamFile s(home.sub("vm.stream"));
    vsArchive& w = s.writer;
    w.SetArchiveFileId(40, 20, 10);
    w.SetJobId(4711);
    w.SetJobToken("token-1");

    const unsigned extentSize = 1536 * 1024;  // an extent is more than one record's worth
    std::string disk = Pattern(3 * extentSize + 1000, 1);
    std::fill(disk.begin() + extentSize, disk.begin() + 2 * extentSize, '\0');  // extent 1 is a hole
    const std::string vmx = Pattern(70000, 2);
    const long long before = static_cast<long long>(time(nullptr));

    SendVM(w, "vm1");
    SendConfig(w, "vm1", "vm1.vmx", vmx);
    SendConfig(w, "vm1", "empty.nvram", "");
    SendDisk(w, "vm1", "disk0.vmdk", disk, extentSize);
    ASSERT_EQ(w.sendVMReadCompleted("vm1"), 0);
    // A file-collection node, every argument distinct so that none can be swapped unseen.
    ASSERT_EQ(w.sendFCFileHeader("\\vm1\\disk1\\docs\\a.txt", 5, -3, false, true, -6, 7, -8, 9, true, false, 12, 13, 14,
                                 15, 16, 17, 18, 19, 20, 21),
              0);
    ASSERT_EQ(w.allocateAndSendDataBuffer("hello", 5), 0);
    ASSERT_EQ(w.sendEOF(true, 0), 0);
    vsFileLevelInfo file{"C:\\Users\\a.txt", 3, 0100640, 1000, 100, -5, 1700000000123456789LL, 42};
    ASSERT_EQ(w.sendFileLevelHeader(file), 0);
    ASSERT_EQ(w.allocateAndSendDataBuffer("abc", 3), 0);
    ASSERT_EQ(w.sendEOF(false, 7), 0);
    vsFileLevelInfo folder{"C:\\Users", 0, 040755, 1, 2, 3, 4, 5};
    ASSERT_EQ(w.sendDirectoryEntry(folder), 0);
    ASSERT_EQ(w.close(true), 0);

    const StreamView v = ViewBytes(s.Bytes());
    const DecodeResult& r = v.decoded;
    ASSERT_EQ(r.state, vshost::StreamReader::State::Complete) << r.error;
    // The VM; the vmx in three buffers; the empty file; the disk with its first block,
    // its entry and four extents (the second a hole); the disk's and the VM's
    // completion; the collection node, the file-level file and folder; the trailer.
    ASSERT_EQ(v.Kinds(), "SFENFDDDENFENVFEFDDEFHEFDDEFDECMLDEGDERT");
    const auto& h = std::get<vshost::StreamHeaderRecord>(r.records[0].record.body);
    EXPECT_EQ(h.jobId, 4711);
    EXPECT_EQ(h.jobToken, "token-1");
    EXPECT_EQ(std::vector<uint32_t>(h.archiveFileIds, h.archiveFileIds + 3), (std::vector<uint32_t>{40, 20, 10}));
    EXPECT_EQ(h.clientName, "client1");
    EXPECT_EQ(h.hubServer, "hub1");
    EXPECT_GE(h.createdNs / 1000000000, before);
    EXPECT_LE(h.createdNs / 1000000000, static_cast<long long>(time(nullptr)));

    ASSERT_EQ(v.entries.size(), 11u);
    EXPECT_EQ(v.entries[1].path, "\\vm1\\vm1.vmx");
    EXPECT_TRUE(v.entries[1].content == vmx);
    std::string rebuilt;
    for (size_t i = 4; i < 8; ++i) rebuilt += v.entries[i].content;
    EXPECT_TRUE(rebuilt == disk);
    EXPECT_EQ(v.entries[5].path, "\\vm1\\disk0.vmdk\\Extent00000000000000000001");
    const auto& diskHeader = std::get<vshost::FileHeaderRecord>(r.records[14].record.body);
    EXPECT_TRUE(diskHeader.container);
    EXPECT_TRUE(diskHeader.arg12);
    EXPECT_EQ(diskHeader.extentSize, extentSize);
    EXPECT_EQ(diskHeader.size, disk.size());
    const auto& info = std::get<vshost::DiskInfoRecord>(r.records[12].record.body);
    EXPECT_EQ(info,
              (vshost::DiskInfoRecord{"vm1", "disk0.vmdk", "extra", 3, 1, 2, disk.size(), extentSize, 4, true, ""}));
    EXPECT_EQ(r.records[13].bytes, disk.substr(0, 65536));
    const auto& done = std::get<vshost::DiskReadCompletedRecord>(r.records[30].record.body);
    EXPECT_EQ(done.changeId, "change-1");

    // clang-format off
    const vshost::CollectionHeaderRecord fc{"\\vm1\\disk1\\docs\\a.txt", 5, -3, false, true, -6, 7, -8, 9, true, false,
                                            12, 13, 14, 15, 16, 17, 18, 19, 20, 21};
    // clang-format on
    EXPECT_EQ(std::get<vshost::CollectionHeaderRecord>(r.records[32].record.body), fc);
    EXPECT_EQ(std::get<vshost::FileLevelRecord>(r.records[35].record.body).info, file);
    const auto& eof = std::get<vshost::EndOfFileRecord>(r.records[37].record.body);
    EXPECT_FALSE(eof.complete);
    EXPECT_EQ(eof.arg, 7u);
    EXPECT_EQ(std::get<vshost::FileLevelRecord>(r.records[38].record.body).info, folder);

    const auto& trailer = std::get<vshost::TrailerRecord>(r.records.back().record.body);
    const vsStreamTotals totals{39, 10, 1, 1, vmx.size() + 2 * extentSize + 1000 + 8, extentSize};
    EXPECT_EQ(trailer.totals, totals);
    EXPECT_EQ(r.counted, totals);
    EXPECT_EQ(s.pipe->Totals(), totals);
    // The hole took no room: the stream is its data, the first block and a little framing.
    EXPECT_LT(s.Bytes().size(), totals.dataBytes + 65536 + 4096);
}

TEST(StreamWriter, RefusesCallsOutOfOrderAndKeepsTheStreamSound) {
    TempHome home;
    vshost::LogCapture log;
    vsSim sim;
    vsArchive loose(nullptr, nullptr, &sim, "hub");
    EXPECT_EQ(loose.sendHole(1), vsArchive::kErrNotAttached);
    EXPECT_EQ(loose.init(nullptr, nullptr, "c"), vsArchive::kErrNotAttached);

    StreamFile s(home.sub("order.stream"));
    vsArchive& w = s.writer;
    EXPECT_EQ(w.init(s.pipe.get(), nullptr, "again"), vsArchive::kErrOrder);
    EXPECT_EQ(w.allocateAndSendDataBuffer("x", 1), vsArchive::kErrOrder);
    EXPECT_EQ(w.sendEOF(true, 0), vsArchive::kErrOrder);
    SendVM(w, "vm1");
    ASSERT_EQ(Header(w, "\\vm1\\disk", 100, true, 10), 0);
    EXPECT_EQ(w.sendHole(10), vsArchive::kErrOrder);  // a container holds no data
    EXPECT_TRUE(w.isError(w.allocateAndSendDataBuffer("x", 1)));
    EXPECT_NE(w.lastError().find("container entry [\\vm1\\disk]"), std::string::npos) << w.lastError();
    ASSERT_EQ(w.sendEOF(true, 0), 0);
    ASSERT_EQ(Header(w, "\\vm1\\a.vmx", 4, false), 0);
    ASSERT_EQ(w.allocateAndSendDataBuffer("ab", 2), 0);
    // a.vmx is left without its end-of-file (its read failed): the next header ends it
    // as incomplete, and the job goes on.
    ASSERT_EQ(Header(w, "\\vm1\\b.vmx", 4, false), 0);
    EXPECT_EQ(w.sendVMReadCompleted("vm1"), vsArchive::kErrOrder);
    EXPECT_EQ(w.writeDataBuffer("abcd", 4), vsArchive::kErrOrder);  // nothing lent
    unsigned long got = 0;
    void* buf = nullptr;
    ASSERT_EQ(w.allocateBuffer(1u << 30, &got, &buf), 0);
    EXPECT_EQ(got, 1ul << 20);  // one record's worth at most
    unsigned long got2 = 0;
    void* buf2 = nullptr;
    EXPECT_EQ(w.allocateBuffer(4, &got2, &buf2), vsArchive::kErrOrder);
    w.freeBuffer();
    ASSERT_EQ(w.allocateBuffer(4, &got, &buf), 0);
    std::memcpy(buf, "abcd", 4);
    EXPECT_EQ(w.writeDataBuffer(static_cast<const char*>(buf), 5), vsArchive::kErrArgument);  // beyond the loan
    ASSERT_EQ(w.allocateBuffer(4, &got, &buf), 0);
    std::memcpy(buf, "abcd", 4);
    ASSERT_EQ(w.writeDataBuffer(static_cast<const char*>(buf), 4), 0);
    ASSERT_EQ(w.sendEOF(true, 0), 0);
    EXPECT_EQ(w.sendFileHeader(std::string(2u << 20, 'p'), 0, 0, false, false, false, 0, 0, 0, 0, false, true, false),
              vsArchive::kErrArgument);
    EXPECT_EQ(w.sendEOF(true, 0), vsArchive::kErrOrder);  // the refused header opened nothing
    ASSERT_EQ(w.close(true), 0);
    EXPECT_EQ(w.sendVMReadCompleted("vm1"), vsArchive::kErrNotAttached);
    EXPECT_TRUE(log.Contains("vsArchive: data with no entry open"));
    EXPECT_TRUE(log.Contains("DM_TEST\t vsArchive: entry [\\vm1\\a.vmx] was left open; ended as incomplete"));

    const DecodeResult r = DecodeBytes(s.Bytes());
    ASSERT_EQ(r.state, vshost::StreamReader::State::Complete) << r.error;
    EXPECT_EQ(r.counted.entries, 4u);
    EXPECT_EQ(r.counted.badEntries, 1u);
    EXPECT_EQ(r.counted.dataBytes, 6u);
    EXPECT_EQ(r.counted.holeBytes, 0u);
}

TEST(StreamWriter, OnlyACleanCloseByTheLastWriterEndsTheStream) {
    TempHome home;
    {  // two writers on one pipeline, as the file-level reader has them
        StreamFile s(home.sub("shared.stream"));
        vsSim sim;
        vsArchive second(nullptr, nullptr, &sim, "other-hub");
        ASSERT_EQ(second.init(s.pipe.get(), nullptr, "other-client"), 0);
        SendVM(s.writer, "vm1");
        s.pipe->SetJobId(99);  // an identity change once the header is out
        s.pipe->SetArchiveFileId(7);
        SendVM(second, "vm2");
        ASSERT_EQ(s.writer.close(true), 0);
        EXPECT_FALSE(s.pipe->Finished());
        SendVM(second, "vm3");
        ASSERT_EQ(second.close(true), 0);
        EXPECT_TRUE(s.pipe->Finished());
        EXPECT_EQ(second.close(true), 0);  // a second close does nothing

        const DecodeResult r = DecodeBytes(s.Bytes());
        ASSERT_EQ(r.state, vshost::StreamReader::State::Complete) << r.error;
        ASSERT_EQ(r.records[3].record.kind, Kind::Identity);
        const auto& id = std::get<vshost::IdentityRecord>(r.records[3].record.body);
        EXPECT_EQ(id.jobId, 99);
        EXPECT_EQ(id.archiveFileIds[2], 7u);
        EXPECT_EQ(std::get<vshost::StreamHeaderRecord>(r.records[0].record.body).clientName, "client1");
        EXPECT_EQ(r.counted.entries, 3u);
    }
    {  // an entry left open by the last item: ended as incomplete, and the stream is whole
        StreamFile s(home.sub("open.stream"));
        ASSERT_EQ(Header(s.writer, "\\vm1\\a.vmx", 4, false), 0);
        EXPECT_EQ(s.writer.close(true), 0);
        const DecodeResult r = DecodeBytes(s.Bytes());
        EXPECT_EQ(r.state, vshost::StreamReader::State::Complete);
        EXPECT_EQ(r.counted.badEntries, 1u);
    }
    {  // abandoned by the pipeline's owner, or by one of two writers
        StreamFile s(home.sub("stopped.stream"));
        SendVM(s.writer, "vm1");
        s.pipe->Abandon();
        EXPECT_TRUE(s.writer.isError(s.writer.close(true)));
        EXPECT_EQ(DecodeBytes(s.Bytes()).state, vshost::StreamReader::State::Incomplete);

        StreamFile t(home.sub("half.stream"));
        vsSim sim;
        auto second = std::make_unique<vsArchive>(nullptr, nullptr, &sim, "hub");
        ASSERT_EQ(second->init(t.pipe.get(), nullptr, "c"), 0);
        SendVM(t.writer, "vm1");
        second.reset();  // destroyed without close: abandons
        EXPECT_TRUE(t.writer.isError(t.writer.close(true)));
        EXPECT_EQ(DecodeBytes(t.Bytes()).state, vshost::StreamReader::State::Incomplete);
    }
    {  // nothing written but a clean close: a valid empty stream
        StreamFile s(home.sub("empty.stream"));
        ASSERT_EQ(s.writer.close(true), 0);
        const DecodeResult r = DecodeBytes(s.Bytes());
        EXPECT_EQ(r.state, vshost::StreamReader::State::Complete) << r.error;
        EXPECT_EQ(r.records.size(), 2u);
    }
}

// The catalog counts a disk as read only once its marker is in the target, not merely
// in the writer's batch: a job killed right after must not leave the catalog claiming a
// disk that its stream lacks.
TEST(StreamWriter, ADiskIsRecordedAsReadOnlyOnceItsMarkerIsWritten) {
    TempHome home;
    {
        StreamFile s(home.sub("vm.stream"));
        s.writer.SetJobId(77);
        SendVM(s.writer, "vm1");
        SendDisk(s.writer, "vm1", "disk0.vmdk", Pattern(4096, 3), 1024);
        const DecodeResult onDisk = DecodeBytes(s.Bytes());  // the writer is still open
        ASSERT_FALSE(onDisk.records.empty());
        EXPECT_EQ(onDisk.records.back().record.kind, Kind::DiskReadCompleted);
        // Completed disks reach the catalog in batches, at the latest when the writer closes.
        ASSERT_EQ(s.writer.close(true), 0);
        const auto recorded = vshost::changetrack::JobDisks(77);
        ASSERT_EQ(recorded.size(), 1u);
        EXPECT_EQ(recorded[0].diskName, "disk0.vmdk");
        EXPECT_EQ(recorded[0].changeId, "change-1");
    }
    // A catalog that cannot take the disk at the close: the log says it is lost to the
    // catalog, and why, not that the stream went away.
    {
        const auto sql = [&](const char* statement) {
            sqlite3* db = nullptr;
            ASSERT_EQ(sqlite3_open(home.sub("catalog.db").c_str(), &db), SQLITE_OK);
            EXPECT_EQ(sqlite3_exec(db, statement, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
            sqlite3_close(db);
        };
        vshost::LogCapture log;
        StreamFile s(home.sub("vm2.stream"));
        s.writer.SetJobId(79);
        SendVM(s.writer, "vm1");
        SendDisk(s.writer, "vm1", "disk0.vmdk", Pattern(4096, 3), 1024);
        sql("ALTER TABLE job_disks RENAME TO job_disks_away");
        EXPECT_EQ(s.writer.close(true), 0);
        sql("ALTER TABLE job_disks_away RENAME TO job_disks");
        EXPECT_TRUE(vshost::changetrack::JobDisks(79).empty());
        EXPECT_EQ(log.Count("Cannot record [1] completed disk(s) and their digests: "), 1u) << log.Last();
        EXPECT_EQ(log.Count("an incremental from this job reads them whole"), 1u) << log.Last();
        EXPECT_FALSE(log.Contains("stream holding them is gone")) << log.Last();
    }
    // A target that takes nothing: the marker never lands, and nothing is recorded.
    CQiError err;
    auto full = CPipelayer::OpenFile("/dev/full", err);
    ASSERT_TRUE(full) << err.AsString();
    KTLogObject log;
    InitKTlog(&log, "DM_TEST\t", "", 0);
    vsSim sim;
    vsArchive writer{nullptr, nullptr, &sim, "hub1"};
    ASSERT_EQ(writer.init(full.get(), &log, "client1"), 0);
    writer.SetJobId(78);
    ASSERT_EQ(Header(writer, "\\vm1", 0, true), 0);
    ASSERT_EQ(writer.sendEOF(true, 0), 0);
    EXPECT_NE(writer.sendDiskReadCompleted("vm1", "disk0.vmdk", "change-2"), 0);
    EXPECT_NE(writer.close(true), 0);
    EXPECT_TRUE(vshost::changetrack::JobDisks(78).empty());
}

// Every record, the stream header and identity records included, passes the payload
// limit: one over it is refused with the reason and no byte of it is written.
TEST(StreamWriter, NoRecordOverThePayloadLimitIsEverWritten) {
    TempHome home;
    const std::string huge(5u << 20, 'm');
    {  // a host name too long for the stream header: nothing at all goes out
        CQiError err;
        auto pipe = CPipelayer::OpenFile(home.sub("header.stream"), err);
        vsSim sim;
        vsArchive big(nullptr, nullptr, &sim, huge);
        ASSERT_EQ(big.init(pipe.get(), nullptr, "client1"), vsArchive::kOk);
        EXPECT_EQ(Header(big, "\\vm1", 0, true), vsArchive::kErrArgument);
        EXPECT_NE(big.lastError().find("stream-header record of"), std::string::npos) << big.lastError();
        big.close(false);
        pipe.reset();
        EXPECT_EQ(ReadAll(home.sub("header.stream")).size(), 0u);
    }
    {  // a job token too long for an identity record: refused, the stream stays sound
        StreamFile s(home.sub("identity.stream"));
        SendVM(s.writer, "vm1");
        s.writer.SetJobToken(huge.c_str());
        EXPECT_EQ(Header(s.writer, "\\vm2", 0, true), vsArchive::kErrArgument);
        EXPECT_NE(s.writer.lastError().find("identity record of"), std::string::npos) << s.writer.lastError();
        s.writer.SetJobToken("short");
        SendVM(s.writer, "vm2");
        ASSERT_EQ(s.writer.close(true), 0);
        const DecodeResult r = DecodeBytes(s.Bytes());
        EXPECT_EQ(r.state, vshost::StreamReader::State::Complete) << r.error;
        EXPECT_EQ(r.counted.entries, 2u);
    }
}
