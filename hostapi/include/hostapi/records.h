// Value records exchanged between the readers and the VM-info library. They own their
// strings and containers, hold no pointers and are copied freely.
#pragma once

#include "hostapi/VMInfoStructs.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

// One archive file of a reader's list.
struct AFileID {
    uint64_t afileId = 0;
    bool bMounted = false;  // the snapshot holding this archive file is mounted
    bool operator==(const AFileID&) const = default;
};

// One set of server credentials. The password is in the form its supplier gives it:
// stored (encrypted) in a mount context, clear in the list handed to IVMInfo::Connect.
struct SHostCredentials {
    std::string sHost;
    std::string sServer;
    std::string sUser;
    std::string sPassword;
    int32_t nType = 1;

    SHostCredentials() = default;
    SHostCredentials(const SHostCredentials& o) { _Copy(o); }
    SHostCredentials& operator=(const SHostCredentials& o) {
        if (this != &o) _Copy(o);
        return *this;
    }
    ~SHostCredentials() = default;
    bool operator==(const SHostCredentials&) const = default;

private:
    void _Copy(const SHostCredentials& o) {
        sHost = o.sHost;
        sServer = o.sServer;
        sUser = o.sUser;
        sPassword = o.sPassword;
        nType = o.nType;
    }
};

// One disk to include in a VM mount; the readers always filter by disk name (type 7).
struct SDiskFilter {
    static constexpr int32_t kByDiskName = 7;

    int32_t nFilterType = 0;  // the readers always set it
    std::string sDiskName;
    std::string sText2;
    std::string sText3;
    std::string sText4;
    int32_t nFlags = 1;

    SDiskFilter() {}
    SDiskFilter(const SDiskFilter&) = default;
    SDiskFilter(SDiskFilter&&) noexcept = default;
    SDiskFilter& operator=(const SDiskFilter&) = default;
    SDiskFilter& operator=(SDiskFilter&&) noexcept = default;
    ~SDiskFilter() = default;
    bool operator==(const SDiskFilter&) const = default;
};

// One datastore volume of a mounted snapshot, filled by the VM-info library.
struct SVolSnap {
    std::string sVolume;      // datastore name
    std::string sSnapVolume;  // snapshot volume as the archive file names it
    std::string sMountPath;   // where the volume is reached
    uint64_t ullAfileId = 0;
    std::vector<std::string> vmGuids;  // VMs found on the volume

    SVolSnap() = default;
    SVolSnap(const SVolSnap& o) { _Copy(o); }
    SVolSnap& operator=(const SVolSnap& o) {
        if (this != &o) _Copy(o);
        return *this;
    }
    ~SVolSnap() = default;
    bool operator==(const SVolSnap&) const = default;

private:
    void _Copy(const SVolSnap& o) {
        sVolume = o.sVolume;
        sSnapVolume = o.sSnapVolume;
        sMountPath = o.sMountPath;
        ullAfileId = o.ullAfileId;
        vmGuids = o.vmGuids;
    }
};

// One VM found on a mounted snapshot, filled by the VM-info library.
struct SVMBasicInfo {
    std::string sVMName;
    std::string sVMGuid;
    std::string sConfigPath;

    SVMBasicInfo() = default;
    SVMBasicInfo(const SVMBasicInfo& o) { _Copy(o); }
    SVMBasicInfo& operator=(const SVMBasicInfo& o) {
        if (this != &o) _Copy(o);
        return *this;
    }
    ~SVMBasicInfo() = default;
    bool operator==(const SVMBasicInfo&) const = default;

private:
    void _Copy(const SVMBasicInfo& o) {
        sVMName = o.sVMName;
        sVMGuid = o.sVMGuid;
        sConfigPath = o.sConfigPath;
    }
};

// One per-item failure reported by the VM-info library.
struct SFailure {
    std::string sItem;
    int32_t nErrorCode = 0;
    std::string sReason;

