// Stop event handed to a reader by the host.
#pragma once

#include "hostapi/types.h"

#include <atomic>

class VS_HOST_API KtEvent {
public:
    KtEvent() = default;
    KtEvent(const KtEvent&) = delete;
    KtEvent& operator=(const KtEvent&) = delete;

    // True when the event is set. A timeout of 0 polls; otherwise waits up to
    // `timeoutMs` milliseconds.
    bool wait(unsigned long timeoutMs);
    // Safe to call from another thread or from a signal handler.
    void set() noexcept { m_set.store(true, std::memory_order_release); }
    void reset() noexcept { m_set.store(false, std::memory_order_release); }
    // The event sets itself on the n-th poll from now (0 turns this off): a job
    // interrupted at an exact point, for tests and drills.
    void setAfterPolls(unsigned long n) noexcept { m_pollsLeft.store(n, std::memory_order_release); }

private:
    std::atomic<bool> m_set{false};
    std::atomic<unsigned long> m_pollsLeft{0};
    static_assert(std::atomic<bool>::is_always_lock_free, "set() must be async-signal-safe");
};
