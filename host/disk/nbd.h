// A disk read through qemu: one read-only qemu-nbd per open disk, reached with libnbd
// over a Unix socket in a private folder, its allocation from NBD block status.
#pragma once

#include "hostapi/fileutil.h"
#include "vshost/vmdk.h"

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct nbd_handle;

namespace vshost::vdisk {

class NbdDisk {
public:
    // Serves `chain` (the disk first, its base last) with qemu-nbd and connects to it.
    // qemu gets the chain spelled out (formats and backing files) and reaches each file
    // through the descriptor opened here; its socket, the copies of text descriptors it
    // reads and the links to the extent files lie in a private folder made in `workDir`
    // (a temporary folder when empty), removed once qemu has opened everything.
    static CQiError Open(diskchain::Chain chain, const std::string& workDir, std::unique_ptr<NbdDisk>& out);
    ~NbdDisk();
    NbdDisk(const NbdDisk&) = delete;
    NbdDisk& operator=(const NbdDisk&) = delete;

    uint64_t Size() const { return m_size; }
    size_t FileCount() const { return m_files.size(); }
    // As Layout::Read and Layout::NextData: data is what block status does not report
    // as reading zeros; a file of the chain that shrank since it was opened is an error.
    // A read of a whole extent sends the reads of the next extents with data ahead, so
    // that qemu-nbd reads them while the caller digests this one.
    CQiError Read(char* dest, uint64_t offset, uint64_t length);
    CQiError NextData(uint64_t from, std::optional<uint64_t>& next);

private:
    struct Run {
        uint64_t start = 0;
        uint64_t end = 0;
        bool data = false;
    };
    struct Ahead {
        uint64_t offset = 0;
        uint64_t length = 0;
        int64_t cookie = -1;
        std::vector<char> data;
    };
    struct File {
        int fd = -1;
        uint64_t size = 0;
        std::string path;
    };

    NbdDisk() = default;
    CQiError Start(const std::string& workDir);
    CQiError Connect(const std::string& socketPath, const std::string& logPath);
    CQiError Status(uint64_t from);
    CQiError CheckFiles() const;
    CQiError ReadNow(char* dest, uint64_t offset, uint64_t length);
    CQiError Await(const Ahead& ahead);
    void DropAhead();
    void SendAhead(uint64_t from, uint64_t length);

    diskchain::Chain m_chain;  // keeps every file open for as long as qemu reads it
    std::vector<File> m_files;
    std::string m_name;  // the disk, for messages
    nbd_handle* m_nbd = nullptr;
    pid_t m_pid = -1;
    uint64_t m_size = 0;
    uint64_t m_maxRequest = 0;
    std::vector<Run> m_runs;                 // the last block status answer, in disk order
    std::deque<Ahead> m_ahead;               // reads sent ahead, in disk order
    std::vector<std::vector<char>> m_spare;  // their buffers, kept for the next ones
};

}  // namespace vshost::vdisk
