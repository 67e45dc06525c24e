// Writing streams the way the readers do, and decoding them into plain values.
#pragma once

#include "hostapi/archive.h"
#include "temp_home.h"
#include "vscodec/streamreader.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace vstest {

// A record with its data copied out of the decoder's buffer.
struct Decoded {
    vshost::StreamRecord record;
    std::string bytes;  // data and volume-header bytes
};

struct DecodeResult {
    std::vector<Decoded> records;
    vshost::StreamReader::State state = vshost::StreamReader::State::Reading;
    std::string error;
    uint64_t errorOffset = 0;
    vsStreamTotals counted;
};

inline DecodeResult DecodeFd(int fd) {
    vshost::StreamReader reader(fd);
    DecodeResult out;
    vshost::StreamRecord r;
    while (reader.Next(r)) {
        Decoded d{r, {}};
        if (auto* data = std::get_if<vshost::DataRecord>(&r.body)) d.bytes = std::string(data->bytes);
        if (auto* vol = std::get_if<vshost::VolumeHeaderRecord>(&r.body)) d.bytes = std::string(vol->data);
        out.records.push_back(std::move(d));
    }
    out.state = reader.state();
    out.error = reader.error();
    out.errorOffset = reader.errorOffset();
    out.counted = reader.counted();
    return out;
}

inline DecodeResult DecodeBytes(const std::string& bytes) {
    const int fd = memfd_create("stream", MFD_CLOEXEC);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    lseek(fd, 0, SEEK_SET);
    DecodeResult r = DecodeFd(fd);
    close(fd);
    return r;
}

// One entry of a stream: the record that opens it, then its data up to its end-of-file.
struct Entry {
    vshost::StreamRecord head;  // a file, collection or file-level header, or a folder entry
    std::string path;           // the header's path, or the file-level client path
    std::string content;        // data, holes as zeros, in stream order
    uint64_t holeBytes = 0;
    size_t largestPiece = 0;  // the largest data record
    bool ended = false, complete = false;

    template <typename R>
    const R& As() const {
        return std::get<R>(head.body);
    }
};

// A stream decoded whole: every record in order, and the entries they make.
struct StreamView {
    DecodeResult decoded;
    std::vector<Entry> entries;

    const Entry* Find(const std::string& path) const {
        for (const Entry& e : entries)
            if (e.path == path) return &e;
        return nullptr;
    }
    // Every record of one kind, in stream order (not data: its bytes live in the entries).
    template <typename R>
    std::vector<R> All() const {
        std::vector<R> out;
        for (const Decoded& d : decoded.records)
            if (auto* r = std::get_if<R>(&d.record.body)) out.push_back(*r);
        return out;
    }
    // One letter a record: Stream header, Identity, File header, coLlection header,
    // file-level header (G), diRectory entry, Data (packed or not), Hole, End of file, disk iNfo,
    // Volume header, disk read Completed, vM read completed, Trailer.
    std::string Kinds() const {
        using K = vshost::stream::Kind;
        static const std::map<K, char> letters = {{K::StreamHeader, 'S'},
                                                  {K::Identity, 'I'},
                                                  {K::FileHeader, 'F'},
                                                  {K::CollectionHeader, 'L'},
                                                  {K::FileLevelHeader, 'G'},
                                                  {K::DirectoryEntry, 'R'},
                                                  {K::Data, 'D'},
                                                  {K::PackedData, 'D'},
                                                  {K::Hole, 'H'},
                                                  {K::EndOfFile, 'E'},
                                                  {K::DiskInfo, 'N'},
                                                  {K::VolumeHeader, 'V'},
                                                  {K::DiskReadCompleted, 'C'},
                                                  {K::VMReadCompleted, 'M'},
                                                  {K::Trailer, 'T'}};
        std::string out;
        for (const Decoded& d : decoded.records) out += letters.count(d.record.kind) ? letters.at(d.record.kind) : '?';
        return out;
    }
};

inline StreamView ViewBytes(const std::string& bytes) {
    StreamView v{DecodeBytes(bytes), {}};
    for (const Decoded& d : v.decoded.records) {
        const auto& body = d.record.body;
        const auto open = [&](const std::string& path) {
            v.entries.emplace_back();
            v.entries.back().head = d.record;
            v.entries.back().path = path;
        };
        if (auto* f = std::get_if<vshost::FileHeaderRecord>(&body)) {
            open(f->path);
        } else if (auto* c = std::get_if<vshost::CollectionHeaderRecord>(&body)) {
            open(c->path);
        } else if (auto* l = std::get_if<vshost::FileLevelRecord>(&body)) {
            open(l->info.clientPath);
        } else if (v.entries.empty()) {
            continue;
        } else if (vshost::stream::HoldsData(d.record.kind)) {
            v.entries.back().content += d.bytes;
            v.entries.back().largestPiece = std::max(v.entries.back().largestPiece, d.bytes.size());
        } else if (auto* h = std::get_if<vshost::HoleRecord>(&body)) {
            v.entries.back().content.append(h->length, '\0');
            v.entries.back().holeBytes += h->length;
        } else if (auto* eof = std::get_if<vshost::EndOfFileRecord>(&body)) {
            v.entries.back().ended = true;
            v.entries.back().complete = eof->complete;
        }
    }
    return v;
}

