// Pending causes that job clients raised, as the catalog records them (table
// pending_causes). For tests and tools that check what an operator would be shown.
#pragma once

#include "hostapi/types.h"

#include <string>
#include <vector>

namespace vshost {

struct PendingCause {
    KTJobID jobId = 0;
    int seq = 0;  // 1, 2, ... per job, in the order raised
    int causeId = 0;
    std::vector<std::string> eventArgs;  // the event's text arguments, in order
    int arg2 = 0;
    int arg3 = 0;
    bool flag1 = false;
    int messageType = 0;
    bool flag2 = false;
    int alertLevel = 0;
    unsigned flags = 0;
    unsigned value1 = 0;
    unsigned value2 = 0;
    bool clientReady = false;  // the raising client's init had succeeded
};

// The pending causes of `jobId` in the order they were raised. Throws
// std::runtime_error when the catalog cannot be read.
VS_HOST_API std::vector<PendingCause> PendingCauses(KTJobID jobId);

}  // namespace vshost
