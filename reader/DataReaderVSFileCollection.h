// File-collection reader: each virtual disk as a collection of file nodes.
#pragma once

#include "DataReaderVSBase.h"

class DataReaderVSFileCollection : public DataReaderVSBase {
public:
    DataReaderVSFileCollection(CPipelayer* pipelayer, KtEvent* event, KTJobID jobId);
    ~DataReaderVSFileCollection() override;
};
