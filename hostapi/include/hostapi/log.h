// Host log: one line per call, tagged with time, pid, thread, job id and the reader's tag.
#pragma once

#include "hostapi/types.h"

#include <string>

// Log object allocated by the reader and prepared with InitKTlog.
struct VS_HOST_API KTLogObject {
    std::string tag;
    std::string debugKey;  // settings key whose number is the highest level written
    unsigned long threadId = 0;
    KTJobID jobId = 0;
};
typedef KTLogObject* KTLOGHANDLE;

// Level for lines that must always appear.
constexpr int KTLOG_ALWAYS = -1;

VS_HOST_API void InitKTlog(KTLOGHANDLE h, const char* tag, const char* debugKey, unsigned long threadId);
VS_HOST_API void KTlogSetJobID(KTLOGHANDLE h, KTJobID jobId);
// printf-style line. Levels 1..3; -1 always appears. A null handle is accepted and
// logs under no tag.
VS_HOST_API void KTlog(KTLOGHANDLE h, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Debug reporter for code that runs before a log object exists (the factories).
class VS_HOST_API EvDebug {
public:
    explicit EvDebug(void* owner = nullptr);
    void Error(const char* context, const char* format, ...) __attribute__((format(printf, 3, 4)));
    void Debug(const char* function, const char* format, ...) __attribute__((format(printf, 3, 4)));
};
