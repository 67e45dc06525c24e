// `vsdm demo`: a sample snapshot and host home in a temporary folder, the extent reader
// over every VM, then verify and restore with vsstream and compare with the source.
#pragma once

#include <ostream>
#include <string>

namespace vsdm {

// `keep`: folder to build in and leave behind; empty for a temporary folder that is
// removed afterwards. Returns the exit status.
int RunDemo(const std::string& keep, std::ostream& out);

}  // namespace vsdm
