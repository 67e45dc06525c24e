// Extent reader: whole virtual disks as numbered extents after the VM's configuration
// files.
#pragma once

#include "DataReaderVSBase.h"

class DataReaderVSExtent : public DataReaderVSBase {
public:
    DataReaderVSExtent(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId);
    ~DataReaderVSExtent() override;
};
