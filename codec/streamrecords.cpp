// Payload layouts of the record kinds, in the order the writer puts the fields.
#include "streamrecords.h"

#include "vscodec/streambytes.h"

namespace vshost::detail {

using stream::Kind;

namespace {

template <typename T>
void Ids(PayloadParser& p, T& record) {
    record.jobId = p.I64();
    for (uint32_t& id : record.archiveFileIds) id = static_cast<uint32_t>(p.U32());
}

vsFileLevelInfo FileLevel(PayloadParser& p) {
    vsFileLevelInfo f;
    f.clientPath = p.Text();
    f.size = p.U64();
    f.mode = static_cast<unsigned>(p.U32());
    f.uid = static_cast<unsigned>(p.U32());
    f.gid = static_cast<unsigned>(p.U32());
    f.atimeNs = p.I64();
    f.mtimeNs = p.I64();
    f.ctimeNs = p.I64();
    return f;
}

FileHeaderRecord FileHeaderOf(PayloadParser& p) {
    FileHeaderRecord r;
    r.path = p.Text();
    r.size = p.U64();
    r.arg3 = p.I64();
    r.container = p.Bool();
    r.arg5 = p.Bool();
    r.arg6 = p.Bool();
    r.arg7 = p.I32();
    r.extentSize = static_cast<uint32_t>(p.U32());
    r.arg9 = p.I32();
    r.arg10 = p.U64();
    r.arg11 = p.Bool();
    r.arg12 = p.Bool();
    r.arg13 = p.Bool();
    return r;
}

CollectionHeaderRecord CollectionHeaderOf(PayloadParser& p) {
    CollectionHeaderRecord r;
    r.path = p.Text();
    r.size = p.U64();
    r.dataOffset = p.I64();
    r.container = p.Bool();
    r.arg5 = p.Bool();
    r.arg6 = p.I32();
    r.arg7 = static_cast<uint32_t>(p.U32());
    r.arg8 = p.I32();
    r.fileId = p.U64();
    r.arg10 = p.Bool();
    r.arg11 = p.Bool();
    r.ctimeNs = p.U64();
    r.atimeNs = p.U64();
    r.mtimeNs = p.U64();
    r.attributes = static_cast<uint32_t>(p.U32());
    r.dataEnd = p.U64();
    r.parentNode = p.U64();
    r.mode = static_cast<uint32_t>(p.U32());
    r.uid = static_cast<uint32_t>(p.U32());
    r.gid = static_cast<uint32_t>(p.U32());
    r.links = static_cast<uint32_t>(p.U32());
    return r;
}

DiskInfoRecord DiskInfoOf(PayloadParser& p, uint16_t minor) {
    DiskInfoRecord r;
    r.vmGuid = p.Text();
    r.name = p.Text();
    r.extra = p.Text();
    r.itemType = p.U64();
    r.productType = p.U64();
    r.diskType = p.U64();
    r.size = p.U64();
    r.extentSize = p.U64();
    r.extentCount = p.U64();
    if (minor >= 1) {
        r.hasBase = true;
        r.baseChangeId = p.Text();
    }
    return r;
}

TrailerRecord TrailerOf(PayloadParser& p) {
    TrailerRecord r;
    r.totals.records = p.U64();
    r.totals.entries = p.U64();
    r.totals.badEntries = p.U64();
    r.totals.directories = p.U64();
    r.totals.dataBytes = p.U64();
    r.totals.holeBytes = p.U64();
    r.offset = p.U64();
    return r;
}

RecordBody Parse(Kind kind, PayloadParser& p, std::string_view payload, uint16_t minor) {
    switch (kind) {
        case Kind::StreamHeader: {
            StreamHeaderRecord r;
            Ids(p, r);
            r.createdNs = p.I64();
            r.jobToken = p.Text();
            r.hubServer = p.Text();
            r.clientName = p.Text();
            return r;
        }
        case Kind::Identity: {
            IdentityRecord r;
            Ids(p, r);
            r.jobToken = p.Text();
            return r;
        }
        case Kind::FileHeader:
            return FileHeaderOf(p);
        case Kind::CollectionHeader:
            return CollectionHeaderOf(p);
        case Kind::FileLevelHeader:
        case Kind::DirectoryEntry:
            return FileLevelRecord{FileLevel(p)};
        case Kind::Data: {
            // The whole payload is the data; nothing to parse.
            p.Skip(payload.size());
            DataRecord r;
            r.bytes = payload;
            return r;
        }
        case Kind::Hole:
            return HoleRecord{p.U64()};
        case Kind::PackedData:
            break;  // unpacked by the decoder, which keeps the buffer it needs
        case Kind::EndOfFile: {
            EndOfFileRecord r;
            r.complete = p.Bool();
            r.arg = static_cast<uint32_t>(p.U32());
            return r;
        }
        case Kind::DiskInfo:
            return DiskInfoOf(p, minor);
        case Kind::VolumeHeader: {
            VolumeHeaderRecord r;
            r.vmGuid = p.Text();
            r.diskName = p.Text();
            r.data = p.Bytes();
            return r;
        }
        case Kind::DiskReadCompleted: {
            DiskReadCompletedRecord r;
            r.vmGuid = p.Text();
            r.diskName = p.Text();
            r.changeId = p.Text();
            return r;
        }
        case Kind::VMReadCompleted:
            return VMReadCompletedRecord{p.Text()};
        case Kind::Trailer:
            return TrailerOf(p);
    }
    return SkippedRecord{};
}

}  // namespace

bool ParseRecordBody(Kind kind, std::string_view payload, uint16_t minor, bool allowExtra, RecordBody& body,
                     std::string& why) {
    PayloadParser p(payload);
    body = Parse(kind, p, payload, minor);
    if (!p.ok()) {
        why = p.why();
        return false;
    }
    if (!p.atEnd() && !allowExtra) {
        why = "payload holds bytes past its fields";
        return false;
    }
    return true;
}

}  // namespace vshost::detail
