// Streams on the object store read at any offset with ranged GETs, their index the object
// KEY.idx beside the stream's KEY: for vsstream and its nbdkit plug-in, which reach the
// store the AWS_* variables name.
#pragma once

namespace vsstream {

// From here on OpenStreamBytes reads s3://BUCKET/KEY streams.
void ReadObjects();

}  // namespace vsstream
