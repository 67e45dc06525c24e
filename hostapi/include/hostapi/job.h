// The job's task options and event options, as the scheduler and the event manager
// hand them to a reader.
#pragma once

#include "hostapi/types.h"

// Task option numbers the readers read.
enum ktTaskOptions : int {
    KT_TASKOPT_RST_USER_NAME = 75,
    KT_TASKOPT_RST_USER_PASSWORD = 76,
    KT_TASKOPT_RST_SERVER_NAME = 77,
    KT_TASKOPT_RST_HOST_OR_CLUSTER = 82,  // "optRstHostHostOrCluster"
};

// Event option: the job is a failback replication job.
constexpr unsigned long long EV_OPTION_FAILBACK_REPLICATION = 120015;

class VS_HOST_API SchedularInterfaceNet {
public:
    // Copies the task option's value into `buffer` (always terminated, cut to `size`);
    // non-zero when the job has the option.
    static int GetTaskOptionString(long long jobId, ktTaskOptions option, char* buffer, unsigned long size);
};

class VS_HOST_API EvTask {
public:
    EvTask(unsigned long long jobId, int, void*, bool);
    // 0 on success with `value` set (false when the job does not set the option);
    // non-zero when the job is unknown.
    int getOptionBool(unsigned long long option, bool& value, void* reserved = nullptr);

private:
    unsigned long long m_jobId;
};
