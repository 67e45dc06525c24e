// Payloads of stream records, field by field. Internal to the host.
#pragma once

#include "vscodec/streamreader.h"

#include <string>
#include <string_view>

namespace vshost::detail {

// Decodes the payload of a record of a known `kind` into `body`. False with `why` when
// the payload does not hold the kind's fields exactly; bytes past the known fields are
// accepted only with `allowExtra` (a stream of a later minor version). `minor` is the
// stream's minor version: fields a version added are read from it on.
bool ParseRecordBody(stream::Kind kind, std::string_view payload, uint16_t minor, bool allowExtra, RecordBody& body,
                     std::string& why);

}  // namespace vshost::detail
