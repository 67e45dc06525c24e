// What a pipeline holds behind its contract: the target and its batch, the failure that
// ended it, the progress another thread may read, and the encoder of its stream. Internal
// to the host; the archive writer and the encoder reach it, the readers never do.
#pragma once

#include "hostapi/archive.h"
#include "vscodec/streamencoder.h"

#include <mutex>
#include <string>
#include <vector>

struct CPipelayer::State final : vshost::detail::StreamSink {
    State(int targetFd, bool ownsFd, std::string targetName)
        : fd(targetFd), owned(ownsFd), target(std::move(targetName)), batch(kBatchBytes), encoder(*this) {}

    bool Failed() const override { return !error.empty(); }
    const std::string& Error() const override { return error; }
    unsigned long long Accepted() const override { return accepted; }
    // Accepts bytes into the batch; large pieces go out behind it without a copy.
    bool Write(const void* data, std::size_t length) override;
    bool Flush() override;
    bool Sync();
    bool Close();
    // Writes both pieces in order, resuming after EINTR and partial writes.
    bool WriteOut(const char* first, std::size_t firstLength, const char* second = nullptr,
                  std::size_t secondLength = 0);
    void NoteProgress(const vsStreamTotals& totals, const std::string* entry) override;

    int fd;
    bool owned;
    std::string target;  // for messages: the path, or "descriptor N"
    std::vector<char> batch;
    std::size_t used = 0;
    unsigned long long accepted = 0;
    unsigned long long synced = 0;
    bool syncable = true;
    std::string error;
    mutable std::mutex progressMutex;
    vsStreamProgress progress;
    vshost::detail::StreamEncoder encoder;
};
