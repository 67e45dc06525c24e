// Every record a pipeline writes, handed to the pipeline's owner as it is written: the
// data mover counts its summary this way instead of reading its stream again.
#pragma once

#include "hostapi/archive.h"
#include "hostapi/types.h"
#include "vscodec/streamreader.h"

#include <cstdint>
#include <functional>

namespace vshost {

// `tap` sees each record decoded as a decoder would read it, in stream order, on the
// thread of the writer that wrote it; a data record's bytes are valid during the call
// only, and offsets are not set. Set before the first record.
VS_HOST_API void TapRecords(CPipelayer& pipe, std::function<void(const StreamRecord&)> tap);

// `places` hears where each record lands in the stream (its number and offset) once its
// bytes are written, in stream order, on a thread of the pipeline's writer; what a tap
// cannot know while packing and compression still run behind it. Set before the first
// record; false afterwards.
VS_HOST_API bool TapPlaces(CPipelayer& pipe, std::function<void(uint64_t index, uint64_t offset)> places);

}  // namespace vshost
