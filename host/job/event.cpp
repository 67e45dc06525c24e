// Waiting on the stop event.
#include "hostapi/event.h"

#include <algorithm>
#include <chrono>
#include <thread>

bool KtEvent::wait(unsigned long timeoutMs) {
    using Clock = std::chrono::steady_clock;
    unsigned long left = m_pollsLeft.load(std::memory_order_acquire);
    while (left != 0 && !m_pollsLeft.compare_exchange_weak(left, left - 1, std::memory_order_acq_rel)) {
    }
    if (left == 1) set();
    if (m_set.load(std::memory_order_acquire) || timeoutMs == 0) return m_set.load(std::memory_order_acquire);
    // set() must stay async-signal-safe, so there is no condition variable to notify:
    // poll in short steps instead.
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        auto now = Clock::now();
        if (now >= deadline) return m_set.load(std::memory_order_acquire);
        std::this_thread::sleep_for(std::min<Clock::duration>(std::chrono::milliseconds(10), deadline - now));
        if (m_set.load(std::memory_order_acquire)) return true;
    }
}
