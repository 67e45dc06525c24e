// Building, keeping and reading through the stream index.
#include "streamindex.h"

#include "commands.h"
#include "hostapi/fd.h"
#include "vscodec/streambytes.h"
#include "vscodec/xxh3.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vsstream {

using vshost::stream::Kind;

namespace {

constexpr char kMagic[8] = {'V', 'S', 'B', 'K', 'I', 'N', 'D', 'X'};
constexpr uint16_t kMajor = 1, kMinor = 0;
// Bounds on what a damaged or crafted index may claim before it is believed.
constexpr uint64_t kMaxIndexBytes = uint64_t{1} << 32;
constexpr uint64_t kMaxExtentSize = uint64_t{1} << 30;

const char kZeros[64 * 1024] = {};

// The key of a disk: "\vm\disk", also given as "vm/disk" or "/vm/disk".
std::string KeyOf(std::string name) {
    std::replace(name.begin(), name.end(), '/', '\\');
    return name.empty() || name.front() != '\\' ? "\\" + name : name;
}

bool ReadWhole(const std::string& path, std::string& out, std::string& why) {
    const vshost::Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        why = "no index " + path + ": " + std::strerror(errno) + " (vsstream index makes one)";
        return false;
    }
    out.clear();
    char buf[65536];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            why = "cannot read " + path + ": " + std::strerror(errno);
            return false;
        }
        if (n == 0) return true;
        out.append(buf, static_cast<size_t>(n));
        if (out.size() > kMaxIndexBytes) {
            why = path + " is too large for an index";
            return false;
        }
    }
}

// The checksum of the stream header (record 0): it covers the job id and the time the
// stream was made, so two streams never share it. 0 when it cannot be read.
uint64_t HeaderChecksum(StreamBytes& bytes) {
    char frame[vshost::stream::kFrameBytes];
    const uint64_t at = vshost::stream::kPrologueBytes;
    if (!bytes.ReadAt(frame, sizeof frame, at)) return 0;
    const uint64_t length = vshost::detail::GetLE(frame + 4, 4);
    char sum[8];
    if (!bytes.ReadAt(sum, sizeof sum, at + sizeof frame + length)) return 0;
    return vshost::detail::GetLE(sum, 8);
}

// A stream file: its descriptor read with pread, its index the file beside it.
class File final : public StreamBytes {
public:
    File(vshost::Fd owned, int fd, std::string name) : m_owned(std::move(owned)), m_fd(fd), m_name(std::move(name)) {}
    bool ReadAt(char* out, size_t length, uint64_t offset) override {
        errno = 0;
        if (vshost::PreadAll(m_fd, out, length, offset)) return true;
        m_error = errno ? "cannot read " + m_name + ": " + std::strerror(errno) : "";
        return false;
    }
    std::string ReadError() const override { return m_error; }
    bool Size(uint64_t& size, std::string& why) override {
        struct stat st {};
        if (::fstat(m_fd, &st) != 0) {
            why = "cannot read " + m_name + ": " + std::strerror(errno);
            return false;
        }
        size = static_cast<uint64_t>(st.st_size);
        return true;
    }
    int Sequential(std::string&) override { return m_fd; }
    bool IndexExists() override {
        struct stat st {};
        return ::stat(IndexPath(m_name).c_str(), &st) == 0;
    }
    bool ReadIndex(std::string& text, std::string& why) override { return ReadWhole(IndexPath(m_name), text, why); }
    bool SaveIndex(const StreamIndex& index, std::string& why) override {
        return vsstream::SaveIndex(index, IndexPath(m_name), why);
    }
    std::string IndexName() const override { return IndexPath(m_name); }

private:
    vshost::Fd m_owned;
    int m_fd;
    std::string m_name;
    std::string m_error;
};

ObjectOpener& Opener() {
    static ObjectOpener opener;
    return opener;
}

}  // namespace

void SetObjectOpener(ObjectOpener opener) {
    Opener() = std::move(opener);
}

