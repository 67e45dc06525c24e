// Construction of the three readers: each logs under its own tag and debug-level key.
#include "DataReaderVSFileCollection.h"

DataReaderVSFileCollection::DataReaderVSFileCollection(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId)
    : DataReaderVSBase(pipelayer, event, jobId) {
    InitKTLog("DM_FS\t", "nDATAREADERVSFS", jobId);
}
