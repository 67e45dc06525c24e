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
    // Splits `text` at every occurrence of `separator` (not empty) into `parts`
    // (cleared first). Empty parts are dropped: "a\\b\" gives "a" and "b"; an empty
    // text gives no part.
    static void Split(const std::string& text, const std::string& separator, std::vector<std::string>& parts);
    // ASCII upper case; other bytes (UTF-8 sequences) are left as they are.
    static std::string ToUpper(const std::string& text);
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
    // Whether `path` itself is a symbolic link. Nothing there (an empty path included)
    // is not a link and no error; any other failure to look is an error. A path outside
    // every mounted guest volume is not looked at and counts as no link.
    static CQiError IsLink(const std::string& path, bool& isLink);
    // `folder` and `name` joined by exactly one "/".
    static std::string Append(const std::string& folder, const std::string& name);
};

class VS_HOST_API CQiDirectory {
public:
    // Called for each entry of a walk with the folder it lies in and its name; an error
    // ends the walk with that error.
    typedef CQiError (*WalkCallback)(const char* dir, const char* name, bool isDir, void* ctx);
    // Calls `callback` for every entry below `path`, folders before their content,
    // names in byte order within a folder: the top level only when `subDirLevel` is 0,
    // every level when it is -1 (n > 0: n levels below the top). Links are reported,
    // never followed. With `stopOnError` an unreadable subfolder ends the walk with its
    // error; otherwise it is passed over. Only a folder of a mounted guest volume is
    // walked, opened from the volume's folder without leaving it: no job lists the
    // backup host's own file system.
    static CQiError Walk(const std::string& path, void* ctx, int subDirLevel, bool stopOnError, WalkCallback callback);
    // Whether `name` matches `pattern`, where "*" matches any run of characters
    // (none included) and "?" exactly one; ASCII case is ignored when `ignoreCase`.
    static bool MatchWildcard(const std::string& name, const std::string& pattern, bool ignoreCase);
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
