// Every record a pipeline writes, handed to the pipeline's owner as it is written: the
// data mover counts its summary this way instead of reading its stream again.
#pragma once

#include "hostapi/archive.h"
#include "hostapi/types.h"
#include "vscodec/streamreader.h"

#include <functional>

namespace vshost {

// `tap` sees each record decoded as a decoder would read it, in stream order, on the
// thread of the writer that wrote it; a data record's bytes are valid during the call
// only, and offsets are not set. Set before the first record.
VS_HOST_API void TapRecords(CPipelayer& pipe, std::function<void(const StreamRecord&)> tap);

}  // namespace vshost
