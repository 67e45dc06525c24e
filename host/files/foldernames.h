// The one way the host lists a folder: names read through a duplicate of an open
// descriptor, so that callers keep their own ownership of it.
#pragma once

#include <string>
#include <vector>

namespace vshost {

// The names in the folder open at `fd` (borrowed; read from its start), "." and ".." left
// out, sorted in byte order. 0, or the errno of the call that failed.
int FolderNames(int fd, std::vector<std::string>& names);

}  // namespace vshost
