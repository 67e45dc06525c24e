// What a pipeline holds behind its contract: the target, the ring and thread that write
// to it, the progress another thread may read, and the encoder of its stream. Internal
// to the host; the archive writer and the encoder reach it, the readers never do.
#pragma once

#include "hostapi/archive.h"
#include "stream/writering.h"
#include "vscodec/streamencoder.h"
#include "vshost/changetrack.h"

#include <mutex>
#include <string>

struct CPipelayer::State final : vshost::detail::StreamSink {
    State(int targetFd, bool ownsFd, std::string targetName)
        : fd(targetFd), owned(ownsFd), target(std::move(targetName)), ring(targetFd, target), encoder(*this) {}

    bool Failed() const override { return ring.Failed(); }
    const std::string& Error() const override { return ring.Error(); }
    unsigned long long Accepted() const override { return ring.Written(); }
    unsigned long long PackedZeros() const override { return ring.Zeros(); }
    bool Write(const void* data, std::size_t length) override;
    bool WriteData(uint64_t index, const char* data, std::size_t length) override;
    bool Flush() override { return ring.Drain(); }
    bool Sync();
    bool Close();
    void NoteProgress(const vsStreamTotals& totals, const std::string* entry) override;
    void RecordBegins(uint64_t index) override { ring.Mark(index); }

    int fd;
    bool owned;
    std::string target;  // for messages: the path, or "descriptor N"
    unsigned long long synced = 0;
    bool syncable = true;
    mutable std::mutex progressMutex;
    vsStreamProgress progress;
    vshost::detail::WriteRing ring;
    vshost::detail::StreamEncoder encoder;
    // Set by HoldRecordsUntilStored: the completed disks the archive writers hand over.
    std::unique_ptr<vshost::changetrack::CompletedDisks> held;
};
