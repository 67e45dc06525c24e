// File-level reader: single files of a mounted guest volume, listed in a collect file.
#pragma once

#include "DataReaderVSBase.h"

class DataReaderVMware : public DataReaderVSBase {
public:
    DataReaderVMware(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId);
    ~DataReaderVMware() override;
};
