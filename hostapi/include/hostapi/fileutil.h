// String, path, directory and file utilities over POSIX calls.
#pragma once

#include "hostapi/types.h"

#include <string>
#include <vector>

// Result of a file-system operation: 0 for success, otherwise the errno and a text.
class VS_HOST_API CQiError {
public:
    CQiError() = default;
    CQiError(int err, std::string context);
    static CQiError FromErrno(const std::string& context);

    // A failure of the host's own, with a host error code instead of an errno.
    static CQiError VS(int code, std::string context);

    bool IsError() const { return m_err != 0; }
    int Errno() const { return m_vs ? 0 : m_err; }
    bool IsVS(int code) const { return m_vs && m_err == code; }
    // "context: strerror (errno N)", "context (host error N)", or "no error".
    std::string AsString() const;

private:
    int m_err = 0;
    bool m_vs = false;
    std::string m_context;
};

class VS_HOST_API FXErrorUtil {
public:
    static bool IsVS(const CQiError& error, int code) { return error.IsVS(code); }
};

class VS_HOST_API CQiString : public std::string {
public:
    CQiString() = default;
    CQiString(const char* s) : std::string(s ? s : "") {}
    CQiString(std::string s) : std::string(std::move(s)) {}

    // Splits at every `separator` into `parts` (cleared first). An empty text gives no
    // part; adjacent separators give empty parts. No quoting.
    void Tokenize(std::vector<CQiString>& parts, char separator) const;
    // Replaces every "{1}" of `format` with `argument`.
    static CQiString Format(const CQiString& format, const CQiString& argument);
};

class VS_HOST_API FXString {
public:
    static std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
};

class VS_HOST_API FXFolder {
public:
    static bool DoesFolderExist(const std::string& path);
    // Creates the folder and its parents with `mode`; success when it already exists.
    static CQiError Create(const std::string& path, unsigned mode = 0755);
};

class VS_HOST_API FXPath {
public:
    static CQiError AppendTrailingDelimiter(std::string& path);
    static CQiError RemoveTrailingDelimiter(std::string& path);
    static std::string Join(const std::string& a, const std::string& b);
    // `out` becomes `folder` and `file` joined by exactly one delimiter (as Join).
    // `flags` is reserved; pass 0.
    static CQiError Append(std::string& out, const std::string& folder, const std::string& file, int flags);
};

class VS_HOST_API CQiPath {
public:
    static bool Exists(const std::string& path);
    static bool IsDirectory(const std::string& path);
    static bool IsFile(const std::string& path);
    // Last component; trailing delimiters are ignored ("/a/b/" gives "b").
    static std::string GetBaseName(const std::string& path);
};

class VS_HOST_API CQiDirectory {
public:
    // Removes a folder; with `recursive` its whole content first. Never follows links
    // out of the folder.
    static CQiError Remove(const std::string& path, bool recursive, bool force = false);
    // Creates a folder (mode 0755 before the umask); with `recursive` its missing
    // parents too. Success when the folder already exists; ENOTDIR when something
    // else occupies the name.
    static CQiError Create(const char* path, bool recursive);
};

class VS_HOST_API CQiFile {
public:
    static CQiError Delete(const std::string& path, bool force = false);
};
