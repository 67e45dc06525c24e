// Turning VM-info library failures into job messages: a debug line in the job's event
// log and a pending cause the operator sees.
#include "DataReaderVSBase.h"
#include "hostapi/fileutil.h"
#include "hostapi/jobclient.h"
#include "hostapi/platform.h"

#include <string>

namespace {

const char* const kFunction = "void DataReaderVSBase::CheckVMInfoError(IVMInfo*, MountCtx&)";

// Platform type of the media agent, for the platform information and the job client.
constexpr unsigned long kPlatformMediaAgent = 2;

// Every cause goes out with the same fixed arguments; only the cause id and the event
// argument differ.
void RaiseCause(KTRstJobClient& client, int causeId, const char* eventArgument) {
    if (eventArgument) client << eventArgument;
    client.setPendingCauseAndEvent(causeId, 3, 0, false, 300, false, 0, 0, 0, 0);
}

// Cause ids of the VM-info failures.
enum : int {
    kCauseVMNotFound = 0x5B000004,
    kCauseLowDiskSpace = 0x5B000005,
    kCauseNonWindowsVM = 0x5B000006,
    kCauseVCBMounterFailed = 0x5B000007,
    kCauseVSSFailed = 0x5B000008,
    kCauseShadowCreation = 0x5B000009,
    kCauseDuplicateFileNames = 0x5B00000C,
    kCauseVCBMounterMissing = 0x5B000014,
    kCauseProxyMountPath = 0x5B000017,
    kCauseVMVersionTooLow = 0x5B000018,
    kCauseConfigPathInvalid = 0x5B000019,
    kCauseVMSnapshot = 0x5B00001A,
    kCauseChangeTracking = 0x5B00001B,
    kCauseVMConnect = 0x5B00001C,
    kCauseConfigDownload = 0x5B00001D,
    kCauseDiskOpen = 0x5B00001E,
    kCauseSnapMetadata = 0x5B00001F,
    kCauseVMRegister = 0x5B000020,
    kCauseVolSnapInfo = 0x5B00002C,
    kCauseSnapVolumeMount = 0x5B00002D,
    kCauseSnapVMList = 0x5B00002E,
    kCauseSnapDatastoreList = 0x5B00002F,
    kCauseHardwareSnapshot = 0x5B000030,
    kCauseDiskOpenDetailed = 0x4800006A,
};

// What the debug line of a failure is formatted with.
enum class DebugArgs { kNone, kVM, kVMAndHost };

// One row per VM-info error code: the debug line, the cause raised and its event
// argument (the VM name, or none), or a cause text with the VM name as "{1}".
struct ErrorRow {
    unsigned code;
    const char* debug;
    DebugArgs args;
    int causeId;
    bool vmArgument;
    const char* causeText;  // when set, the event argument is this text formatted
};

constexpr ErrorRow kErrors[] = {
    {1, "VM [%s] was not found.", DebugArgs::kVM, kCauseVMNotFound, true, nullptr},
    {2, "VM [%s] is Non Windows machine.  Volume/File Mount is not supported.", DebugArgs::kVM, kCauseNonWindowsVM,
     true, nullptr},
    {3, "Don't have Enough space for Job Completion.", DebugArgs::kNone, kCauseLowDiskSpace, true, nullptr},
    {4, "VSS Failed.", DebugArgs::kNone, kCauseVSSFailed, true, nullptr},
    {5, "VCBMounter Failed", DebugArgs::kNone, kCauseVCBMounterFailed, true, nullptr},
    {9, "Files with same names are present to be backed-up", DebugArgs::kNone, kCauseDuplicateFileNames, true, nullptr},
    {11, "Failed to create the shadow.  Backup is failing.", DebugArgs::kNone, kCauseShadowCreation, false, nullptr},
    {12, "VCBMounter Not present..Failing the backup.", DebugArgs::kNone, kCauseVCBMounterMissing, false, nullptr},
    {13, "Proxy mount path error", DebugArgs::kNone, kCauseProxyMountPath, false, nullptr},
    {15, "VM Version is too low", DebugArgs::kNone, kCauseVMVersionTooLow, true, nullptr},
    {16, "VM [%s] config file path is invalid on [%s]", DebugArgs::kVMAndHost, kCauseConfigPathInvalid, true, nullptr},
    {17, "Error creating VM [%s] snapshot.", DebugArgs::kVM, kCauseVMSnapshot, true, nullptr},
    {18, "Error with VM [%s] change tracking.", DebugArgs::kVM, kCauseChangeTracking, true, nullptr},
    {19, "Error connecting to VM [%s]", DebugArgs::kVM, kCauseVMConnect, true, nullptr},
    {21, "Error downloading VM [%s] config file.", DebugArgs::kVM, kCauseConfigDownload, true, nullptr},
    {23, "Error opening VM [%s] disk", DebugArgs::kVM, kCauseDiskOpen, true, nullptr},
    {27, "Error registering VM [%s]", DebugArgs::kVM, kCauseVMRegister, true, nullptr},
    {28, "Error reading SNAP metadata", DebugArgs::kNone, kCauseSnapMetadata, false, nullptr},
    {29, "Error with vol snap info", DebugArgs::kNone, kCauseVolSnapInfo, false, nullptr},
    {30, "Error mounting snap volumes", DebugArgs::kNone, kCauseSnapVolumeMount, false, nullptr},
    {31, "Failed to get VM list from snapshot.", DebugArgs::kNone, kCauseSnapVMList, false, nullptr},
    {32, "Failed to get Datastore list for snapshot.", DebugArgs::kNone, kCauseSnapDatastoreList, false, nullptr},
    {33, "Failed to create hardware snapshot.", DebugArgs::kNone, kCauseHardwareSnapshot, false, nullptr},
    {169, "Error opening VM [%s] disk for SAN access.  It may be necessary to restart services on the MediaAgent.",
     DebugArgs::kVM, kCauseDiskOpenDetailed, true,
     "Unable to open the disk(s) for virtual machine [{1}] for SAN access.  It may be necessary to restart services on the MediaAgent."},
    // The operator's remedy is the plain disk-open one, hence its cause.
    {170, "Error opening VM [%s] disk for SAN access.  SAN is only supported for physical machines.", DebugArgs::kVM,
     kCauseDiskOpen, true, nullptr},
    {213, "Error opening VM [%s] disk.  The VDDK version is too high for the host version.", DebugArgs::kVM,
     kCauseDiskOpenDetailed, true,
     "Unable to open the disk(s) for virtual machine [{1}].  VDDK version 6.5 or higher cannot be used to access virtual machines on hosts running ESX 5.1 or lower."},
    {214, "Error opening VM [%s] disk.  The VDDK version is too low for the host version.", DebugArgs::kVM,
     kCauseDiskOpenDetailed, true,
     "Unable to open the disk(s) for virtual machine [{1}].  VDDK version 6.5 is required to access virtual machines on host version 6.5.  The VDDK will be auto updated.  It may be necessary to restart services on the MediaAgent."},
};

const ErrorRow* RowOf(int code) {
    // Negative codes are no known error; as unsigned they match no row.
    for (const ErrorRow& row : kErrors)
        if (row.code == static_cast<unsigned>(code)) return &row;
    return nullptr;
}

// The debug formats come from the table above, each checked against its DebugArgs.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void LogDebug(EvEvent& event, const ErrorRow& row, const char* vm, const char* host) {
    switch (row.args) {
        case DebugArgs::kNone:
            event.Debug(kFunction, "%s", row.debug);
            break;
        case DebugArgs::kVM:
            event.Debug(kFunction, row.debug, vm);
            break;
        case DebugArgs::kVMAndHost:
            event.Debug(kFunction, row.debug, vm, host);
            break;
    }
}
#pragma GCC diagnostic pop

}  // namespace

