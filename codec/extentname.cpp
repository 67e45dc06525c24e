// Extent names: "Extent" and the extent number.
#include "hostapi/archive.h"

#include <cstdio>
#include <string_view>

namespace {

constexpr std::string_view kPrefix = "Extent";
constexpr size_t kDigits = 20;  // the digits of the largest 64-bit number

}  // namespace

bool ExtentNameConverter::GetFilePath(unsigned long long extentNumber, std::string& name) {
    char buf[kPrefix.size() + kDigits + 1];
    (void)std::snprintf(buf, sizeof buf, "Extent%020llu", extentNumber);
    name = buf;
    return true;
}

bool ExtentNameConverter::GetExtentNumberFromFileName(const std::string& name, unsigned long long& extentNumber) {
    if (name.size() <= kPrefix.size() || name.compare(0, kPrefix.size(), kPrefix) != 0) return false;
    const std::string_view digits = std::string_view(name).substr(kPrefix.size());
    // Either the full fixed width, or no leading zero (a lone "0" is the number 0).
    if (digits.size() > kDigits) return false;
    if (digits.size() != kDigits && digits.size() > 1 && digits.front() == '0') return false;
    unsigned long long value = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') return false;
        const unsigned d = static_cast<unsigned>(c - '0');
        if (value > (~0ULL - d) / 10) return false;  // beyond 64 bits
        value = value * 10 + d;
    }
    extentNumber = value;
    return true;
}
