// Host log lines: level filter, line format, log file and in-memory captures.
#include "hostapi/log.h"
#include "detail.h"
#include "vshost/home.h"

#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <vector>

namespace vshost {
namespace detail {
namespace {

struct Captured {
    LogCapture::Filter keep = nullptr;
    std::size_t maxLines = 0;
    std::vector<std::string> lines;
    std::string last;
};

struct CaptureRegistry {
    std::mutex mutex;
    std::map<const LogCapture*, Captured> captures;
};

CaptureRegistry& Captures() {
    // Never destroyed, like the home state, so late log lines stay harmless.
    static auto* r = new CaptureRegistry;
    return *r;
}

unsigned long LevelLimit(const std::string& debugKey) {
    if (debugKey.empty()) return 1;
    auto v = Setting("Log", debugKey);
    if (!v) return 1;
    return ParseWholeNumber(*v).value_or(1);
}

std::string Timestamp() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    tm local{};
    localtime_r(&ts.tv_sec, &local);
    char buf[40];
    size_t n = strftime(buf, sizeof buf, "%m/%d %H:%M:%S", &local);
    (void)std::snprintf(buf + n, sizeof buf - n, ".%03ld", ts.tv_nsec / 1000000L);
    return buf;
}

}  // namespace

std::string VFormat(const char* format, va_list args) {
    if (!format) return {};
    va_list probe;
    va_copy(probe, args);
    int len = std::vsnprintf(nullptr, 0, format, probe);
    va_end(probe);
    if (len <= 0) return {};
    std::vector<char> buf(static_cast<size_t>(len) + 1);
    (void)std::vsnprintf(buf.data(), buf.size(), format, args);
    return std::string(buf.data(), static_cast<size_t>(len));
}

void EmitLog(const std::string& tag, KTJobID jobId, const std::string& debugKey, int level,
             const std::string& message) {
    if (level != KTLOG_ALWAYS) {
        if (level < 1 || static_cast<unsigned long>(level) > LevelLimit(debugKey)) return;
    }
    std::string text = message;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();

    char head[96];
    (void)std::snprintf(head, sizeof head, "%ld %lx %s %lld ", static_cast<long>(getpid()),
                        static_cast<unsigned long>(gettid()), Timestamp().c_str(), jobId);
    std::string line = head + tag + " " + text;

    AppendToLogFile(line);
    CaptureRegistry& reg = Captures();
    std::lock_guard<std::mutex> lock(reg.mutex);
    for (auto& [capture, c] : reg.captures) {
        if (c.lines.size() < c.maxLines && (!c.keep || c.keep(line))) c.lines.push_back(line);
        c.last = line;
    }
}

}  // namespace detail

LogCapture::LogCapture(Filter keep, std::size_t maxLines) {
    auto& reg = detail::Captures();
    std::lock_guard<std::mutex> lock(reg.mutex);
    detail::Captured& c = reg.captures[this];
    c.keep = keep;
    c.maxLines = maxLines;
}

LogCapture::~LogCapture() {
    auto& reg = detail::Captures();
    std::lock_guard<std::mutex> lock(reg.mutex);
    reg.captures.erase(this);
}

std::vector<std::string> LogCapture::Lines() const {
    auto& reg = detail::Captures();
    std::lock_guard<std::mutex> lock(reg.mutex);
    return reg.captures[this].lines;
}

std::string LogCapture::Last() const {
    auto& reg = detail::Captures();
    std::lock_guard<std::mutex> lock(reg.mutex);
    return reg.captures[this].last;
}

std::size_t LogCapture::Count(std::string_view text) const {
    auto& reg = detail::Captures();
    std::lock_guard<std::mutex> lock(reg.mutex);
    const auto& lines = reg.captures[this].lines;
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const std::string& l) { return l.find(text) != std::string::npos; }));
}

void LogCapture::Clear() {
    auto& reg = detail::Captures();
    std::lock_guard<std::mutex> lock(reg.mutex);
    detail::Captured& c = reg.captures[this];
    c.lines.clear();
    c.last.clear();
}

}  // namespace vshost

namespace {
// Logging must never break the caller, not even when memory runs out.
std::string FormatNoThrow(const char* format, va_list args) __attribute__((format(printf, 1, 0)));
std::string FormatNoThrow(const char* format, va_list args) {
    try {
        return vshost::detail::VFormat(format, args);
    } catch (...) {
        return {};
    }
}
}  // namespace

void InitKTlog(KTLOGHANDLE h, const char* tag, const char* debugKey, unsigned long threadId) {
    if (!h) return;
    h->tag = tag ? tag : "";
    h->debugKey = debugKey ? debugKey : "";
    h->threadId = threadId;
}

void KTlogSetJobID(KTLOGHANDLE h, KTJobID jobId) {
    if (h) h->jobId = jobId;
}

void KTlog(KTLOGHANDLE h, int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string message = FormatNoThrow(format, args);
    va_end(args);
    try {
        static const std::string none;
        vshost::detail::EmitLog(h ? h->tag : none, h ? h->jobId : 0, h ? h->debugKey : none, level, message);
    } catch (...) {
    }
}

EvDebug::EvDebug(void*) {}

void EvDebug::Error(const char* context, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string message = FormatNoThrow(format, args);
    va_end(args);
    try {
        vshost::detail::EmitLog("EvDebug\t", 0, "", KTLOG_ALWAYS, std::string(context ? context : "") + ": " + message);
    } catch (...) {
    }
}

void EvDebug::Debug(const char* function, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string message = FormatNoThrow(format, args);
    va_end(args);
    try {
        vshost::detail::EmitLog("EvDebug\t", 0, "nEVDEBUG", 1, std::string(function ? function : "") + ": " + message);
    } catch (...) {
    }
}
