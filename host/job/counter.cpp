#include "hostapi/counter.h"

CCounterBase::~CCounterBase() {
    LogTotals();
}

void CCounterBase::Init(const std::string& name, int) {
    m_name = name;
}

void CCounterBase::Reset() {
    LogTotals();
    m_bytes = 0;
    m_seconds = 0;
    m_running = false;
}

void CCounterBase::Start() {
    m_started = std::chrono::steady_clock::now();
    m_running = true;
}

void CCounterBase::Stop(unsigned long long bytes) {
    if (!m_running) return;
    m_seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - m_started).count();
    m_bytes += bytes;
    m_running = false;
}

void CCounterBase::LogTotals() const {
    if (!m_logging || m_bytes == 0) return;
    KTlog(nullptr, 1, "%s: [%llu] bytes in [%.3f] s = [%.1f] MB/s", m_name.c_str(), m_bytes, m_seconds, Rate() / 1e6);
}
