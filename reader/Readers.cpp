// Construction of the three readers: each logs under its own tag and debug-level key.
#include "DataReaderVMware.h"
#include "DataReaderVSExtent.h"
#include "DataReaderVSFileCollection.h"

DataReaderVSExtent::DataReaderVSExtent(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId)
    : DataReaderVSBase(pipelayer, event, jobId) {
    InitKTLog("DM_VSEXT\t", "nDATAREADERVSEXT", jobId);
}

DataReaderVSExtent::~DataReaderVSExtent() = default;

DataReaderVSFileCollection::DataReaderVSFileCollection(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId)
    : DataReaderVSBase(pipelayer, event, jobId) {
    InitKTLog("DM_FS\t", "nDATAREADERVSFS", jobId);
}

DataReaderVSFileCollection::~DataReaderVSFileCollection() = default;

DataReaderVMware::DataReaderVMware(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId)
    : DataReaderVSBase(pipelayer, event, jobId) {
    InitKTLog("DM_VSVMWARE", "nDATAMOVERVSWARE", jobId);
}

DataReaderVMware::~DataReaderVMware() = default;
