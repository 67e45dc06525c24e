// Binding to the VM-info library, loaded at run time and kept loaded for the process.
#include "DataReaderVSBase.h"

#include <dlfcn.h>
#include <cerrno>

bool DataReaderVSBase::LoadVMInfoDLL() {
    if (m_hVMInfoLib) return true;
    errno = 0;
#if defined(__SANITIZE_ADDRESS__)
    // The sanitizer's dlopen interceptor becomes the caller, so the loader would not
    // search this library's own folder; dlmopen into the base namespace is the same
    // load without the interceptor.
    m_hVMInfoLib = dlmopen(LM_ID_BASE, VMINFO_LIBRARY_NAME, RTLD_LAZY);
#else
    m_hVMInfoLib = dlopen(VMINFO_LIBRARY_NAME, RTLD_LAZY);
#endif
    if (m_hVMInfoLib) return true;
    const int err = errno;
    const char* why = dlerror();
    KTlog(m_hLog, -1, "%s: ERROR: LoadLibrary(%s) failed! Err=0x%x", "DataReaderVSBase::LoadVMInfoDLL",
          VMINFO_LIBRARY_NAME, static_cast<unsigned>(err));
    if (why) KTlog(m_hLog, 1, "%s: %s", "DataReaderVSBase::LoadVMInfoDLL", why);
    return false;
}

IVMInfo* DataReaderVSBase::CreateIVMInfoObject() {
    if (!m_hVMInfoLib && !LoadVMInfoDLL()) return nullptr;
    errno = 0;
    dlerror();
    auto create = reinterpret_cast<CreateVMInfoObjectByJobIdFn>(dlsym(m_hVMInfoLib, VMINFO_CREATE_SYMBOL));
    if (!create) {
        KTlog(m_hLog, -1, "%s: ERROR: Could not map proc address CreateVMInfoObject in VMInfo.dll Err=0x%x",
              "DataReaderVSBase::CreateIVMInfoObject", static_cast<unsigned>(errno));
        return nullptr;
    }
    IVMInfo* obj = nullptr;
    create(static_cast<int>(m_vsInstanceType), m_jobId, &obj);
    return obj;
}

bool DataReaderVSBase::DeleteIVMInfoObject(IVMInfo* obj) {
    errno = 0;
    dlerror();
    auto release =
        m_hVMInfoLib ? reinterpret_cast<DeleteVMInfoObjectFn>(dlsym(m_hVMInfoLib, VMINFO_DELETE_SYMBOL)) : nullptr;
    if (!release) {
        KTlog(m_hLog, -1, "%s: ERROR: Could not map proc address DeleteVMInfoObject in VMInfo.dll Err=0x%x",
              "DataReaderVSBase::DeleteIVMInfoObject", static_cast<unsigned>(errno));
        return true;
    }
    release(obj);
    return true;
}

bool DataReaderVSBase::PrepareVMInfoObject() {
    static const char* const kFn = "DataReaderVSBase::PrepareVMInfoObject";
    if (m_pVMInfo) return true;

    m_pVMInfo = CreateIVMInfoObject();
    if (!m_pVMInfo) return false;

    if (m_pVMInfo->Init(0) == 0) {
        KTlog(m_hLog, 1, "%s: IVMInfo::Init() failed.", kFn);
        DeleteIVMInfoObject(m_pVMInfo);
        m_pVMInfo = nullptr;
        return false;
    }

    const int instanceType = static_cast<int>(m_vsInstanceType);
    std::string server;
    std::string user;
    std::string password;
    // Besides a vCenter, the plain VMware instance connects with the reader's own server,
    // user and proxy password.
    if (instanceType == 100 || IsVirtualCenterInstance(instanceType)) {
        server = m_sVCName;
        user = m_sUserName;
        password = m_ProxyDecryptedPassword;
    }

    // A block-level reader reads the snapshot directly and needs no server session.
    if (m_bVSBlockLevel) return true;

    vsAppMgrServerCredentials serverCreds;
    std::vector<SHostCredentials> hosts;
    if (m_appMgr.getCredentials(&serverCreds, hosts) != 0)
        KTlog(m_hLog, 1, "%s: Failed to read the application's server credentials.", kFn);

    if (instanceType == 402 || instanceType == 403) {
        if (!hosts.empty()) {
            server = hosts.front().sServer;
            KTlog(m_hLog, 1, "%s: Setting Server for Azure [%s]", kFn, server.c_str());
        }
    } else if (instanceType == 1501) {
        if (hosts.empty()) {
            KTlog(m_hLog, 1, "%s: No server credentials stored for the application.", kFn);
        } else {
            server = hosts.front().sServer;
            user = hosts.front().sUser;
            password = hosts.front().sPassword;
        }
    }

    m_pVMInfo->SetOption("connectForBackupCopy", 0);

    if (m_pVMInfo->Connect(server, user, password, hosts) != 0) {
        KTlog(m_hLog, 2, "%s: Virtual Server Extent based DataReader now has a connected IVMInfo interface to use.",
              kFn);
        return true;
    }
    KTlog(m_hLog, 1, "%s: IVMInfo::Connect() failed.", kFn);
    m_pVMInfo->Uninit(1);
    DeleteIVMInfoObject(m_pVMInfo);
    m_pVMInfo = nullptr;
    return false;
}

void DataReaderVSBase::CleanupVMInfoObject() {
    if (!m_pVMInfo) return;
    m_pVMInfo->Disconnect();
    m_pVMInfo->Uninit(1);
    DeleteIVMInfoObject(m_pVMInfo);
    m_pVMInfo = nullptr;
}
