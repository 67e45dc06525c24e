// Streams on the object store read at any offset with ranged GETs, their index the object
// KEY.idx beside the stream's KEY: for vsstream and its nbdkit plug-in, which reach the
// store the AWS_* variables name.
#pragma once

#include "streamindex.h"
#include "vsobj/s3.h"

#include <memory>

namespace vsstream {

// The object at `at`, reached with `settings`.
std::unique_ptr<StreamBytes> ObjectBytes(const vsobj::S3Settings& settings, const vsobj::S3Location& at);

// From here on OpenStreamBytes reads s3://BUCKET/KEY streams.
void ReadObjects();

}  // namespace vsstream
