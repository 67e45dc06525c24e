// Exported factories of the plug-in. The host owns the reader it gets and deletes it
// through the virtual destructor.
#pragma once

#include "DataReaderVMware.h"
#include "DataReaderVSExtent.h"
#include "DataReaderVSFileCollection.h"

extern "C" {
VS_READER_EXPORT DataReaderVSExtent* CreateDataReaderVSExtent(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId);
VS_READER_EXPORT DataReaderVSFileCollection* CreateDataReaderVSFileCollection(CPipelayer* pipelayer, KtEvent* event,
                                                                              KTJobID jobId);
VS_READER_EXPORT DataReaderVMware* CreateDataReaderVMware(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId);

typedef DataReaderVSExtent* (*CreateDataReaderVSExtentFn)(CPipelayer*, KtEvent*, KTJobID);
typedef DataReaderVSFileCollection* (*CreateDataReaderVSFileCollectionFn)(CPipelayer*, KtEvent*, KTJobID);
typedef DataReaderVMware* (*CreateDataReaderVMwareFn)(CPipelayer*, KtEvent*, KTJobID);
}
