// The host's file layer for whole-file copies: open, size and read, with an owning handle.
#pragma once

#include "hostapi/fileutil.h"
#include "hostapi/types.h"

#include <string>

typedef int KTHANDLE;
constexpr KTHANDLE KT_INVALID_HANDLE_VALUE = -1;

// Access, sharing and disposition values of KTCreateFile.
constexpr unsigned KT_GENERIC_READ = 0x80000000u;
constexpr unsigned KT_FILE_SHARE_READ = 0x1u;
constexpr unsigned KT_OPEN_EXISTING = 3u;

class VS_HOST_API FXFile {
public:
    // Opens `path` for reading (the only access the readers ask for); the error number is
    // left in errno on failure.
    static KTHANDLE KTCreateFile(const std::string& path, unsigned access, unsigned share, void* security,
                                 unsigned disposition, unsigned flags, void* templateFile);
    static CQiError KTGetFileSize(const std::string& path, unsigned long long& size);
    // Reads up to `length` bytes; `read` is 0 at the end of the file.
    static CQiError KTReadFile(KTHANDLE handle, void* buffer, unsigned long length, unsigned long& read);
};

// Closes its descriptor when destroyed.
class VS_HOST_API auto_handle {
public:
    auto_handle() = default;
    explicit auto_handle(KTHANDLE h) : m_h(h) {}
    ~auto_handle() { reset(); }
    auto_handle(const auto_handle&) = delete;
    auto_handle& operator=(const auto_handle&) = delete;
    auto_handle& operator=(KTHANDLE h) {
        reset(h);
        return *this;
    }

    KTHANDLE get() const { return m_h; }
    bool is_valid() const { return m_h != KT_INVALID_HANDLE_VALUE; }
    KTHANDLE release() {
        const KTHANDLE h = m_h;
        m_h = KT_INVALID_HANDLE_VALUE;
        return h;
    }
    void reset(KTHANDLE h = KT_INVALID_HANDLE_VALUE);

private:
    KTHANDLE m_h = KT_INVALID_HANDLE_VALUE;
};