inline StreamView ViewFile(const std::string& path) {
    return ViewBytes(ReadAll(path));
}

// A writer attached to a new stream file, as a reader's Initialize leaves it.
struct StreamFile {
    explicit StreamFile(const std::string& file) : path(file) {
        CQiError err;
        pipe = CPipelayer::OpenFile(path, err);
        EXPECT_TRUE(pipe) << err.AsString();
        InitKTlog(&log, "DM_TEST\t", "", 0);
        EXPECT_EQ(writer.init(pipe.get(), &log, "client1"), 0);
    }
    std::string Bytes() const { return ReadAll(path); }

    std::string path;
    std::unique_ptr<CPipelayer> pipe;
    KTLogObject log;
    vsSim sim;
    vsArchive writer{nullptr, nullptr, &sim, "hub1"};
};

// The extent reader's record sequences, arguments as it fills them.
inline int Header(vsArchive& w, const std::string& path, unsigned long long size, bool container,
                  unsigned extentSize = 0) {
    return w.sendFileHeader(path, size, 0, container, false, false, 0, extentSize, 0, 0, false, true, false);
}

inline void SendVM(vsArchive& w, const std::string& vm) {
    ASSERT_EQ(Header(w, "\\" + vm, 0, true), 0);
    ASSERT_EQ(w.sendEOF(true, 0), 0);
}

// A configuration file copied through lent buffers of at most 32 KiB.
inline void SendConfig(vsArchive& w, const std::string& vm, const std::string& name, const std::string& content) {
    ASSERT_EQ(w.sendDiskInfo(vm, name, "", 4, 1, 0, content.size(), 0, 1), 0);
    ASSERT_EQ(Header(w, "\\" + vm + "\\" + name, content.size(), false), 0);
    for (size_t done = 0; done < content.size();) {
        unsigned long got = 0;
        void* buf = nullptr;
        ASSERT_EQ(w.allocateBuffer(std::min<size_t>(content.size() - done, 32768), &got, &buf), 0);
        std::memcpy(buf, content.data() + done, got);
        ASSERT_EQ(w.writeDataBuffer(static_cast<const char*>(buf), got), 0);
        done += got;
    }
    ASSERT_EQ(w.sendEOF(true, 0), 0);
}

inline bool AllZero(const std::string& s) {
    return s.find_first_not_of('\0') == std::string::npos;
}

// Extents by number; an all-zero buffer goes out as a hole of its length.
inline void SendExtents(vsArchive& w, const std::string& vm, const std::string& disk,
                        const std::map<unsigned long long, std::string>& extents) {
    for (const auto& [n, buf] : extents) {
        std::string name;
        ExtentNameConverter::GetFilePath(n, name);
        ASSERT_EQ(Header(w, "\\" + vm + "\\" + disk + "\\" + name, buf.size(), false), 0);
        if (AllZero(buf))
            w.sendHole(buf.size());
        else
            w.allocateAndSendDataBuffer(buf.data(), buf.size());
        ASSERT_EQ(w.sendEOF(true, 0), 0);
    }
}

// A whole disk: description, first block, disk entry, its extents, read-completed.
inline void SendDisk(vsArchive& w, const std::string& vm, const std::string& disk, const std::string& image,
                     unsigned extentSize) {
    std::map<unsigned long long, std::string> extents;
    for (size_t at = 0, n = 0; at < image.size(); at += extentSize, ++n) extents[n] = image.substr(at, extentSize);
    ASSERT_EQ(w.sendDiskInfo(vm, disk, "extra", 3, 1, 2, image.size(), extentSize, extents.size()), 0);
    ASSERT_EQ(w.sendVolHeaderInfo(vm, disk, image.data(), std::min<size_t>(image.size(), 65536)), 0);
    ASSERT_EQ(Header(w, "\\" + vm + "\\" + disk, image.size(), true, extentSize), 0);
    ASSERT_EQ(w.sendEOF(true, 0), 0);
    SendExtents(w, vm, disk, extents);
    ASSERT_EQ(w.sendDiskReadCompleted(vm, disk, "change-1"), 0);
}

// Bytes that do not repeat within a disk, from a seed.
inline std::string Pattern(size_t size, unsigned seed) {
    std::string s(size, '\0');
    uint64_t x = seed * 0x9e3779b97f4a7c15ULL + 1;
    for (char& c : s) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        c = static_cast<char>(x | 1);  // never zero, so a data extent is never taken for a hole
    }
    return s;
}

#ifdef VS_STREAM_TOOL
struct ToolRun {
    int code;
    std::string out, err;
};

// The vsstream program through bash, so that a test may set limits first (`before`).
inline ToolRun Tool(const TempHome& home, const std::string& args, const std::string& before = "") {
    const std::string out = home.sub("tool.out"), err = home.sub("tool.err");
    const std::string line = before + "'" + VS_STREAM_TOOL + "' " + args + " >'" + out + "' 2>'" + err + "'";
    const int status = std::system(("bash -c \"" + line + "\"").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadAll(out), ReadAll(err)};
}
#endif

}  // namespace vstest
