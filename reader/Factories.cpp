// Factories the data mover resolves with dlsym, one per reader.
#include "Factories.h"

#include <new>

extern "C" {

DataReaderVSExtent* CreateDataReaderVSExtent(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId) {
    EvDebug debug(nullptr);
    auto* reader = new (std::nothrow) DataReaderVSExtent(pipelayer, event, jobId);
    if (!reader)
        debug.Error("DataReaderVSExtent* CreateDataReaderVSExtent(CPipelayer*, KtEvent*, KTJobID)", "%s",
                    "Failed to create new DataReaderVSExtent object");
    return reader;
}

DataReaderVSFileCollection* CreateDataReaderVSFileCollection(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId) {
    EvDebug debug(nullptr);
    auto* reader = new (std::nothrow) DataReaderVSFileCollection(pipelayer, event, jobId);
    if (!reader)
        debug.Error("DataReaderVSFileCollection* CreateDataReaderVSFileCollection(CPipelayer*, KtEvent*, KTJobID)",
                    "%s", "Failed to create new DataReaderVSFileCollection object");
    return reader;
}

DataReaderVMware* CreateDataReaderVMware(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId) {
    EvDebug debug(nullptr);
    auto* reader = new (std::nothrow) DataReaderVMware(pipelayer, event, jobId);
    if (!reader)
        debug.Error("DataReaderVMware* CreateDataReaderVMware(CPipelayer*, KtEvent*, KTJobID)", "%s",
                    "Failed to create new DataReaderVMware object");
    return reader;
}

}  // extern "C"