std::unique_ptr<StreamBytes> OpenStreamBytes(const std::string& name, std::string& why) {
    if (name.rfind("s3://", 0) == 0) {
        if (Opener()) return Opener()(name, why);
        why = name + ": objects are not read here";
        return nullptr;
    }
    vshost::Fd fd(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        why = "cannot open " + name + ": " + std::strerror(errno);
        return nullptr;
    }
    const int raw = fd.get();
    return std::make_unique<File>(std::move(fd), raw, name);
}

std::unique_ptr<StreamBytes> FileBytes(int fd, const std::string& name) {
    return std::make_unique<File>(vshost::Fd(), fd, name);
}

void ExtentDigest(const char* bytes, uint64_t length, uint64_t& low, uint64_t& high) {
    const XXH128_hash_t h = XXH3_128bits(bytes, length);
    vshost::detail::AfterVectorHash();
    low = h.low64;
    high = h.high64;
}

std::string IndexPath(const std::string& stream) {
    return stream + ".idx";
}

// The extent whose records are being read, and the digest of its bytes so far.
struct IndexBuilder::Open {
    std::string disk;
    uint64_t number = 0;
    IndexedExtent extent;
    bool data = false;
    XXH3_state_t state;
};

IndexBuilder::IndexBuilder() = default;
IndexBuilder::IndexBuilder(ExtentSink sink) : m_sink(std::move(sink)) {}
IndexBuilder::~IndexBuilder() = default;

void IndexBuilder::Take(const vshost::StreamRecord& record, const EntryModel& model, bool usable) {
    switch (record.kind) {
        case Kind::FileHeader:
        case Kind::CollectionHeader:
        case Kind::FileLevelHeader:
            m_open.reset();
            if (usable && model.entry().kind == EntryKind::Extent) {
                m_open = std::make_unique<Open>();
                m_open->disk = model.entry().diskKey;
                m_open->number = model.entry().extentNumber;
                XXH3_INITSTATE(&m_open->state);
                XXH3_128bits_reset(&m_open->state);
            }
            break;
        case Kind::Data:
        case Kind::PackedData:
        case Kind::Hole: {
            if (!m_open) break;
            if (!usable) {
                m_open.reset();
                break;
            }
            IndexedExtent& e = m_open->extent;
            if (e.records++ == 0) {
                e.offset = record.offset;
                e.index = record.index;
            }
            if (record.kind == Kind::Hole) {
                for (uint64_t left = std::get<vshost::HoleRecord>(record.body).length; left > 0;) {
                    const uint64_t n = std::min<uint64_t>(left, sizeof kZeros);
                    XXH3_128bits_update(&m_open->state, kZeros, n);
                    left -= n;
                    e.length += n;
                }
            } else {
                const std::string_view bytes = std::get<vshost::DataRecord>(record.body).bytes;
                XXH3_128bits_update(&m_open->state, bytes.data(), bytes.size());
                e.length += bytes.size();
                m_open->data = true;
            }
            vshost::detail::AfterVectorHash();
            break;
        }
        case Kind::EndOfFile:
            if (m_open && usable && std::get<vshost::EndOfFileRecord>(record.body).complete) {
                const DiskGeometry* g = model.Disk(m_open->disk);
                IndexedExtent& e = m_open->extent;
                e.holes = !m_open->data;
                const XXH128_hash_t h = XXH3_128bits_digest(&m_open->state);
                vshost::detail::AfterVectorHash();
                e.digestLow = h.low64;
                e.digestHigh = h.high64;
                if (m_sink) {
                    m_sink(m_open->disk, g, m_open->number, e);
                    m_open.reset();
                    break;
                }
                IndexedDisk& d = m_index.disks[m_open->disk];
                if (g) {
                    d.size = g->size;
                    d.extentSize = g->extentSize;
                }
                d.extents[m_open->number] = e;
            }
            m_open.reset();
            break;
        default:
            break;
    }
}

StreamIndex IndexBuilder::Finish(const vshost::StreamReader& reader, int fd) {
    return Finish(reader, *FileBytes(fd, ""));
}