void DataReaderVSBase::CheckVMInfoError(IVMInfo* vmInfo, MountCtx& ctx) {
    const int code = vmInfo ? vmInfo->GetErrorInfo() : 0;

    EvEvent event;
    KTRstJobClient client;
    const std::string vmName = ctx.sMountedName;
    const std::string esxHost = ctx.hostCredentials.sHost;
    KTPI_PlatformBase platform(kPlatformMediaAgent);

    // A client that failed to initialise still gets the cause: the host keeps it, and
    // losing the operator's only hint about the failure would be worse.
    if (!client.init(platform.getHubServerHostName(), m_jobId, kPlatformMediaAgent, false, nullptr))
        KTlog(m_hLog, KTLOG_ALWAYS, "JobClient initialization failed");

    const ErrorRow* row = RowOf(code);
    if (!row) {
        event.Debug(kFunction, "Unknown VMInfo error [%d]", code);
        return;
    }
    const char* vm = vmName.c_str();
    LogDebug(event, *row, vm, esxHost.c_str());
    if (row->causeText) {
        const CQiString formatted = CQiString::Format(CQiString(row->causeText), CQiString(vm));
        RaiseCause(client, row->causeId, formatted.c_str());
    } else {
        RaiseCause(client, row->causeId, row->vmArgument ? vm : nullptr);
    }
}
