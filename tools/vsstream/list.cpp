// vsstream list: one line per entry and per record between entries, then the disks.
#include "commands.h"
#include "entrymodel.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>

namespace vsstream {
namespace {

using vshost::stream::Kind;

std::string Utc(int64_t ns) {
    const time_t sec = static_cast<time_t>(ns / 1000000000);
    tm t{};
    gmtime_r(&sec, &t);
    char buf[32];
    (void)std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &t);
    return buf;
}

// kind, size as the header states it, data bytes, hole bytes, name
std::string Row(const char* kind, uint64_t size, uint64_t data, uint64_t holes, const std::string& name) {
    char buf[96];
    (void)std::snprintf(buf, sizeof buf, "%-12s %16" PRIu64 " %16" PRIu64 " %16" PRIu64 "  ", kind, size, data, holes);
    return buf + name;
}

void EntryLine(const Entry& e, std::ostream& out) {
    std::string name = e.path;
    if (!e.target.empty() && e.target != e.path) name += "  (restored as " + e.target + ")";
    if (!e.closed)
        name += "  (no end-of-file)";
    else if (!e.complete)
        name += "  (closed as incomplete)";
    const char* kind = EntryKindName(e.kind);
    if (e.kind == EntryKind::CollectionNode)
        kind = e.container ? "collection" : IsFolderNode(e) ? "node-folder" : "node";
    out << Row(kind, e.size, e.dataBytes, e.holeBytes, name) << "\n";
}

void OtherLine(const vshost::StreamRecord& r, std::ostream& out) {
    if (auto* h = std::get_if<vshost::StreamHeaderRecord>(&r.body)) {
        out << "stream " << h->majorVersion << "." << h->minorVersion << "  job " << h->jobId << "  token ["
            << h->jobToken << "]  archive files " << h->archiveFileIds[0] << "," << h->archiveFileIds[1] << ","
            << h->archiveFileIds[2] << "  client [" << h->clientName << "]  hub [" << h->hubServer << "]  created "
            << Utc(h->createdNs) << "\n";
        char head[96];
        (void)std::snprintf(head, sizeof head, "%-12s %16s %16s %16s  %s\n", "KIND", "SIZE", "DATA", "HOLES", "NAME");
        out << head;
    } else if (auto* i = std::get_if<vshost::IdentityRecord>(&r.body)) {
        out << "identity     job " << i->jobId << "  token [" << i->jobToken << "]  archive files "
            << i->archiveFileIds[0] << "," << i->archiveFileIds[1] << "," << i->archiveFileIds[2] << "\n";
    } else if (auto* d = std::get_if<vshost::DiskInfoRecord>(&r.body)) {
        out << Row("disk-info", d->size, 0, 0, "\\" + d->vmGuid + "\\" + d->name) << "  item " << d->itemType
            << ", extent size " << d->extentSize << ", extents " << d->extentCount << "\n";
    } else if (auto* v = std::get_if<vshost::VolumeHeaderRecord>(&r.body)) {
        out << Row("vol-header", v->data.size(), v->data.size(), 0, "\\" + v->vmGuid + "\\" + v->diskName) << "\n";
    } else if (auto* c = std::get_if<vshost::DiskReadCompletedRecord>(&r.body)) {
        out << Row("disk-done", 0, 0, 0, "\\" + c->vmGuid + "\\" + c->diskName) << "  change id [" << c->changeId
            << "]\n";
    } else if (auto* m = std::get_if<vshost::VMReadCompletedRecord>(&r.body)) {
        out << Row("vm-done", 0, 0, 0, "\\" + m->vmGuid) << "\n";
    } else if (r.kind == Kind::DirectoryEntry) {
        const auto& f = std::get<vshost::FileLevelRecord>(r.body).info;
        char mode[16];
        (void)std::snprintf(mode, sizeof mode, "%06o", f.mode);
        out << Row("folder", f.size, 0, 0, f.clientPath) << "  mode " << mode << "\n";
    } else if (auto* t = std::get_if<vshost::TrailerRecord>(&r.body)) {
        out << "trailer      " << t->totals.records << " records, " << t->totals.entries << " entries ("
            << t->totals.badEntries << " closed as incomplete), " << t->totals.dataBytes << " data bytes, "
            << t->totals.holeBytes << " hole bytes\n";
    }
}

}  // namespace

int RunList(int fd, std::ostream& out, std::ostream& err) {
    vshost::StreamReader reader(fd);
    EntryModel model;
    const bool problems = !ApplyAll(reader, model, err, [&](const vshost::StreamRecord& record, bool) {
        if (record.kind == Kind::EndOfFile)
            EntryLine(model.entry(), out);
        else if (!vshost::stream::OpensEntry(record.kind))
            OtherLine(record, out);
    });
    if (model.entryOpen()) EntryLine(model.entry(), out);
    for (const auto& [key, g] : model.disks()) {
        if (!g.hasEntry && g.extents == 0) continue;
        if (g.collection)
            out << "disk " << key << ": file collection of " << g.size << " bytes";
        else
            out << "disk " << key << ": size " << g.size << ", extent size " << g.extentSize << ", " << g.extents
                << " extents sent, " << g.holeExtents << " of them holes";
        if (g.hasBase && !g.base.empty()) out << ", read against change id [" << g.base << "]";
        if (!g.target.empty() && g.target != key) out << ", restored as " << g.target;
        if (!g.hasEntry)
            out << "\n";
        else if (g.readCompleted && !g.shortRead)
            out << ", read completed\n";
        else
            out << ", INCOMPLETE: " << EntryModel::IncompleteWhy(g) << "\n";
    }
    return Conclude(reader, problems, err);
}

}  // namespace vsstream
