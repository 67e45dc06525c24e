// `vsdm demo`: a sample snapshot and host home in a temporary folder, the extent reader
// over every VM, then verify and restore with vsstream and compare with the source.
#pragma once

#include <ostream>
#include <string>

namespace vsdm {

// `keep`: folder to build in and leave behind; empty for a temporary folder that is
// removed afterwards. `home`: the host home to make the sample snapshot in (new or
// empty), left in place; empty for one inside the demo's folder. Returns the exit status.
int RunDemo(const std::string& keep, const std::string& home, std::ostream& out);

}  // namespace vsdm
