// Speed counters: time and bytes of repeated operations, logged as a rate.
#pragma once

#include "hostapi/log.h"
#include "hostapi/types.h"

#include <chrono>
#include <string>

class VS_HOST_API CCounterBase {
public:
    virtual ~CCounterBase();
    void Init(const std::string& name, int flags);
    void Reset();
    // Logs the totals when the counter is destroyed or reset.
    void EnableLogging() { m_logging = true; }
    void Start();
    void Stop(unsigned long long bytes);

    const std::string& Name() const { return m_name; }
    unsigned long long Bytes() const { return m_bytes; }
    double Seconds() const { return m_seconds; }
    // Bytes per second over the measured time; 0 before anything was measured.
    double Rate() const { return m_seconds > 0 ? static_cast<double>(m_bytes) / m_seconds : 0.0; }

private:
    void LogTotals() const;

    std::string m_name;
    bool m_logging = false;
    unsigned long long m_bytes = 0;
    double m_seconds = 0;
    std::chrono::steady_clock::time_point m_started{};
    bool m_running = false;
};

class EvDebug;

class VS_HOST_API CMediaSpeedCounter : public CCounterBase {
public:
    explicit CMediaSpeedCounter(EvDebug* debug = nullptr) : m_debug(debug) {}

private:
    EvDebug* m_debug;
};