StreamIndex IndexBuilder::Finish(const vshost::StreamReader& reader, StreamBytes& bytes) {
    m_open.reset();
    // The bytes of whole records: a cut stream's index covers what was read whole.
    const bool cut = reader.state() != vshost::StreamReader::State::Complete;
    m_index.complete = !cut;
    m_index.streamBytes = cut ? reader.errorOffset() : reader.offset();
    char sum[8] = {};
    if (m_index.streamBytes >= 8 && bytes.ReadAt(sum, sizeof sum, m_index.streamBytes - 8))
        m_index.lastChecksum = vshost::detail::GetLE(sum, 8);
    m_index.headerChecksum = HeaderChecksum(bytes);
    StreamIndex out = std::move(m_index);
    m_index = StreamIndex{};
    return out;
}

IndexEncoder::IndexEncoder(int fd) : m_fd(fd), m_state(std::make_unique<XXH3_state_t>()) {
    XXH3_INITSTATE(m_state.get());
    XXH3_64bits_reset(m_state.get());
    Put(std::string(kMagic, sizeof kMagic));
}

void IndexEncoder::Header(const StreamIndex& index, uint32_t disks) {
    vshost::detail::PayloadBuilder b;
    b.U16(kMajor).U16(kMinor).U64(index.streamBytes).U64(index.headerChecksum).U64(index.lastChecksum);
    b.Bool(index.complete).U32(disks);
    Put(b.str());
}

void IndexEncoder::Disk(const std::string& key, uint64_t size, uint64_t extentSize, uint64_t extents) {
    vshost::detail::PayloadBuilder b;
    b.Bytes(key).U64(size).U64(extentSize).U64(extents);
    Put(b.str());
}

void IndexEncoder::Extent(uint64_t number, const IndexedExtent& e) {
    vshost::detail::PayloadBuilder b;
    b.U64(number)
        .U64(e.offset)
        .U64(e.index)
        .U32(e.records)
        .Bool(e.holes)
        .U64(e.length)
        .U64(e.digestLow)
        .U64(e.digestHigh);
    Put(b.str());
}

void IndexEncoder::Put(const std::string& bytes) {
    XXH3_64bits_update(m_state.get(), bytes.data(), bytes.size());
    vshost::detail::AfterVectorHash();
    m_buffer += bytes;
    if (m_buffer.size() >= size_t{64} << 10) Drain();
}

bool IndexEncoder::Drain() {
    size_t done = 0;
    while (!m_failed && done < m_buffer.size()) {
        const ssize_t n = ::write(m_fd, m_buffer.data() + done, m_buffer.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            m_failed = true;
            m_errno = n < 0 ? errno : EIO;
            break;
        }
        done += static_cast<size_t>(n);
    }
    m_buffer.clear();
    return !m_failed;
}

bool IndexEncoder::Finish(std::string& why) {
    char sum[8];
    vshost::detail::PutLE(sum, XXH3_64bits_digest(m_state.get()), 8);
    vshost::detail::AfterVectorHash();
    m_buffer.append(sum, sizeof sum);
    if (Drain()) return true;
    why = std::strerror(m_errno);
    return false;
}

