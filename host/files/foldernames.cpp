#include "files/foldernames.h"

#include <dirent.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vshost {

int FolderNames(int fd, std::vector<std::string>& names) {
    names.clear();
    const int copy = ::dup(fd);
    if (copy < 0) return errno;
    DIR* dir = ::fdopendir(copy);
    if (!dir) {
        const int err = errno;
        ::close(copy);
        return err;
    }
    ::rewinddir(dir);  // the duplicate shares its position with the original
    int err = 0;
    for (;;) {
        errno = 0;
        const dirent* e = ::readdir(dir);
        if (!e) {
            err = errno;
            break;
        }
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) names.emplace_back(e->d_name);
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    return err;
}

}  // namespace vshost
