// Rebuilding a backup stream's content below a folder: configuration files, sparse
// disk images (extents written at their place, holes left sparse or punched), file
// collection nodes and file-level files and folders. Applying an incremental stream
// onto an earlier restore updates the disk images in place. Beside each image whose disk
// the stream completed lies "<disk>.changeid", the change id the image is at: an
// incremental applies only onto the image of its base.
#pragma once

#include "entrymodel.h"
#include "imagesink.h"
#include "safepath.h"

#include <cstdint>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <vector>

namespace vsstream {

struct RestoreCounts {
    uint64_t files = 0;
    uint64_t folders = 0;
    uint64_t images = 0;
    uint64_t extents = 0;
    uint64_t abandoned = 0;  // entries their writer closed as incomplete
    uint64_t skipped = 0;    // entries not restored (not a regular file, ...)
    uint64_t problems = 0;   // entries refused or failed
};

class Restorer {
public:
    // Problems go to `err`, one line each, with the offset of the record concerned.
    // Disks are restored in `format` (Native: as each disk was, or as the earlier
    // restore being updated holds it).
    Restorer(SafeRoot& root, std::ostream& err, bool force = false, ImageFormat format = ImageFormat::Native)
        : m_root(root), m_err(err), m_force(force), m_format(format) {}

    // One record in stream order, after `model` has taken it; `usable` is false when
    // the model refused the record (an entry's header, or an extent's data past its
    // disk's end): the entry is then not written any further.
    void Apply(const vshost::StreamRecord& record, const EntryModel& model, bool usable);
    // Closes what is open, points restored .vmx files at the disks as restored and sets
    // the modes and times of file-level folders.
    void Finish();
    const RestoreCounts& counts() const { return m_counts; }
    // A write into the restore folder failed (a full or failing target): the restore
    // cannot go on, and the caller stops reading.
    bool stopped() const { return m_stopped; }
    // A disk whose incremental this run refused: its base is not what the image is at.
    bool Refused(const std::string& disk) const { return m_refused.count(disk) > 0; }

private:
    enum class Target { None, Skip, File, Extent };
    struct Image {
        std::unique_ptr<ImageSink> sink;  // null once its disk completed
        bool fresh = false;
        uint64_t highWater = 0;  // end of the data written by this run
        ImageFormat format = ImageFormat::Raw;
        PathParts data, descriptor;  // the files it takes (descriptor: VMDK only)
        uint64_t size = 0;
    };
    struct FolderTimes {
        PathParts parts;
        vsFileLevelInfo info;
    };

    void Begin(const Entry& e, const EntryModel& model, uint64_t offset);
    Image* GetImage(const std::string& key, const EntryModel& model, uint64_t offset);
    bool EnsureFile(uint64_t offset);
    void Data(const vshost::DataRecord& data, uint64_t offset);
    void Write(const char* data, uint64_t length, uint64_t offset);
    void Hole(uint64_t length, uint64_t offset);
    void End(const Entry& e, uint64_t offset);
    void Folder(const PathParts& parts, uint64_t offset);
    void Problem(uint64_t offset, const std::string& what);
    void Stop(uint64_t offset, const std::string& what);
    void CheckBase(const vshost::DiskInfoRecord& info, const EntryModel& model, uint64_t offset);
    ImageFormat FormatOf(const PathParts& parts);
    bool OpenSink(Image& image, uint64_t size, bool first, std::string& why);
    bool Resize(Image& image, uint64_t size, uint64_t offset);
    void PointVmxAtDisks(const PathParts& vmx);

    SafeRoot& m_root;
    std::ostream& m_err;
    std::map<std::string, Image> m_images;  // by disk entry path; closed once the disk completes
    Target m_target = Target::None;
    PathParts m_parts;
    std::string m_shown;  // the entry's path, for messages
    Fd m_file;
    Image* m_image = nullptr;
    uint64_t m_pos = 0;
    bool m_fileLevel = false;
    bool m_keepInfo = false;  // the entry's mode and times are restored (file-level files, collection nodes)
    vsFileLevelInfo m_info;
    std::vector<FolderTimes> m_folderTimes;
    RestoreCounts m_counts;
    bool m_stopped = false;
    bool m_force = false;
    std::set<std::string> m_refused;  // disk entry paths
    ImageFormat m_format = ImageFormat::Native;
    // By VM folder: each disk's name in the stream and the file it was restored as, in
    // stream order; and the .vmx files this run restored.
    std::map<std::string, std::vector<std::pair<std::string, std::string>>> m_restoredDisks;
    std::vector<PathParts> m_vmx;
};

}  // namespace vsstream
