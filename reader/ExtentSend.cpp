// Extent reader: the VM and disk entries, configuration files copied whole, and the
// disk's extents with holes.
#include "DataReaderVSExtent.h"

#include "hostapi/fxfile.h"
#include "hostapi/zeroscan.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr unsigned long kConfigChunk = 32768;
constexpr unsigned long kFirstBlockBytes = 65536;

std::string VMPath(const std::string& vm) {
    return FXString::Format("\\%s", vm.c_str());
}
std::string ItemPath(const std::string& vm, const std::string& item) {
    return FXString::Format("\\%s\\%s", vm.c_str(), item.c_str());
}

}  // namespace

int DataReaderVSExtent::SendVMHeader(std::string& vmGuid) {
    KTlog(m_hLog, 1, "Sending VM [%s]", vmGuid.c_str());
    const std::string path = VMPath(vmGuid);
    if (!m_pArchive || m_pArchive->isError(m_pArchive->sendFileHeader(path, 0, 0, true, false, false, 0, 0, 0, 0, false,
                                                                      true, false))) {
        KTlog(m_hLog, 1, "Failed to send VM Header for [%s]", path.c_str());
        return ~0;
    }
    if (m_pArchive->isError(m_pArchive->sendEOF(true, 0))) {
        KTlog(m_hLog, 1, "Failed to send VM EOF for [%s]", path.c_str());
        return ~0;
    }
    return 0;
}

int DataReaderVSExtent::SendConfigFile(std::string& vmGuid, std::string& name, std::string& extra, unsigned productType,
                                       unsigned diskType, unsigned long long size, std::string& filePath) {
    if (vmGuid.empty() || filePath.empty() || name.empty() || !m_pArchive) {
        KTlog(m_hLog, 1, "Some of the input is missing. No backing up file");
        return ~0;
    }
    if (m_pArchive->isError(m_pArchive->sendDiskInfo(vmGuid, name, extra, 4, productType, diskType, size, 0, 1))) {
        KTlog(m_hLog, 1, "Failed to send Disk Info for [%s]", name.c_str());
        return ~0;
    }
    KTlog(m_hLog, 3, "Sending file [%s]", filePath.c_str());
    auto_handle file(
        FXFile::KTCreateFile(filePath, KT_GENERIC_READ, KT_FILE_SHARE_READ, nullptr, KT_OPEN_EXISTING, 0, nullptr));
    if (!file.is_valid()) {
        KTlog(m_hLog, 1, "Failed to open the file [%s]. GetLastError() [%d]", filePath.c_str(), errno);
        return ~0;
    }
    unsigned long long remaining = 0;
    const CQiError sizeErr = FXFile::KTGetFileSize(filePath, remaining);
    if (sizeErr.IsError()) {
        KTlog(m_hLog, 1,
              "Failed to get file's size for [%s], Windows Error Code [%u]. Backing up this file is not possible",
              filePath.c_str(), static_cast<unsigned>(sizeErr.Errno()));
        return ~0;
    }

    const std::string path = ItemPath(vmGuid, name);
    if (m_pArchive->isError(
            m_pArchive->sendFileHeader(path, size, 0, false, false, false, 0, 0, 0, 0, false, true, false))) {
        KTlog(m_hLog, 1, "Failed to send VM Header for [%s]", path.c_str());
        return ~0;
    }
    KTlog(m_hLog, 1, "File Header [%s]", path.c_str());

    while (remaining > 0) {
        unsigned long granted = 0;
        void* buffer = nullptr;
        const unsigned long wanted = static_cast<unsigned long>(std::min<unsigned long long>(remaining, kConfigChunk));
        if (m_pArchive->isError(m_pArchive->allocateBuffer(wanted, &granted, &buffer)) || !buffer) {
            KTlog(m_hLog, 1, "Failed to allocate pipeline buffer");
            m_pArchive->sendEOF(false, 0);
            return ~0;
        }
        unsigned long read = 0;
        const CQiError readErr = FXFile::KTReadFile(file.get(), buffer, granted, read);
        if (readErr.IsError()) {
            KTlog(m_hLog, 1, "ReadFile() call failed for file [%s]. GetLastError() [%d]", filePath.c_str(),
                  readErr.Errno());
            m_pArchive->freeBuffer();
            m_pArchive->sendEOF(false, 0);
            return ~0;
        }
        if (read == 0) {
            // Shorter than measured: what there was is the whole file.
            m_pArchive->freeBuffer();
            break;
        }
        if (m_pArchive->isError(m_pArchive->writeDataBuffer(static_cast<const char*>(buffer), read))) {
            KTlog(m_hLog, 1, "Failed to send pipeline data buffer for file [%s]", filePath.c_str());
            m_pArchive->sendEOF(false, 0);
            return ~0;
        }
        remaining -= read;
    }
    if (m_pArchive->isError(m_pArchive->sendEOF(true, 0))) {
        KTlog(m_hLog, 1, "Failed to send EOF for [%s]", path.c_str());
        return ~0;
    }
    return 0;
}

