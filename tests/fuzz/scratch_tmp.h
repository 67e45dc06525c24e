// Where a fuzz target keeps its temporary host home. Every input writes files there (the
// item's collect file, the host's log, a backup XML) and the host syncs some of them, so
// on a disk the syncs cost more than the work; a memory file system makes them free.
#pragma once

#include <unistd.h>
#include <cstdlib>

namespace vsfuzz {

// Points TMPDIR at /dev/shm unless the caller chose a folder; construct before the home.
struct MemoryTmp {
    MemoryTmp() {
        const char* tmp = std::getenv("TMPDIR");
        if ((!tmp || !*tmp) && ::access("/dev/shm", W_OK | X_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 1);
    }
};

}  // namespace vsfuzz
