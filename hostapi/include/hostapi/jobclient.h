// Job clients: raise pending causes, each with an event, on a job. The readers use the
// restore job client to report VM-info failures to the operator.
#pragma once

#include "hostapi/log.h"
#include "hostapi/types.h"

#include <string>
#include <vector>

// An event under construction: the text arguments that the next pending cause raises
// with it. EvDebug is its debug channel.
class VS_HOST_API EvEvent : public EvDebug {
public:
    EvEvent() : EvDebug(nullptr) {}

    // Appends one text argument (null counts as empty). Never throws.
    EvEvent& operator<<(const char* argument);

    const std::vector<std::string>& EventArguments() const { return m_eventArgs; }
    void ClearEventArguments() { m_eventArgs.clear(); }

private:
    std::vector<std::string> m_eventArgs;
};

// A client of the job manager for one job. The event arguments appended to it go out
// with the next pending cause.
class VS_HOST_API KTJobClient : public EvEvent {
public:
    KTJobClient() = default;

    // Raises pending cause `causeId` on the job with the event arguments appended so far,
    // then clears them. The other arguments are passed on unchanged. Returns 0 when the
    // cause was recorded, -1 otherwise (the reason is logged). Never throws.
    int setPendingCauseAndEvent(int causeId, int arg2, int arg3, bool flag1, EvMessageType messageType, bool flag2,
                                JMGUIAlertColorLevel alertLevel, JMPendingCauseFlags flags, unsigned int value1,
                                unsigned int value2);

protected:
    KTJobID m_jobId = 0;
    bool m_bReady = false;  // init succeeded
};

// The job client of a restore job.
class VS_HOST_API KTRstJobClient : public KTJobClient {
public:
    KTRstJobClient() = default;

    // Binds the client to job `jobId` on the central server `serverHostName`. True only
    // when that name is this installation's central server; the job id is kept either
    // way. Never throws.
    bool init(const char* serverHostName, long long jobId, KTS_PLATFORMTYPE platform, bool reserved = false,
              const char* reservedText = nullptr);
};
