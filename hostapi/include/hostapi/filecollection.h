// The host's file collection: a disk of a VM read as the files and folders of a guest
// file system, node by node, each node's data in pieces lent by the archive writer.
#pragma once

#include "hostapi/IVMInfo.h"
#include "hostapi/fileutil.h"
#include "hostapi/records.h"
#include "hostapi/types.h"
#include "hostapi/vdisk.h"

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <string>

class vsArchive;

// Host error code of a "next node" past the last node of a collection.
constexpr int VS_ERROR_END_OF_COLLECTION = 1;
// Host error code of a node whose file changed between listing and reading (it shrank,
// or another file took its name).
constexpr int VS_ERROR_NODE_CHANGED = 2;

// Disk type of a disk held as a folder of files (as the VM-info library reports it).
constexpr DiskType_t VS_DISK_TYPE_FOLDER = 3;

// Attribute bits of a node.
constexpr uint32_t FC_ATTRIBUTE_READONLY = 0x01;   // no write permission for anyone
constexpr uint32_t FC_ATTRIBUTE_DIRECTORY = 0x10;  // a folder: no data, may hold nodes
constexpr uint32_t FC_ATTRIBUTE_NORMAL = 0x80;     // a regular file

// One node of a file collection, filled by GetNextNode. Times are nanoseconds since
// 1970-01-01 UTC. "Offsets" count the data of the collection's files in node order, so
// that a node's data lies at [llDataOffset, ullDataEnd) of the whole collection.
struct SFileNode {
    std::string sName;                     // relative to the disk, backslash form: "srv\share\a.txt"
    unsigned long long ullNodeNumber = 0;  // 1, 2, ... in collection order
    long long llSize = 0;                  // bytes of data; 0 for a folder
    unsigned long long ullAllocated = 0;   // bytes the file occupies where it is stored
    long long llDataOffset = 0;            // data of all the nodes before this one
    unsigned long long ullChangeTime = 0;  // status change
    unsigned long long ullAccessTime = 0;
    unsigned long long ullModifyTime = 0;
    uint32_t nAttributes = 0;                // FC_ATTRIBUTE_* bits
    unsigned long long ullParentNumber = 0;  // node number of the folder holding it; 0 at the top
    unsigned long long ullDataEnd = 0;       // llDataOffset + llSize
    uint32_t nMode = 0;                      // POSIX type and permission bits
    uint32_t nUid = 0;
    uint32_t nGid = 0;
    uint32_t nLinks = 0;
    unsigned long long ullFileId = 0;  // inode number
    unsigned long long ullDevice = 0;
    unsigned long long ullReserved = 0;
    std::string sShortName;  // not kept by this host
    uint32_t nReserved1 = 0;
    uint32_t nReserved2 = 0;
    uint32_t nReserved3 = 0;
    std::string sReserved;

    SFileNode() = default;
};

// A collection is made for one disk, told which VM and disk it reads, opened against
// the VM's mount, then walked with GetNextNode; between two nodes the current node's
// data is moved with GetBuffer, ReadNode and SendBuffer. Nodes come in a stable order:
// a folder before what it holds, the entries of a folder by name (byte order). Only
// files and folders are nodes; links and special files are logged and passed over, and
// links are never followed.
//
// The virtual operations are in the host's slot order, which callers compiled against
// another build rely on: never reorder them, and add new ones after the last.
class VS_HOST_API CFileCollection {
public:
    // Null for a disk type that the host cannot read as a collection.
    static boost::shared_ptr<CFileCollection> createFileCollectionInstance(DiskType_t diskType);

    virtual ~CFileCollection();  // slots 1 and 2 (complete and deleting)

    // Slot 3: the VM-info object that describes the mounted VM, and the VM's names.
    virtual void SetVMInfo(IVMInfo* vmInfo, const std::string& vmName, const std::string& vmGuid) = 0;
    // Slot 4: the disk, by the name the VM-info library gives it.
    virtual void SetVMDiskGuid(const std::string& diskGuid) = 0;
    // Slot 5: the writer that lends buffers and sends data (GetBuffer, SendBuffer).
    virtual void SetArchive(vsArchive* archive) = 0;
    // Slot 6: finds the disk's folder through the VM-info object and starts the walk.
    virtual CQiError Open(MountCtx& ctx) = 0;
    // Slot 7
    virtual CQiError Close() = 0;
    // Slot 8: the next node; VS_ERROR_END_OF_COLLECTION (FXErrorUtil::IsVS(error, 1))
    // after the last one, and again on every later call.
    virtual CQiError GetNextNode(SFileNode& node) = 0;
    // Slot 9: starts the walk over from the first node.
    virtual CQiError Rewind() = 0;
    // Slot 10: up to `length` bytes of the current node's data; `read` is 0 once the
    // node's size is delivered (and for a folder). A file that became shorter than its
    // node states fails with VS_ERROR_NODE_CHANGED; bytes beyond that size are not read.
    virtual CQiError ReadNode(SFileNode& node, char* buffer, unsigned long length, unsigned long& read) = 0;
    // Slots 11 to 16: what the collection reads and how far it got.
    virtual DiskType_t GetDiskType() const = 0;
    virtual const std::string& GetVMDiskGuid() const = 0;
    virtual const std::string& GetFolder() const = 0;  // empty until opened
    virtual unsigned long long GetNodesReturned() const = 0;
    virtual unsigned long long GetBytesRead() const = 0;
    virtual bool IsOpen() const = 0;
    // Slot 17: a buffer of up to `length` bytes for the node's data, lent by the
    // archive writer; a vsArchive status.
    virtual int GetBuffer(SFileNode& node, unsigned long length, char** buffer, unsigned long* got) = 0;
    // Slot 18: sends the first `length` bytes of the lent buffer as the node's data; a
    // vsArchive status.
    virtual int SendBuffer(SFileNode& node, char* buffer, unsigned long length) = 0;

protected:
    CFileCollection() = default;
    CFileCollection(const CFileCollection&) = delete;
    CFileCollection& operator=(const CFileCollection&) = delete;
};
