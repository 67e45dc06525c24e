// Writes the decoder's seed corpus into a folder: real streams of every record kind
// (packed data, compressed or not, included), made by the archive writer itself.
#include "hostapi/archive.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace {

bool Write(const std::string& path, bool finish, bool fileLevel, int compress = 0) {
    CQiError err;
    auto pipe = CPipelayer::OpenFile(path, err);
    if (!pipe || !pipe->SetCompression(compress)) return false;
    vsSim sim;
    vsArchive a(nullptr, nullptr, &sim, "hub");
    if (a.init(pipe.get(), nullptr, "client") != 0) return false;
    a.SetArchiveFileId(1, 2, 3);
    a.SetJobId(42);
    a.SetJobToken("token");
    a.sendFileHeader("\\vm", 0, 0, true, false, false, 0, 0, 0, 0, false, true, false);
    a.sendEOF(true, 0);
    a.sendDiskInfo("vm", "disk.vmdk", "", 3, 2, 1, 8192, 4096, 1);
    a.sendVolHeaderInfo("vm", "disk.vmdk", "boot", 4);
    a.sendDiskInfo("vm", "vm.vmx", "", 4, 2, 0, 5, 0, 1);
    a.sendFileHeader("\\vm\\vm.vmx", 5, 0, false, false, false, 0, 0, 0, 0, false, true, false);
    a.allocateAndSendDataBuffer("x = 1", 5);
    a.sendEOF(true, 0);
    // Data with a zero run inside: a packed data record (compressed too, when asked).
    std::string nvram(3 * 4096, 'n');
    std::fill(nvram.begin() + 4096, nvram.begin() + 8192, '\0');
    a.sendFileHeader("\\vm\\vm.nvram", nvram.size(), 0, false, false, false, 0, 0, 0, 0, false, true, false);
    a.allocateAndSendDataBuffer(nvram.data(), nvram.size());
    a.sendEOF(true, 0);
    a.sendFileHeader("\\vm\\disk.vmdk", 8192, 0, true, false, false, 0, 4096, 0, 0, false, true, false);
    a.sendEOF(true, 0);
    std::string extent;
    ExtentNameConverter::GetFilePath(0, extent);
    a.sendFileHeader("\\vm\\disk.vmdk\\" + extent, 4096, 0, false, false, false, 0, 0, 0, 0, false, true, false);
    a.allocateAndSendDataBuffer(std::string(4096, 'd').data(), 4096);
    a.sendEOF(true, 0);
    ExtentNameConverter::GetFilePath(1, extent);
    a.sendFileHeader("\\vm\\disk.vmdk\\" + extent, 4096, 0, false, false, false, 0, 0, 0, 0, false, true, false);
    a.sendHole(4096);
    a.sendEOF(true, 0);
    a.sendDiskReadCompleted("vm", "disk.vmdk", "cid/1");
    a.sendFCFileHeader("\\vm\\fc\\a.txt", 3, 0, false, false, 0, 0, 0, 0, false, false, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10);
    a.allocateAndSendDataBuffer("abc", 3);
    a.sendEOF(false, 0);
    if (fileLevel) {
        vsFileLevelInfo info;
        info.clientPath = "C:\\Users";
        info.mode = 040755;
        a.sendDirectoryEntry(info);
        info.clientPath = "C:\\Users\\a.txt";
        info.mode = 0100644;
        info.size = 2;
        a.sendFileLevelHeader(info);
        a.allocateAndSendDataBuffer("hi", 2);
        a.sendEOF(true, 0);
    }
    a.sendVMReadCompleted("vm");
    a.close(finish);
    return pipe->Close() || !finish;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS_DIR\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    const bool ok = Write(dir + "/complete.stream", true, false) && Write(dir + "/file-level.stream", true, true) &&
                    Write(dir + "/abandoned.stream", false, false) && Write(dir + "/compressed.stream", true, false, 1);
    if (!ok) std::fprintf(stderr, "cannot write the seed corpus into %s\n", dir.c_str());
    return ok ? 0 : 1;
}