    SFailure() = default;
    SFailure(const SFailure& o) { _Copy(o); }
    SFailure& operator=(const SFailure& o) {
        if (this != &o) _Copy(o);
        return *this;
    }
    ~SFailure() = default;
    bool operator==(const SFailure&) const = default;

private:
    void _Copy(const SFailure& o) {
        sItem = o.sItem;
        nErrorCode = o.nErrorCode;
        sReason = o.sReason;
    }
};

// Sub-record of a mount context carried for the library; no reader sets it.
struct TdfsCtx {
    int32_t nValue1 = 0;
    int32_t nValue2 = 0;
    std::string sText1;
    std::string sText2;
    std::string sText3;
    std::string sText4;
    std::string sText5;
    std::string sText6;
    std::string sText7;
    std::string sText8;
    std::string sText9;
    int32_t nValue3 = 0;
    int32_t nValue4 = 0;
    int64_t llValue1 = 0;
    int64_t llValue2 = 0;
    int64_t llValue3 = 0;
    std::map<std::string, std::string> properties;
    std::string sText10;
    std::string sText11;
    std::string sText12;
    bool bFlag1 = false;
    bool bFlag2 = false;
    bool bFlag3 = false;
    bool bFlag4 = false;
    bool bFlag5 = false;
    bool bFlag6 = false;
    bool bFlag7 = false;
    bool bFlag8 = false;
    bool bFlag9 = false;
    bool bFlag10 = false;
    bool bFlag11 = false;
    bool bFlag12 = false;
    bool bFlag13 = false;
    bool bFlag14 = false;
    bool bFlag15 = false;

    bool operator==(const TdfsCtx&) const = default;
};

