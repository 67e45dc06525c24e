// The pipeline's writer thread and the ring of buffers that feeds it.
#include "stream/writering.h"

#include "hostapi/archive.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace vshost::detail {

namespace {

// A slot takes records up to this much, then goes to the writer.
constexpr std::size_t kBatchBytes = CPipelayer::kBatchBytes;
// Room for the batch and one whole data payload behind it.
constexpr std::size_t kInBytes = kBatchBytes + (std::size_t{64} << 10);
// What the slot's data records become: a whole packed payload and the frames of many
// small records.
const std::size_t kOutBytes = DataPacker::OutBound(stream::kMaxPayload) + (std::size_t{64} << 10);
constexpr std::size_t kIovMax = 1024;

static_assert(stream::kMaxPayload <= kInBytes, "a data payload fits an empty slot");

}  // namespace

WriteRing::WriteRing(int fd, std::string target) : m_fd(fd), m_target(std::move(target)) {
    Allocate(kSlots);
}

void WriteRing::Allocate(std::size_t slots) {
    m_slots.resize(slots);
    // Not zeroed: a buffer's pages cost memory only once records fill them.
    for (Slot& s : m_slots) {
        if (!s.in) s.in = std::make_unique_for_overwrite<char[]>(kInBytes);
        if (!s.out) s.out = std::make_unique_for_overwrite<char[]>(kOutBytes);
    }
    m_fill = 0;
    m_slots[0].stage = Stage::Filling;
}

bool WriteRing::SetCompression(int level, unsigned threads) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_threads.empty() || m_nextSeq > 0 || !Filling().items.empty()) return false;
    m_level = level;
    m_workers = std::max(1u, threads);
    // Each thread packs a buffer of its own while the caller fills one and one waits.
    Allocate(std::max(kSlots, std::size_t{m_workers} + 2));
    return true;
}

bool WriteRing::SetPlaces(std::function<void(uint64_t, unsigned long long)> places) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_threads.empty() || m_nextSeq > 0 || !Filling().items.empty()) return false;
    m_places = std::move(places);
    return true;
}

void WriteRing::Mark(uint64_t index) {
    if (!m_places) return;
    Slot& s = Filling();
    s.items.push_back({false, index, s.inUsed, 0, true});
}

WriteRing::~WriteRing() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_queued.notify_all();
    for (std::thread& t : m_threads) t.join();
}

void WriteRing::Fail(std::string why) {
    std::lock_guard<std::mutex> lock(m_errorMutex);
    if (m_failed.load(std::memory_order_relaxed)) return;
    m_error = std::move(why);
    m_failed.store(true, std::memory_order_release);
}

const std::string& WriteRing::Error() const {
    static const std::string none;
    // Written once, before the flag: stable to read once the flag is seen.
    return Failed() ? m_error : none;
}

bool WriteRing::Put(const void* data, std::size_t length) {
    if (Failed()) return false;
    const char* p = static_cast<const char*>(data);
    while (length > 0) {
        Slot& s = Filling();
        if (s.inUsed == kInBytes) {
            if (!NextSlot()) return false;
            continue;
        }
        const std::size_t n = std::min(kInBytes - s.inUsed, length);
        std::memcpy(s.in.get() + s.inUsed, p, n);
        if (!s.items.empty() && !s.items.back().data)
            s.items.back().length += n;  // a marked item takes the record that follows it
        else
            s.items.push_back({false, 0, s.inUsed, n, false});
        s.inUsed += n;
        p += n;
        length -= n;
    }
    return Filling().inUsed < kBatchBytes || NextSlot();
}

bool WriteRing::PutData(uint64_t index, const char* data, std::size_t length) {
    if (Failed()) return false;
    const std::size_t bound = DataPacker::OutBound(length);
    Slot* s = &Filling();
    if (kInBytes - s->inUsed < length || kOutBytes - s->outBound < bound) {
        // An empty slot takes any record.
        if (!NextSlot()) return false;
        s = &Filling();
    }
    std::memcpy(s->in.get() + s->inUsed, data, length);
    s->items.push_back({true, index, s->inUsed, length, false});
    s->inUsed += length;
    s->outBound += bound;
    return s->inUsed < kBatchBytes || NextSlot();
}

bool WriteRing::NextSlot() {
    std::unique_lock<std::mutex> lock(m_mutex);
    return Submit(lock);
}

// Hands the slot being filled to the writer and takes the next one once it is free.
bool WriteRing::Submit(std::unique_lock<std::mutex>& lock) {
    Slot& s = Filling();
    if (s.items.empty()) return !Failed();
    if (!Start()) return false;
    s.stage = Stage::Queued;
    s.seq = m_nextSeq++;
    m_queued.notify_one();
    m_fill = Next(m_fill);
    m_freed.wait(lock, [&] { return m_slots[m_fill].stage == Stage::Free; });
    m_slots[m_fill].stage = Stage::Filling;
    return !Failed();
}

bool WriteRing::Drain() {
    std::unique_lock<std::mutex> lock(m_mutex);
    Submit(lock);
    m_freed.wait(lock, [&] { return m_nextWrite == m_nextSeq; });
    return !Failed();
}

