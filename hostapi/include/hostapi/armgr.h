// Archive-manager client and client lookup over the host catalog.
#pragma once

#include "hostapi/types.h"

#include <string>

struct VS_HOST_API GetAfileInfoReq {
    unsigned long long afileId = 0;
    unsigned long long reserved = 0;
    unsigned long long appId = 0;
};

struct VS_HOST_API GetAfileInfoRetCC_t {
    std::string sName;
    std::string sVolume;
    long long backupJobId = 0;
    unsigned int snapEngineId = 0;
};

struct VS_HOST_API CopyPrecedenceReq {
    unsigned long archGroupId = 0;
    unsigned long copyId = 0;
};

class VS_HOST_API ArMgrClientAPI {
public:
    // 0 on success with `answer` filled; non-zero when the archive file is unknown or
    // the catalog cannot be read.
    static int getAfileInfo(const GetAfileInfoReq& request, GetAfileInfoRetCC_t& answer, void* reserved = nullptr);
    static int convertCopyIdToCopyPrecedence(const CopyPrecedenceReq& request, unsigned long& precedence,
                                             void* reserved = nullptr);
};

class VS_HOST_API KTClient {
public:
    KTClient(unsigned long id, const std::string& clientName, bool, unsigned long);
    // 0 on success; otherwise an error number (ENOENT when the name is unknown).
    int getClientId(unsigned long& id, void* reserved = nullptr);

private:
    std::string m_name;
};