// A mount request and, once the library has filled it, the description of what was
// mounted. Fields are in the library's order; the reserved ones are carried unchanged.
struct MountCtx {
    int32_t nMountMode = 0;          // 1
    std::string sMountedName;        // 2
    std::string sVMName;             // 3
    std::string sVersion;            // 4: version text of the mounting library ("9.0" names disks by their second name)
    std::string sMountPoint;         // 5
    std::string sJobResultsDir;      // 6
    int64_t nJobId = 0;              // 7
    int64_t nSnapJobId = 0;          // 8
    int32_t nClientId = 0;           // 9
    int32_t nReserved10 = 0;         // 10
    int32_t nAppId2 = 0;             // 11
    int32_t nReserved12 = 0;         // 12
    int32_t nReserved13 = 0;         // 13
    int32_t nHubcellId = 0;          // 14
    int32_t nSnapEngineId = 0;       // 15
    int64_t llReserved16 = 0;        // 16
    bool bMountRequest = false;      // 17
    std::string sReserved18;         // 18
    std::string sReserved19;         // 19
    std::string sReserved20;         // 20
    std::string sReserved21;         // 21
    bool bOption1 = false;           // 22
    bool bMountFlag = false;         // 23
    bool bReserved24 = false;        // 24
    std::vector<SVolSnap> volSnaps;  // 25
    std::string sMountedPath;        // 26
    std::string sReserved27;         // 27
    bool bReserved28 = false;        // 28
    int32_t nReserved29 = 0;         // 29
    std::string sSnapMountPath;      // 30
    std::string sRemoteCacheDir;     // 31
    bool bPathMount = false;         // 32
    bool bReserved33 = false;        // 33
    bool bReserved34 = false;        // 34
    bool bReserved35 = false;        // 35
    int32_t nReserved36 = 0;         // 36
    std::string sReserved37;         // 37
    std::string sReserved38;         // 38
    int32_t nReserved39 = -1;        // 39
    std::string sReserved40;         // 40
    int32_t nReserved41 = 0;         // 41
    std::vector<SVMBasicInfo> vmBasicInfos;          // 42
    SHostCredentials hostCredentials;                // 43
    VMInfoStructs::SVMInfo vmInfo;                   // 44
    std::map<std::string, std::string> mReserved45;  // 45
    std::vector<SFailure> failures;                  // 46
    bool bReserved47 = false;                        // 47
    bool bReserved48 = false;                        // 48
    std::string sReserved49;                         // 49
    std::string sReserved50;                         // 50
    bool bReserved51 = false;                        // 51
    bool bVMMountFlag = false;                       // 52
    bool bReserved53 = false;                        // 53
    int32_t nCopyId = 0;                             // 54
    int32_t nCopyPrecedence = 0;                     // 55
    bool bReserved56 = false;                        // 56
    bool bOptionType102 = false;                     // 57
    bool bReserved58 = false;                        // 58
    int32_t nClientId2 = 0;                          // 59
    int32_t nReserved60 = 0;                         // 60
    std::string sReserved61;                         // 61
    std::string sReserved62;                         // 62
    bool bReserved63 = false;                        // 63
    std::string sReserved64;                         // 64
    bool bBlockLevelBrowseApplies = false;           // 65
    bool bReserved66 = false;                        // 66
    bool bOptionType100 = false;                     // 67
    std::vector<SDiskFilter> diskFilters;            // 68
    std::map<std::string, std::string> mReserved69;  // 69
    bool bReserved70 = false;                        // 70
    bool bReserved71 = false;                        // 71
    std::string sReserved72;                         // 72
    bool bUseCBT = false;                            // 73
    bool bReserved74 = false;                        // 74
    int64_t llReserved75 = 0;                        // 75
    std::string sReserved76;                         // 76
    bool bReserved77 = false;                        // 77
    std::string sReserved78;                         // 78
    bool bReserved79 = false;                        // 79
    std::vector<uint64_t> afileIds;                  // 80
    int32_t nReserved81 = 0;                         // 81
    std::string sReserved82;                         // 82
    bool bReserved83 = false;                        // 83
    int32_t nReserved84 = -1;                        // 84
    bool bReserved85 = false;                        // 85
    bool bReserved86 = false;                        // 86
    bool bBlockLevelBrowse = false;                  // 87
    bool bReserved88 = false;                        // 88
    int64_t llReserved89 = 0;                        // 89
    std::string sReserved90;                         // 90
    std::string sReserved91;                         // 91
    bool bReserved92 = false;                        // 92
    TdfsCtx tdfsCtx;                                 // 93
    std::string sReserved94;                         // 94
    bool bReserved95 = false;                        // 95
    std::string sReserved96;                         // 96
    bool bReserved97 = false;                        // 97
    bool bReserved98 = false;                        // 98
    bool bReserved99 = false;                        // 99
    int32_t nReserved100 = 0;                        // 100
    bool bReserved101 = false;                       // 101
    int32_t nXmlVMValue = 0;                         // 102
    int64_t nXmlVMValue64 = 0;                       // 103
    bool bIndexingV2 = false;                        // 104
    std::string sXmlVMText;                          // 105
    bool bReserved106 = false;                       // 106
    bool bReserved107 = false;                       // 107
    bool bReserved108 = false;                       // 108
    bool bReserved109 = false;                       // 109
    std::string sReserved110;                        // 110
    bool bReserved111 = false;                       // 111
    bool bReserved112 = false;                       // 112
    int64_t llReserved113 = 0;                       // 113
    bool bReserved114 = false;                       // 114
    std::string sReserved115;                        // 115
    bool bReserved116 = false;                       // 116
    int32_t nReserved117 = 0;                        // 117
    std::string sReserved118;                        // 118
    std::string sReserved119;                        // 119
    bool bReserved120 = false;                       // 120
    std::string sReserved121;                        // 121
    std::string sReserved122;                        // 122
    std::string sReserved123;                        // 123
    int32_t nReserved124 = 0;                        // 124
    int32_t nReserved125 = 0;                        // 125
    int32_t nReserved126 = 0;                        // 126
    bool bReserved127 = false;                       // 127
    bool bReserved128 = false;                       // 128
    bool bReserved129 = false;                       // 129

    bool operator==(const MountCtx&) const = default;
};

// A mounted VM: its mount context and its mounted guest volumes.
struct DataReaderVMCtx {
    MountCtx mountCtx;
    std::vector<VMInfoStructs::SMountInfoFile> mountInfoFiles;
    bool operator==(const DataReaderVMCtx&) const = default;
};
