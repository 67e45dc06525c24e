// Error values, strings and path names.
#include "hostapi/fileutil.h"
#include "detail.h"

#include <sys/stat.h>
#include <cerrno>
#include <cstring>

CQiError::CQiError(int err, std::string context) : m_err(err), m_context(std::move(context)) {}

CQiError CQiError::FromErrno(const std::string& context) {
    int err = errno;
    return CQiError(err, context);
}

CQiError CQiError::VS(int code, std::string context) {
    CQiError error(code, std::move(context));
    error.m_vs = true;
    return error;
}

std::string CQiError::AsString() const {
    if (m_err == 0) return "no error";
    if (m_vs) return m_context + " (host error " + std::to_string(m_err) + ")";
    char buf[256];
    const char* text = strerror_r(m_err, buf, sizeof buf);
    return m_context + ": " + text + " (errno " + std::to_string(m_err) + ")";
}

void CQiString::Tokenize(std::vector<CQiString>& parts, char separator) const {
    parts.clear();
    if (empty()) return;
    size_t start = 0;
    for (;;) {
        size_t pos = find(separator, start);
        if (pos == npos) {
            parts.emplace_back(substr(start));
            return;
        }
        parts.emplace_back(substr(start, pos - start));
        start = pos + 1;
    }
}

CQiString CQiString::Format(const CQiString& format, const CQiString& argument) {
    static const std::string marker = "{1}";
    CQiString out;
    size_t start = 0;
    for (size_t pos; (pos = format.find(marker, start)) != npos; start = pos + marker.size()) {
        out.append(format, start, pos - start);
        // The argument is not searched again: a "{1}" inside it stays literal.
        out += argument;
    }
    out.append(format, start, npos);
    return out;
}

std::string FXString::Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string out;
    try {
        out = vshost::detail::VFormat(format, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
    return out;
}

CQiError FXPath::AppendTrailingDelimiter(std::string& path) {
    if (!path.empty() && path.back() != '/') path += '/';
    return {};
}

CQiError FXPath::RemoveTrailingDelimiter(std::string& path) {
    if (path.size() > 1 && path.back() == '/') path.pop_back();
    return {};
}

std::string FXPath::Join(const std::string& a, const std::string& b) {
    if (a.empty()) return b;
    if (b.empty()) return a;
    std::string head = a;
    while (head.size() > 1 && head.back() == '/') head.pop_back();
    size_t skip = b.find_first_not_of('/');
    if (skip == std::string::npos) skip = b.size();
    if (head != "/") head += '/';
    return head + b.substr(skip);
}

bool CQiPath::Exists(const std::string& path) {
    // A dangling link still occupies its name.
    struct stat sb {};
    return !path.empty() && lstat(path.c_str(), &sb) == 0;
}

bool CQiPath::IsDirectory(const std::string& path) {
    struct stat sb {};
    return !path.empty() && stat(path.c_str(), &sb) == 0 && S_ISDIR(sb.st_mode);
}

bool CQiPath::IsFile(const std::string& path) {
    struct stat sb {};
    return !path.empty() && stat(path.c_str(), &sb) == 0 && S_ISREG(sb.st_mode);
}

std::string CQiPath::GetBaseName(const std::string& path) {
    size_t end = path.find_last_not_of('/');
    if (end == std::string::npos) return path.empty() ? std::string() : std::string("/");
    size_t slash = path.rfind('/', end);
    size_t start = slash == std::string::npos ? 0 : slash + 1;
    return path.substr(start, end - start + 1);
}

CQiError FXPath::Append(std::string& out, const std::string& folder, const std::string& file, int) {
    // Built aside first: callers may pass the same string as `out` and `folder`.
    std::string joined = Join(folder, file);
    out = std::move(joined);
    return {};
}