bool WriteRing::Stop() {
    const bool ok = Drain();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_queued.notify_all();
    for (std::thread& t : m_threads) t.join();
    m_threads.clear();
    return ok;
}

// The writer threads take no signals: the process's handlers run where they always
// did, an interrupted write is never theirs to handle, and the SIGPIPE a write to a
// vanished reader raises stays pending on a thread that ignores it and drops it when it
// ends, so it never kills the process.
bool WriteRing::Start() {
    if (!m_threads.empty()) return true;
    if (m_stopping) {
        Fail("write to " + m_target + ": the pipeline is closed");
        return false;
    }
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    try {
        for (unsigned i = 0; i < m_workers; ++i) m_threads.emplace_back([this] { Work(); });
    } catch (const std::exception& e) {
        Fail("cannot start the stream's writer thread: " + std::string(e.what()));
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return !m_threads.empty();
}

WriteRing::Slot* WriteRing::NextQueued() {
    Slot* next = nullptr;
    for (Slot& s : m_slots)
        if (s.stage == Stage::Queued && (!next || s.seq < next->seq)) next = &s;
    return next;
}

void WriteRing::Work() {
    DataPacker packer(m_level);
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_queued.wait(lock, [&] { return m_stopping || NextQueued() != nullptr; });
        Slot* s = NextQueued();
        if (!s) return;
        s->stage = Stage::Packing;
        lock.unlock();
        if (!Failed()) Pack(*s, packer);
        lock.lock();
        s->stage = Stage::Packed;
        WriteInOrder(lock);
    }
}

void WriteRing::Pack(Slot& slot, DataPacker& packer) {
    std::size_t outUsed = 0, at = 0;
    for (const Item& item : slot.items) {
        const char* in = slot.in.get() + item.offset;
        if (m_places && (item.data || item.marked)) slot.places.push_back({item.index, at});
        if (!item.data) {
            slot.pieces.push_back({in, item.length});
            at += item.length;
            continue;
        }
        const FramedRecord r = packer.Pack(item.index, in, item.length, slot.out.get() + outUsed);
        outUsed += r.outBytes;
        at += r.bytes;
        if (r.zeroBytes > 0) m_zeros.fetch_add(r.zeroBytes, std::memory_order_release);
        slot.pieces.insert(slot.pieces.end(), r.pieces, r.pieces + r.count);
    }
}

// Slots are written in the order they were submitted, by whichever thread holds the
// turn; a slot of a failed ring is dropped unwritten.
void WriteRing::WriteInOrder(std::unique_lock<std::mutex>& lock) {
    while (!m_writing) {
        Slot* next = nullptr;
        for (Slot& s : m_slots)
            if (s.stage == Stage::Packed && s.seq == m_nextWrite) next = &s;
        if (!next) return;
        m_writing = true;
        lock.unlock();
        const unsigned long long base = Written();
        if (!Failed() && WriteSlot(*next) && m_places)
            for (const Place& p : next->places) m_places(p.index, base + p.at);
        lock.lock();
        m_writing = false;
        next->inUsed = next->outBound = 0;
        next->items.clear();
        next->pieces.clear();
        next->places.clear();
        next->stage = Stage::Free;
        ++m_nextWrite;
        m_freed.notify_all();
    }
}

// The stream is synced before each batch of completed disks is recorded; that sync
// would otherwise wait for the whole stream to reach the device. Writeback of what is
// written is started every few MiB instead, so the device writes while the reader reads,
// and the sync finds little left to do. Nothing is promised by it: the sync still does.
void WriteRing::StartWriteback() {
    constexpr unsigned long long kEvery = 8ull << 20;
    const unsigned long long written = m_written.load(std::memory_order_relaxed);
    if (!m_writeback || written - m_kicked < kEvery) return;
    m_kicked = written;
    // A pipe, socket or device has no page cache to write back: stop asking.
    if (::sync_file_range(m_fd, 0, 0, SYNC_FILE_RANGE_WRITE) != 0) m_writeback = false;
}

// Every piece in order, resuming after EINTR and partial writes.
bool WriteRing::WriteSlot(const Slot& slot) {
    m_iov.clear();
    for (const FramedRecord::Piece& p : slot.pieces)
        if (p.length > 0) m_iov.push_back({const_cast<char*>(p.data), p.length});
    std::size_t at = 0;
    while (at < m_iov.size()) {
        const int count = static_cast<int>(std::min(m_iov.size() - at, kIovMax));
        const ssize_t n = ::writev(m_fd, &m_iov[at], count);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            Fail(n < 0 ? CQiError(errno, "write to " + m_target).AsString() : "write to " + m_target + ": no progress");
            return false;
        }
        m_written.fetch_add(static_cast<unsigned long long>(n), std::memory_order_release);
        StartWriteback();
        auto done = static_cast<std::size_t>(n);
        while (at < m_iov.size() && done >= m_iov[at].iov_len) done -= m_iov[at++].iov_len;
        if (done > 0) {
            m_iov[at].iov_base = static_cast<char*>(m_iov[at].iov_base) + done;
            m_iov[at].iov_len -= done;
        }
    }
    return true;
}

}  // namespace vshost::detail
