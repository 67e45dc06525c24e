// Making a published name durable: after a rename or link into a folder, the folder
// itself is synced, or a power loss may forget the new name although its data is safe.
#pragma once

#include "hostapi/types.h"

#include <string>

namespace vshost {

// Syncs the folder holding `path`. A folder that cannot be synced (some file systems
// refuse) counts as synced; false with errno set on a real failure.
VS_HOST_API bool SyncFolderOf(const std::string& path);
// How many folder syncs this process made: lets a test see that a publication synced.
VS_HOST_API unsigned long long FolderSyncs();

}  // namespace vshost