int DataReaderVSExtent::SendDiskHeader(std::string& vmGuid, std::string& diskName, std::string& extra,
                                       unsigned productType, unsigned diskType, unsigned long long size,
                                       CArchiveVirtualDiskFile* disk) {
    CAutoMemory<char> firstBlock;
    CArchiveVirtualDiskFile::Context_t& ctx = m_diskContexts[disk];
    const CQiError err = disk->GetFirstBlock(firstBlock, kFirstBlockBytes, ctx);
    if (err.IsError()) {
        KTlog(m_hLog, 1, "Failed to get virtual disk first block, error %s", err.AsString().c_str());
        return ~0;
    }
    const unsigned long long extentSize = ctx.extentSize;
    const unsigned long long extentCount = disk->GetAllocatedExtentCount();
    KTlog(m_hLog, 1, "Sending [%s] size [%llu] extentSize [%llu] extentCount [%llu]", diskName.c_str(), size,
          extentSize, extentCount);
    if (!m_pArchive || m_pArchive->isError(m_pArchive->sendDiskInfo(vmGuid, diskName, extra, 3, productType, diskType,
                                                                    size, extentSize, extentCount))) {
        KTlog(m_hLog, 1, "Failed to send Disk Info for [%s]", diskName.c_str());
        return ~0;
    }
    if (m_pArchive->isError(m_pArchive->sendVolHeaderInfo(vmGuid, diskName, firstBlock.Ptr(),
                                                          static_cast<unsigned long>(firstBlock.Size())))) {
        KTlog(m_hLog, 1, "Failed to vol header info for [%s]", diskName.c_str());
        return ~0;
    }
    return 0;
}

int DataReaderVSExtent::SendDiskMetadata(std::string& vmGuid, std::string& diskName, std::string&, unsigned, unsigned,
                                         unsigned long long size, CArchiveVirtualDiskFile* disk) {
    const unsigned long long extentSize = m_diskContexts[disk].extentSize;
    const std::string path = ItemPath(vmGuid, diskName);
    KTlog(m_hLog, 1, "Sending File Header Path:[%s]", path.c_str());
    if (!m_pArchive ||
        m_pArchive->isError(m_pArchive->sendFileHeader(path, size, 0, true, false, false, 0,
                                                       static_cast<unsigned>(extentSize), 0, 0, false, true, false))) {
        KTlog(m_hLog, 1, "Failed to send Disk Header for [%s]", path.c_str());
        return ~0;
    }
    if (m_pArchive->isError(m_pArchive->sendEOF(true, 0))) {
        KTlog(m_hLog, 1, "Failed to send Disk EOF for [%s]", path.c_str());
        return ~0;
    }
    return 0;
}

