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

}  // namespace

void DataReaderVSBase::CheckVMInfoError(IVMInfo* vmInfo, MountCtx& ctx) {
    const int code = vmInfo ? vmInfo->GetErrorInfo() : 0;

    EvEvent event;
    KTRstJobClient client;
    const std::string vmName = ctx.sMountedName;
    const std::string esxHost = ctx.hostCredentials.sHost;
    CQiString formatted;
    KTPI_PlatformBase platform(kPlatformMediaAgent);

    // A client that failed to initialise still gets the cause: the host keeps it, and
    // losing the operator's only hint about the failure would be worse.
    if (!client.init(platform.getHubServerHostName(), m_jobId, kPlatformMediaAgent, false, nullptr))
        KTlog(m_hLog, KTLOG_ALWAYS, "JobClient initialization failed");

    const char* vm = vmName.c_str();
    auto raiseFormatted = [&](int causeId, const char* message) {
        formatted = CQiString::Format(CQiString(message), CQiString(vm));
        RaiseCause(client, causeId, formatted.c_str());
    };

    // Negative codes are no known error; as unsigned they fall to the default.
    switch (static_cast<unsigned>(code)) {
        case 1:
            event.Debug(kFunction, "VM [%s] was not found.", vm);
            RaiseCause(client, kCauseVMNotFound, vm);
            break;
        case 2:
            event.Debug(kFunction, "VM [%s] is Non Windows machine.  Volume/File Mount is not supported.", vm);
            RaiseCause(client, kCauseNonWindowsVM, vm);
            break;
        case 3:
            event.Debug(kFunction, "Don't have Enough space for Job Completion.");
            RaiseCause(client, kCauseLowDiskSpace, vm);
            break;
        case 4:
            event.Debug(kFunction, "VSS Failed.");
            RaiseCause(client, kCauseVSSFailed, vm);
            break;
        case 5:
            event.Debug(kFunction, "VCBMounter Failed");
            RaiseCause(client, kCauseVCBMounterFailed, vm);
            break;
        case 9:
            event.Debug(kFunction, "Files with same names are present to be backed-up");
            RaiseCause(client, kCauseDuplicateFileNames, vm);
            break;
        case 11:
            event.Debug(kFunction, "Failed to create the shadow.  Backup is failing.");
            RaiseCause(client, kCauseShadowCreation, nullptr);
            break;
        case 12:
            event.Debug(kFunction, "VCBMounter Not present..Failing the backup.");
            RaiseCause(client, kCauseVCBMounterMissing, nullptr);
            break;
        case 13:
            event.Debug(kFunction, "Proxy mount path error");
            RaiseCause(client, kCauseProxyMountPath, nullptr);
            break;
        case 15:
            event.Debug(kFunction, "VM Version is too low");
            RaiseCause(client, kCauseVMVersionTooLow, vm);
            break;
        case 16:
            event.Debug(kFunction, "VM [%s] config file path is invalid on [%s]", vm, esxHost.c_str());
            RaiseCause(client, kCauseConfigPathInvalid, vm);
            break;
        case 17:
            event.Debug(kFunction, "Error creating VM [%s] snapshot.", vm);
            RaiseCause(client, kCauseVMSnapshot, vm);
            break;
        case 18:
            event.Debug(kFunction, "Error with VM [%s] change tracking.", vm);
            RaiseCause(client, kCauseChangeTracking, vm);
            break;
        case 19:
            event.Debug(kFunction, "Error connecting to VM [%s]", vm);
            RaiseCause(client, kCauseVMConnect, vm);
            break;
        case 21:
            event.Debug(kFunction, "Error downloading VM [%s] config file.", vm);
            RaiseCause(client, kCauseConfigDownload, vm);
            break;
        case 23:
            event.Debug(kFunction, "Error opening VM [%s] disk", vm);
            RaiseCause(client, kCauseDiskOpen, vm);
            break;
        case 27:
            event.Debug(kFunction, "Error registering VM [%s]", vm);
            RaiseCause(client, kCauseVMRegister, vm);
            break;
        case 28:
            event.Debug(kFunction, "Error reading SNAP metadata");
            RaiseCause(client, kCauseSnapMetadata, nullptr);
            break;
        case 29:
            event.Debug(kFunction, "Error with vol snap info");
            RaiseCause(client, kCauseVolSnapInfo, nullptr);
            break;
        case 30:
            event.Debug(kFunction, "Error mounting snap volumes");
            RaiseCause(client, kCauseSnapVolumeMount, nullptr);
            break;
        case 31:
            event.Debug(kFunction, "Failed to get VM list from snapshot.");
            RaiseCause(client, kCauseSnapVMList, nullptr);
            break;
        case 32:
            event.Debug(kFunction, "Failed to get Datastore list for snapshot.");
            RaiseCause(client, kCauseSnapDatastoreList, nullptr);
            break;
        case 33:
            event.Debug(kFunction, "Failed to create hardware snapshot.");
            RaiseCause(client, kCauseHardwareSnapshot, nullptr);
            break;
        case 169:
            event.Debug(kFunction,
                        "Error opening VM [%s] disk for SAN access.  It may be necessary to restart services on the "
                        "MediaAgent.",
                        vm);
            raiseFormatted(
                kCauseDiskOpenDetailed,
                "Unable to open the disk(s) for virtual machine [{1}] for SAN access.  It may be necessary to "
                "restart services on the MediaAgent.");
            break;
        case 170:
            // The operator's remedy is the plain disk-open one, hence its cause.
            event.Debug(kFunction,
                        "Error opening VM [%s] disk for SAN access.  SAN is only supported for physical machines.", vm);
            RaiseCause(client, kCauseDiskOpen, vm);
            break;
        case 213:
            event.Debug(kFunction, "Error opening VM [%s] disk.  The VDDK version is too high for the host version.",
                        vm);
            raiseFormatted(
                kCauseDiskOpenDetailed,
                "Unable to open the disk(s) for virtual machine [{1}].  VDDK version 6.5 or higher cannot be "
                "used to access virtual machines on hosts running ESX 5.1 or lower.");
            break;
        case 214:
            event.Debug(kFunction, "Error opening VM [%s] disk.  The VDDK version is too low for the host version.",
                        vm);
            raiseFormatted(
                kCauseDiskOpenDetailed,
                "Unable to open the disk(s) for virtual machine [{1}].  VDDK version 6.5 is required to access "
                "virtual machines on host version 6.5.  The VDDK will be auto updated.  It may be necessary "
                "to restart services on the MediaAgent.");
            break;
        default:
            event.Debug(kFunction, "Unknown VMInfo error [%d]", code);
            break;
    }
}
