// Layout constants of the backup stream, shared by its writer and its decoder.
// docs/stream-format.md describes the format in full.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vshost::stream {

// First eight bytes of every stream.
inline constexpr char kMagic[8] = {'V', 'S', 'B', 'K', 'S', 'T', 'R', 'M'};
inline constexpr uint16_t kMajorVersion = 1;
// 1.1: disk info records end with the change id a disk is read against.
// 1.2: packed data records (zero runs left out of data, compression).
inline constexpr uint16_t kMinorVersion = 2;

inline constexpr size_t kPrologueBytes = 12;  // magic, major, minor
inline constexpr size_t kFrameBytes = 12;     // kind, flags, payload length, frame check
inline constexpr size_t kChecksumBytes = 8;

// Largest payload of one record. Bigger data goes out as several data records, so a
// decoder never needs more than this much memory for a record, whatever a stream says.
inline constexpr uint32_t kMaxPayload = 1u << 20;

// Record flag: a decoder that does not know the record's kind may skip it.
inline constexpr uint16_t kFlagSkippable = 0x0001;

enum class Kind : uint16_t {
    StreamHeader = 1,
    Identity = 2,
    FileHeader = 16,
    CollectionHeader = 17,
    FileLevelHeader = 18,
    DirectoryEntry = 19,
    Data = 32,
    Hole = 33,
    EndOfFile = 34,
    PackedData = 35,
    DiskInfo = 48,
    VolumeHeader = 49,
    DiskReadCompleted = 50,
    VMReadCompleted = 51,
    Trailer = 127,
};

// Short lower-case name of a kind ("file-header", ...), or null for an unknown one.
constexpr const char* KindName(Kind kind) {
    switch (kind) {
        case Kind::StreamHeader:
            return "stream-header";
        case Kind::Identity:
            return "identity";
        case Kind::FileHeader:
            return "file-header";
        case Kind::CollectionHeader:
            return "collection-header";
        case Kind::FileLevelHeader:
            return "file-level-header";
        case Kind::DirectoryEntry:
            return "directory-entry";
        case Kind::Data:
            return "data";
        case Kind::Hole:
            return "hole";
        case Kind::EndOfFile:
            return "end-of-file";
        case Kind::PackedData:
            return "packed-data";
        case Kind::DiskInfo:
            return "disk-info";
        case Kind::VolumeHeader:
            return "volume-header";
        case Kind::DiskReadCompleted:
            return "disk-read-completed";
        case Kind::VMReadCompleted:
            return "vm-read-completed";
        case Kind::Trailer:
            return "trailer";
    }
    return nullptr;
}

// Kinds that open an entry (closed by an end-of-file record).
constexpr bool OpensEntry(Kind kind) {
    return kind == Kind::FileHeader || kind == Kind::CollectionHeader || kind == Kind::FileLevelHeader;
}

// Kinds whose records hold an entry's data (decoded as a DataRecord).
constexpr bool HoldsData(Kind kind) {
    return kind == Kind::Data || kind == Kind::PackedData;
}

// Packed data (kind 35): zero runs are whole blocks of this size, counted from the
// record's first byte (the last block may be shorter), at least one block long; data
// records shorter than a block are never packed.
inline constexpr uint32_t kZeroRunBlock = 4096;
// How a packed data record stores the bytes outside its zero runs.
inline constexpr uint8_t kPackStored = 0;
inline constexpr uint8_t kPackZstd = 1;

// Item types of disk-info records.
inline constexpr unsigned long kItemDiskExtents = 3;
inline constexpr unsigned long kItemConfigFile = 4;
inline constexpr unsigned long kItemDiskCollection = 5;

}  // namespace vshost::stream
