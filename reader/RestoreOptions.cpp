// Restore options and snap-mount credentials of the open.
#include "DataReaderVSBase.h"

int DataReaderVSBase::getInPlaceRestoreOptions(unsigned long, unsigned long) {
    // Task options, job options and the credential walk are not read by this build: the
    // reader keeps empty server, ESX host, user and password.
    KTlog(m_hLog, 2, "%s: Restore options are not read by this build.", "DataReaderVSBase::getInPlaceRestoreOptions");
    return 1;
}
