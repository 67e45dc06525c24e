// Turning VM-info library failures into job messages.
#include "DataReaderVSBase.h"

void DataReaderVSBase::CheckVMInfoError(IVMInfo* vmInfo, MountCtx& ctx) {
    // Pending causes are not raised by this build; the library's code is logged.
    const int code = vmInfo ? vmInfo->GetErrorInfo() : 0;
    KTlog(m_hLog, 1, "%s: VMInfo error [%d] for [%s]", "DataReaderVSBase::CheckVMInfoError", code,
          ctx.sMountedName.c_str());
}