int DataReaderVSExtent::SendEntireDiskExtents(const std::string& vmGuid, const std::string& diskName,
                                              bool skipUnchanged, unsigned long long startExtent,
                                              CArchiveVirtualDiskFile* disk) {
    KTlog(m_hLog, 1, "Sending disk/volume [%s]", diskName.c_str());
    CArchiveVirtualDiskFile::Context_t& ctx = m_diskContexts[disk];
    unsigned long long extentNumber = startExtent;
    if (startExtent != 0) {
        KTlog(m_hLog, 1, "Starting to read disk from extent [%llu]", startExtent);
        ctx.position = startExtent - 1;
    }
    const unsigned long long expected = disk->GetAllocatedExtentCount();
    unsigned long long sent = 0;
    bool endReached = false;
    CAutoMemory<char> buffer;  // one buffer for the whole pass
    std::vector<bool> changed;
    for (;;) {
        if (IsStopSignaled()) {
            KTlog(m_hLog, 1, "Received job interruption flag...");
            // The next Close is then the last one, and unmounts.
            m_afileRefCount = 1;
            break;
        }
        m_readSpeed.Start();
        const CQiError err = disk->GetNextBlock(buffer, extentNumber, changed, ctx);
        m_readSpeed.Stop(buffer.Size());
        if (err.IsError()) {
            if (CArchiveVirtualDiskFile::IsErrorEOF(err))
                endReached = true;
            else
                KTlog(m_hLog, 1, "virtual disk read error detected [%s]!!!", err.AsString().c_str());
            break;
        }
        if (skipUnchanged && buffer.Size() == 0) continue;
        std::string extentName;
        ExtentNameConverter::GetFilePath(extentNumber, extentName);
        m_writeSpeed.Start();
        const int rc = SendDiskExtent(vmGuid, diskName, extentName, buffer);
        m_writeSpeed.Stop(buffer.Size());
        if (rc != 0) break;
        ++sent;
    }
    KTlog(m_hLog, 1, "Number of extents sent = [%llu]", sent);
    if (expected != 0 && expected != sent) KTlog(m_hLog, 1, "Expected to send = [%llu] extents", expected);
    if (!endReached) {
        KTlog(m_hLog, 1, "Failure sending disk/volume [%s]", diskName.c_str());
        return ~0;
    }
    KTlog(m_hLog, 1, "Done sending disk/volume [%s]", diskName.c_str());
    return 0;
}

int DataReaderVSExtent::SendSpecificDiskExtent(const std::string& vmGuid, const std::string& diskName,
                                               const std::string& extentName, CArchiveVirtualDiskFile* disk) {
    unsigned long long number = 0;
    const size_t word = extentName.find("Extent");
    if (word != std::string::npos) {
        number = static_cast<unsigned long long>(std::atoll(extentName.c_str() + word + std::strlen("Extent")));
    } else if (!ExtentNameConverter::GetExtentNumberFromFileName(extentName, number)) {
        KTlog(m_hLog, 1, "Cannot decode the extent number from the header [%s]", extentName.c_str());
        return ~0;
    }
    if (!disk) {
        KTlog(m_hLog, 1, "No valid Disk Handle for Disk:[%s]", diskName.c_str());
        return ~0;
    }
    CAutoMemory<char> buffer;
    std::vector<bool> changed;
    CArchiveVirtualDiskFile::Context_t& ctx = m_diskContexts[disk];
    const CQiError err = disk->ReadBlock(buffer, number, changed, ctx);
    if (err.IsError()) {
        KTlog(m_hLog, 1, "Virtual disk read error detected for extent [%s] Block [%llu], error=%s", extentName.c_str(),
              number, err.AsString().c_str());
        return ~0;
    }
    if (ctx.position != number && static_cast<int>(getVSInstanceType()) == 102)
        std::memset(buffer.Ptr(), 0, buffer.SizeInBytes());
    return SendDiskExtent(vmGuid, diskName, extentName, buffer);
}

int DataReaderVSExtent::SendDiskExtent(const std::string& vmGuid, const std::string& diskName,
                                       const std::string& extentName, CAutoMemory<char>& buffer) {
    const std::string path = FXString::Format("\\%s\\%s\\%s", vmGuid.c_str(), diskName.c_str(), extentName.c_str());
    const unsigned long size = static_cast<unsigned long>(buffer.Size());
    int rc = m_pArchive ? m_pArchive->sendFileHeader(path, size, 0, false, false, false, 0, 0, 0, 0, false, true, false)
                        : vsArchive::kErrNotAttached;
    if (!m_pArchive || m_pArchive->isError(rc)) {
        KTlog(m_hLog, 1, "Failed to extent header [%s], retCode [%d]", path.c_str(), rc);
        return ~0;
    }
    if (IsZeroFilled(buffer.Ptr(), size))
        m_pArchive->sendHole(size);
    else
        m_pArchive->allocateAndSendDataBuffer(buffer.Ptr(), size);
    rc = m_pArchive->sendEOF(true, 0);
    if (m_pArchive->isError(rc)) {
        KTlog(m_hLog, 1, "Failed to extent EOF [%s], retCode [%d]", path.c_str(), rc);
        return ~0;
    }
    return 0;
}
