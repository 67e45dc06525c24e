// The host's virtual-disk reader: a disk image read as numbered fixed-size extents,
// allocated extents only, with change tracking against an earlier read.
#pragma once

#include "hostapi/IVMInfo.h"
#include "hostapi/fileutil.h"
#include "hostapi/records.h"
#include "hostapi/types.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

// A growable buffer: capacity (SizeInBytes) and the number of bytes of data (Size).
template <typename T>
class CAutoMemory {
public:
    T* Ptr() { return m_data.data(); }
    const T* Ptr() const { return m_data.data(); }
    size_t Size() const { return m_size; }
    size_t SizeInBytes() const { return m_data.size() * sizeof(T); }
    T& operator[](size_t i) { return m_data[i]; }
    // Makes room for `count` elements (never shrinks, so a reused buffer stays put).
    void Reserve(size_t count) {
        if (count > m_data.size()) m_data.resize(count);
    }
    void SetSize(size_t count) { m_size = count; }

private:
    std::vector<T> m_data;
    size_t m_size = 0;
};

typedef int ProductType_t;
typedef int DiskType_t;

// Host error code of a read past the last extent of a disk.
constexpr int VS_ERROR_END_OF_DISK = 10002;

class VS_HOST_API CArchiveVirtualDiskFile {
public:
    struct Context_t {
        unsigned long long position = 0;    // number of the last extent read
        unsigned long long extentSize = 0;  // bytes per extent
    };

    explicit CArchiveVirtualDiskFile(ProductType_t productType);
    ~CArchiveVirtualDiskFile();
    CArchiveVirtualDiskFile(const CArchiveVirtualDiskFile&) = delete;
    CArchiveVirtualDiskFile& operator=(const CArchiveVirtualDiskFile&) = delete;

    void SetVMInfo(IVMInfo* vmInfo, const std::string& vmName, const std::string& vmGuid, MountCtx* ctx,
                   void* restoreCtx);
    // Reads against the digests recorded under `changeId`: unchanged extents come back
    // empty, extents that lost their data come back zero-filled.
    void SetChangeId(const std::string& changeId);

    // Opens a raw image or a flat VMDK descriptor (its extent files may be several), read
    // directly; or a sparse VMDK, SESPARSE, VMFS-sparse or qcow2 disk or a chain of
    // deltas, read through a qemu-nbd of its own that lives until Close.
    CQiError Open(const std::string& path, DiskType_t diskType);
    // The first `size` bytes of the disk; prepares `ctx` for a pass from extent 0.
    CQiError GetFirstBlock(CAutoMemory<char>& buffer, unsigned long size, Context_t& ctx);
    // Extents that hold allocated data.
    unsigned long long GetAllocatedExtentCount();
    // The next extent after ctx.position that holds data (or, under change tracking,
    // held data before); holes are never read. VS_ERROR_END_OF_DISK past the end.
    CQiError GetNextBlock(CAutoMemory<char>& buffer, unsigned long long& extentNumber, std::vector<bool>& changed,
                          Context_t& ctx);
    // Extent `extentNumber` whatever it holds.
    CQiError ReadBlock(CAutoMemory<char>& buffer, unsigned long long extentNumber, std::vector<bool>& changed,
                       Context_t& ctx);
    CQiError Close();

    static bool IsErrorEOF(const CQiError& error);

    unsigned long long DiskSize() const;
    unsigned long long ExtentSize() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