bool WriteIndexFile(const std::string& path, const std::function<bool(IndexEncoder&, std::string&)>& fill, bool durable,
                    std::string& why) {
    // Written aside and renamed: a reader never finds half an index.
    const std::string aside = path + ".part";
    {
        const vshost::Fd fd(::open(aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (!fd.valid()) {
            why = "cannot write " + aside + ": " + std::strerror(errno);
            return false;
        }
        IndexEncoder encoder(fd.get());
        std::string what;
        bool written = fill(encoder, what) && encoder.Finish(what);
        if (written && durable && ::fsync(fd.get()) != 0) {
            what = std::strerror(errno);
            written = false;
        }
        if (!written) {
            why = "cannot write " + aside + ": " + what;
            ::unlink(aside.c_str());
            return false;
        }
    }
    if (::rename(aside.c_str(), path.c_str()) != 0) {
        why = "cannot write " + path + ": " + std::strerror(errno);
        ::unlink(aside.c_str());
        return false;
    }
    if (!durable) return true;
    const std::string folder = path.find('/') == std::string::npos ? "." : path.substr(0, path.rfind('/') + 1);
    const vshost::Fd dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.valid() || ::fsync(dir.get()) != 0) {
        why = "cannot sync the folder of " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

void EncodeIndex(const StreamIndex& index, IndexEncoder& out) {
    out.Header(index, static_cast<uint32_t>(index.disks.size()));
    for (const auto& [key, d] : index.disks) {
        out.Disk(key, d.size, d.extentSize, d.extents.size());
        for (const auto& [number, e] : d.extents) out.Extent(number, e);
    }
}

bool SaveIndex(const StreamIndex& index, const std::string& path, std::string& why) {
    return WriteIndexFile(
        path,
        [&index](IndexEncoder& out, std::string&) {
            EncodeIndex(index, out);
            return true;
        },
        false, why);
}

bool LoadIndex(const std::string& path, StreamIndex& index, std::string& why) {
    std::string text;
    return ReadWhole(path, text, why) && ParseIndex(text, path, index, why);
}

bool ParseIndex(const std::string& text, const std::string& path, StreamIndex& index, std::string& why) {
    if (text.size() > kMaxIndexBytes) {
        why = path + " is too large for an index";
        return false;
    }
    why = path + " is not a sound stream index";
    if (text.size() < sizeof kMagic + 8 || std::memcmp(text.data(), kMagic, sizeof kMagic) != 0) return false;
    const uint64_t stated = vshost::detail::GetLE(text.data() + text.size() - 8, 8);
    const uint64_t sum = XXH3_64bits(text.data(), text.size() - 8);
    vshost::detail::AfterVectorHash();
    if (stated != sum) return false;
    vshost::detail::PayloadParser p(std::string_view(text).substr(sizeof kMagic, text.size() - 8 - sizeof kMagic));
    if (p.U16() != kMajor) return false;
    p.U16();
    index = StreamIndex{};
    index.streamBytes = p.U64();
    index.headerChecksum = p.U64();
    index.lastChecksum = p.U64();
    index.complete = p.Bool();
    for (uint64_t disks = p.U32(); p.ok() && disks > 0; --disks) {
        IndexedDisk& d = index.disks[p.Text()];
        d.size = p.U64();
        d.extentSize = p.U64();
        if (d.extentSize == 0 || d.extentSize > kMaxExtentSize) return false;
        for (uint64_t n = p.U64(); p.ok() && n > 0; --n) {
            IndexedExtent& e = d.extents[p.U64()];
            e.offset = p.U64();
            e.index = p.U64();
            e.records = static_cast<uint32_t>(p.U32());
            e.holes = p.Bool();
            e.length = p.U64();
            e.digestLow = p.U64();
            e.digestHigh = p.U64();
            if (e.length > d.extentSize) return false;
        }
    }
    if (!p.ok() || !p.atEnd()) return false;
    why.clear();
    return true;
}

int RunIndex(const std::string& stream, std::ostream& out, std::ostream& err) {
    std::string why;
    const std::unique_ptr<StreamBytes> bytes = OpenStreamBytes(stream, why);
    if (!bytes) {
        err << why << "\n";
        return kExitUnreadable;
    }
    return IndexStream(*bytes, out, err);
}

int IndexStream(StreamBytes& stream, std::ostream& out, std::ostream& err) {
    std::string why;
    const int fd = stream.Sequential(why);
    if (fd < 0) {
        err << why << "\n";
        return kExitUnreadable;
    }
    vshost::StreamReader reader(fd);
    EntryModel model;
    IndexBuilder builder;
    const bool problems = !ApplyAll(reader, model, err, [&](const vshost::StreamRecord& record, bool usable) {
        builder.Take(record, model, usable);
    });
    const int code = Conclude(reader, problems, err);
    if (code == kExitUnreadable || code == kExitCorrupt) return code;
    const StreamIndex index = builder.Finish(reader, stream);
    if (!stream.SaveIndex(index, why)) {
        err << why << "\n";
        return kExitUnreadable;
    }
    uint64_t extents = 0;
    for (const auto& [key, d] : index.disks) extents += d.extents.size();
    out << "index " << stream.IndexName() << ": " << index.disks.size() << " disks, " << extents << " extents"
        << (index.complete ? "" : ", of the stream's whole records (it is incomplete)") << "\n";
    return code;
}

// One stream of a chain: its file, its index and a reader of its records.
struct ChainDisk::Stream {
    std::string name;
    std::unique_ptr<StreamBytes> bytes;
    StreamIndex index;
    std::unique_ptr<vshost::RecordSeeker> seeker;
};

ChainDisk::ChainDisk() = default;
ChainDisk::~ChainDisk() = default;

namespace {

// What a failed record read of `s` says: the store's or the file's own error when there
// was one, not that the stream ended there.
std::string Unread(const StreamBytes& bytes, const std::string& name, const std::string& why) {
    const std::string error = bytes.ReadError();
    return error.empty() ? name + ": " + why : error;
}

// The key of `disk` in `index`: the path itself, or the one disk whose name it is.
std::string FindDisk(const StreamIndex& index, const std::string& disk) {
    std::string key = KeyOf(disk);
    if (index.disks.count(key)) return key;
    std::string found;
    for (const auto& [k, d] : index.disks)
        if (k.size() > disk.size() && k.ends_with(disk) && k[k.size() - disk.size() - 1] == '\\') {
            if (!found.empty()) return {};  // more than one: the name alone does not say which
            found = k;
        }
    return found;
}

}  // namespace

bool ChainDisk::Open(const std::vector<std::string>& streams, const std::string& disk, std::string& why,
                     const std::vector<const StreamIndex*>& built) {
    for (size_t i = 0; i < streams.size(); ++i) {
        const std::string& name = streams[i];
        auto s = std::make_unique<Stream>();
        s->name = name;
        s->bytes = OpenStreamBytes(name, why);
        if (!s->bytes) return false;
        std::string text;
        if (i < built.size() && built[i])
            s->index = *built[i];
        else if (!s->bytes->ReadIndex(text, why) || !ParseIndex(text, s->bytes->IndexName(), s->index, why))
            return false;
        uint64_t size = 0;
        if (!s->bytes->Size(size, why)) return false;
        char sum[8] = {};
        const uint64_t at = s->index.streamBytes;
        if (size < at || (s->index.complete && size != at) || HeaderChecksum(*s->bytes) != s->index.headerChecksum ||
            (at >= 8 &&
             (!s->bytes->ReadAt(sum, 8, at - 8) || vshost::detail::GetLE(sum, 8) != s->index.lastChecksum))) {
            why = !s->bytes->ReadError().empty()
                      ? s->bytes->ReadError()
                      : s->bytes->IndexName() + " is not the index of " + name + " (vsstream index makes it anew)";
            return false;
        }
        StreamBytes* bytes = s->bytes.get();
        s->seeker = std::make_unique<vshost::RecordSeeker>(
            [bytes](char* out, size_t length, uint64_t offset) { return bytes->ReadAt(out, length, offset); });
        if (!s->seeker->Open(why)) {
            why = Unread(*s->bytes, name, why);
            return false;
        }
        const std::string key = FindDisk(s->index, disk);
        if (!key.empty() && (m_key.empty() || key == m_key)) {
            const IndexedDisk& d = s->index.disks.at(key);
            m_key = key;
            // The newest stream's geometry: an incremental may have resized the disk.
            m_size = d.size;
            if (m_extentSize != 0 && d.extentSize != m_extentSize) {
                why = name + ": disk " + key + " has extents of " + std::to_string(d.extentSize) + " bytes, " +
                      streams.front() + " of " + std::to_string(m_extentSize);
                return false;
            }
            m_extentSize = d.extentSize;
            for (const auto& [number, e] : d.extents) m_extents[number] = Source{m_streams.size(), &e};
        }
        m_streams.push_back(std::move(s));
    }
    if (m_key.empty()) {
        why = "no stream names one disk " + disk;
        return false;
    }
    // Extents past the newest size belong to a disk that has since shrunk.
    m_extents.erase(m_extents.lower_bound((m_size + m_extentSize - 1) / m_extentSize), m_extents.end());
    m_buffer.resize(m_extentSize);
    return true;
}

bool ChainDisk::IsHole(uint64_t offset) const {
    auto it = m_extents.find(offset / m_extentSize);
    return it == m_extents.end() || it->second.extent->holes;
}

bool ChainDisk::LoadExtent(uint64_t number, const char*& bytes, uint64_t& length, std::string& why) {
    const uint64_t start = number * m_extentSize;
    length = std::min(m_extentSize, m_size - start);
    bytes = m_buffer.data();
    if (m_loaded == number) return true;
    m_loaded = ~0ull;
    auto it = m_extents.find(number);
    if (it == m_extents.end() || it->second.extent->holes) {
        std::memset(m_buffer.data(), 0, length);
        m_loaded = number;
        return true;
    }
    Stream& s = *m_streams[it->second.stream];
    const IndexedExtent& e = *it->second.extent;
    uint64_t at = e.offset, index = e.index, pos = 0;
    vshost::StreamRecord record;
    for (uint32_t taken = 0; taken < e.records;) {
        uint64_t next = 0;
        if (!s.seeker->Read(at, index, record, next, why)) {
            why = Unread(*s.bytes, s.name, why);
            return false;
        }
        at = next;
        ++index;
        if (record.kind == Kind::Identity || record.kind == Kind::Trailer ||
            std::holds_alternative<vshost::SkippedRecord>(record.body))
            continue;  // identity records may stand anywhere
        uint64_t n = 0;
        if (record.kind == Kind::Hole) {
            n = std::get<vshost::HoleRecord>(record.body).length;
            if (n <= m_extentSize - pos) std::memset(m_buffer.data() + pos, 0, n);
        } else if (record.kind == Kind::Data || record.kind == Kind::PackedData) {
            const std::string_view data = std::get<vshost::DataRecord>(record.body).bytes;
            n = data.size();
            if (n <= m_extentSize - pos) std::memcpy(m_buffer.data() + pos, data.data(), n);
        } else {
            why = s.name + ": offset " + std::to_string(record.offset) + ": not a record of extent " +
                  std::to_string(number) + " of " + m_key;
            return false;
        }
        if (n > m_extentSize - pos) {
            why = s.name + ": offset " + std::to_string(record.offset) + ": extent " + std::to_string(number) +
                  " holds more than its size";
            return false;
        }
        pos += n;
        ++taken;
    }
    if (pos < length) std::memset(m_buffer.data() + pos, 0, length - pos);
    m_loaded = number;
    return true;
}

bool ChainDisk::Read(char* out, uint64_t length, uint64_t offset, std::string& why) {
    if (offset > m_size || length > m_size - offset) {
        why = "read past the end of the disk";
        return false;
    }
    while (length > 0) {
        const uint64_t number = offset / m_extentSize, within = offset % m_extentSize;
        const uint64_t n = std::min(length, m_extentSize - within);
        if (IsHole(offset)) {
            std::memset(out, 0, n);
        } else {
            const char* bytes = nullptr;
            uint64_t have = 0;
            if (!LoadExtent(number, bytes, have, why)) return false;
            std::memcpy(out, bytes + within, n);
        }
        out += n;
        offset += n;
        length -= n;
    }
    return true;
}

std::vector<std::string> DisksOf(const std::vector<const StreamIndex*>& chain) {
    std::vector<std::string> keys;
    for (const StreamIndex* index : chain)
        for (const auto& [key, d] : index->disks)
            if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
    return keys;
}

}  // namespace vsstream
