// The pipeline's writer: stream bytes gathered into a small ring of buffers on the
// caller's thread, framed and written to the target on a thread of its own, so that a
// reader's next read overlaps the write of what it read last. Internal to the host.
#pragma once

#include "vscodec/streampack.h"

#include <sys/uio.h>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace vshost::detail {

class WriteRing {
public:
    // Buffers in the ring, each holding about one extent's record: one being filled, one
    // being written, and some between so that neither side waits on the other's bursts.
    static constexpr std::size_t kSlots = 4;

    // Writes to `fd` (not owned); `target` names it in messages.
    WriteRing(int fd, std::string target);
    // Stops the thread; bytes not drained are dropped.
    ~WriteRing();
    WriteRing(const WriteRing&) = delete;
    WriteRing& operator=(const WriteRing&) = delete;

    // Compresses data records at zstd `level` (DataPacker) on `threads` writer threads,
    // which pack buffers side by side and write them in order. Only before the first
    // byte is put; false afterwards.
    bool SetCompression(int level, unsigned threads);

    // Where each record lands: `places` hears the record number and stream offset of each
    // data record and each record marked (Mark), once its bytes are written, in stream
    // order, on a writer thread. Only before the first byte is put; false afterwards.
    bool SetPlaces(std::function<void(uint64_t index, unsigned long long offset)> places);
    // Record `index` begins with the next byte put (a no-op unless places are heard).
    void Mark(uint64_t index);

    // Framed bytes, copied into the ring. False once the ring failed.
    bool Put(const void* data, std::size_t length);
    // A data record's payload, copied into the ring and framed on the writer thread.
    bool PutData(uint64_t index, const char* data, std::size_t length);
    // Hands the buffer being filled to the writer and waits until every byte put so far
    // is written. False when a write failed (now or earlier).
    bool Drain();
    // Drains, then ends the writer thread. Later puts fail.
    bool Stop();

    // The first failure sticks; Error() is empty until there is one.
    void Fail(std::string why);
    bool Failed() const { return m_failed.load(std::memory_order_acquire); }
    const std::string& Error() const;
    // Bytes written to the target.
    unsigned long long Written() const { return m_written.load(std::memory_order_acquire); }
    // Bytes of data left out as zero runs.
    unsigned long long Zeros() const { return m_zeros.load(std::memory_order_acquire); }

private:
    enum class Stage { Free, Filling, Queued, Packing, Packed };
    struct Item {
        bool data = false;
        uint64_t index = 0;
        std::size_t offset = 0, length = 0;
        bool marked = false;  // a record whose place is heard begins here
    };
    struct Place {
        uint64_t index = 0;
        std::size_t at = 0;  // from the slot's first byte written
    };
    struct Slot {
        std::unique_ptr<char[]> in, out;
        std::size_t inUsed = 0, outBound = 0;
        std::vector<Item> items;
        std::vector<FramedRecord::Piece> pieces;
        std::vector<Place> places;
        Stage stage = Stage::Free;
        uint64_t seq = 0;
    };

    Slot& Filling() { return m_slots[m_fill]; }
    void Allocate(std::size_t slots);
    bool Submit(std::unique_lock<std::mutex>& lock);
    bool NextSlot();
    bool Start();
    void Work();
    Slot* NextQueued();
    void Pack(Slot& slot, DataPacker& packer);
    std::size_t Next(std::size_t slot) const { return (slot + 1) % m_slots.size(); }
    void WriteInOrder(std::unique_lock<std::mutex>& lock);
    bool WriteSlot(const Slot& slot);
    void StartWriteback();

    const int m_fd;
    const std::string m_target;
    std::vector<Slot> m_slots;
    int m_level = 0;
    std::size_t m_fill = 0;  // the slot the caller fills

    std::mutex m_mutex;
    std::condition_variable m_queued;  // a slot to pack, or stop
    std::condition_variable m_freed;   // a slot written (or dropped)
    uint64_t m_nextSeq = 0;            // of the next slot submitted
    uint64_t m_nextWrite = 0;          // of the next slot to write
    bool m_writing = false;
    bool m_stopping = false;
    // The writer's alone: the slot being written, where writeback was last started.
    std::vector<iovec> m_iov;
    bool m_writeback = true;
    unsigned long long m_kicked = 0;
    std::vector<std::thread> m_threads;
    unsigned m_workers = 1;
    std::function<void(uint64_t, unsigned long long)> m_places;

    std::mutex m_errorMutex;
    std::atomic<bool> m_failed{false};
    std::string m_error;
    std::atomic<unsigned long long> m_written{0};
    std::atomic<unsigned long long> m_zeros{0};
};

}  // namespace vshost::detail
