#include "hostapi/fxfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

KTHANDLE FXFile::KTCreateFile(const std::string& path, unsigned, unsigned, void*, unsigned, unsigned, void*) {
    return ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

CQiError FXFile::KTGetFileSize(const std::string& path, unsigned long long& size) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return CQiError::FromErrno("stat " + path);
    size = static_cast<unsigned long long>(st.st_size);
    return {};
}

CQiError FXFile::KTReadFile(KTHANDLE handle, void* buffer, unsigned long length, unsigned long& read) {
    read = 0;
    for (;;) {
        const ssize_t n = ::read(handle, buffer, length);
        if (n >= 0) {
            read = static_cast<unsigned long>(n);
            return {};
        }
        if (errno != EINTR) return CQiError::FromErrno("read");
    }
}

void auto_handle::reset(KTHANDLE h) {
    if (m_h != KT_INVALID_HANDLE_VALUE && m_h != h) ::close(m_h);
    m_h = h;
}
