// Building, keeping and reading through the stream index.
#include "streamindex.h"

#include "commands.h"
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
uint64_t HeaderChecksum(int fd) {
    char frame[vshost::stream::kFrameBytes];
    const off_t at = vshost::stream::kPrologueBytes;
    if (::pread(fd, frame, sizeof frame, at) != static_cast<ssize_t>(sizeof frame)) return 0;
    const uint64_t length = vshost::detail::GetLE(frame + 4, 4);
    char sum[8];
    if (::pread(fd, sum, sizeof sum, at + static_cast<off_t>(sizeof frame + length)) != 8) return 0;
    return vshost::detail::GetLE(sum, 8);
}

}  // namespace

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
    m_open.reset();
    // The bytes of whole records: a cut stream's index covers what was read whole.
    const bool cut = reader.state() != vshost::StreamReader::State::Complete;
    m_index.complete = !cut;
    m_index.streamBytes = cut ? reader.errorOffset() : reader.offset();
    char sum[8] = {};
    if (m_index.streamBytes >= 8 && ::pread(fd, sum, sizeof sum, static_cast<off_t>(m_index.streamBytes - 8)) == 8)
        m_index.lastChecksum = vshost::detail::GetLE(sum, 8);
    m_index.headerChecksum = HeaderChecksum(fd);
    StreamIndex out = std::move(m_index);
    m_index = StreamIndex{};
    return out;
}

bool SaveIndex(const StreamIndex& index, const std::string& path, std::string& why) {
    vshost::detail::PayloadBuilder b;
    b.U16(kMajor).U16(kMinor).U64(index.streamBytes).U64(index.headerChecksum).U64(index.lastChecksum);
    b.Bool(index.complete);
    b.U32(index.disks.size());
    for (const auto& [key, d] : index.disks) {
        b.Bytes(key).U64(d.size).U64(d.extentSize).U64(d.extents.size());
        for (const auto& [number, e] : d.extents)
            b.U64(number)
                .U64(e.offset)
                .U64(e.index)
                .U32(e.records)
                .Bool(e.holes)
                .U64(e.length)
                .U64(e.digestLow)
                .U64(e.digestHigh);
    }
    std::string text(kMagic, sizeof kMagic);
    text += b.str();
    char sum[8];
    vshost::detail::PutLE(sum, XXH3_64bits(text.data(), text.size()), 8);
    vshost::detail::AfterVectorHash();
    text.append(sum, sizeof sum);
    // Written aside and renamed: a reader never finds half an index. Private, as the
    // stream is.
    const std::string aside = path + ".part";
    {
        const vshost::Fd fd(::open(aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        size_t done = 0;
        while (fd.valid() && done < text.size()) {
            const ssize_t n = ::write(fd.get(), text.data() + done, text.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            done += static_cast<size_t>(n);
        }
        if (done < text.size()) {
            why = "cannot write " + aside + ": " + std::strerror(errno);
            ::unlink(aside.c_str());
            return false;
        }
    }
    if (::rename(aside.c_str(), path.c_str()) != 0) {
        why = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

bool LoadIndex(const std::string& path, StreamIndex& index, std::string& why) {
    std::string text;
    if (!ReadWhole(path, text, why)) return false;
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
    const vshost::Fd fd(::open(stream.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        err << "cannot open " << stream << ": " << std::strerror(errno) << "\n";
        return kExitUnreadable;
    }
    vshost::StreamReader reader(fd.get());
    EntryModel model;
    IndexBuilder builder;
    vshost::StreamRecord record;
    bool problems = false;
    while (reader.Next(record)) {
        std::string why;
        const bool usable = model.Apply(record, why);
        if (!usable) {
            err << "offset " << record.offset << ": " << why << "\n";
            problems = true;
        }
        builder.Take(record, model, usable);
    }
    const int code = Conclude(reader, problems, err);
    if (code == kExitUnreadable || code == kExitCorrupt) return code;
    const StreamIndex index = builder.Finish(reader, fd.get());
    std::string why;
    if (!SaveIndex(index, IndexPath(stream), why)) {
        err << why << "\n";
        return kExitUnreadable;
    }
    uint64_t extents = 0;
    for (const auto& [key, d] : index.disks) extents += d.extents.size();
    out << "index " << IndexPath(stream) << ": " << index.disks.size() << " disks, " << extents << " extents"
        << (index.complete ? "" : ", of the stream's whole records (it is incomplete)") << "\n";
    return code;
}

// One stream of a chain: its file, its index and a reader of its records.
struct ChainDisk::Stream {
    std::string name;
    vshost::Fd fd;
    StreamIndex index;
    std::unique_ptr<vshost::RecordSeeker> seeker;
};

ChainDisk::ChainDisk() = default;
ChainDisk::~ChainDisk() = default;

namespace {

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
        s->fd = vshost::Fd(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
        if (!s->fd.valid()) {
            why = "cannot open " + name + ": " + std::strerror(errno);
            return false;
        }
        if (i < built.size() && built[i])
            s->index = *built[i];
        else if (!LoadIndex(IndexPath(name), s->index, why))
            return false;
        struct stat st {};
        char sum[8] = {};
        const uint64_t at = s->index.streamBytes;
        if (::fstat(s->fd.get(), &st) != 0 || static_cast<uint64_t>(st.st_size) < at ||
            (s->index.complete && static_cast<uint64_t>(st.st_size) != at) ||
            HeaderChecksum(s->fd.get()) != s->index.headerChecksum ||
            (at >= 8 && (::pread(s->fd.get(), sum, 8, static_cast<off_t>(at - 8)) != 8 ||
                         vshost::detail::GetLE(sum, 8) != s->index.lastChecksum))) {
            why = IndexPath(name) + " is not the index of " + name + " (vsstream index makes it anew)";
            return false;
        }
        s->seeker = std::make_unique<vshost::RecordSeeker>(s->fd.get());
        if (!s->seeker->Open(why)) {
            why = name + ": " + why;
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
            why = s.name + ": " + why;
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
