// Whole numbers of job files, range-checked: a number a field's type cannot hold is
// refused naming the field, never wrapped into another value. The host's job-file
// parser and the data mover read every numeric field through these.
#pragma once

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

namespace vshost {

[[noreturn]] inline void BadJobField(const std::string& origin, const std::string& field, const std::string& why) {
    throw std::runtime_error(origin + ": field \"" + field + "\": " + why);
}

namespace detail {

template <typename T, typename N>
bool JobNumberFits(N n, T min, T max) {
    return std::cmp_greater_equal(n, min) && std::cmp_less_equal(n, max);
}

template <typename T>
[[noreturn]] void JobNumberOutOfRange(const std::string& origin, const std::string& field, T min, T max) {
    BadJobField(origin, field, "expected a whole number from " + std::to_string(min) + " to " + std::to_string(max));
}

}  // namespace detail

// The whole number `v` holds, from `min` to `max` (by default: all that T holds).
template <typename T>
T JobNumber(const nlohmann::json& v, const std::string& origin, const std::string& field,
            T min = std::numeric_limits<T>::min(), T max = std::numeric_limits<T>::max()) {
    if (v.is_number_unsigned()) {
        const auto n = v.get<uint64_t>();
        if (detail::JobNumberFits(n, min, max)) return static_cast<T>(n);
    } else if (v.is_number_integer()) {
        const auto n = v.get<int64_t>();
        if (detail::JobNumberFits(n, min, max)) return static_cast<T>(n);
    }
    detail::JobNumberOutOfRange(origin, field, min, max);
}

// An option number given as an object key (JSON keys are text), from `min` to `max`.
template <typename T>
T JobOptionKey(const std::string& key, const std::string& origin, const std::string& field,
               T min = std::numeric_limits<T>::min(), T max = std::numeric_limits<T>::max()) {
    const std::string name = field + "." + key;
    if (key.empty() || key.size() > 20 || key.find_first_not_of("0123456789") != std::string::npos)
        BadJobField(origin, name, "option keys are option numbers");
    errno = 0;
    const unsigned long long n = std::strtoull(key.c_str(), nullptr, 10);
    if (errno == ERANGE || !detail::JobNumberFits(n, min, max)) detail::JobNumberOutOfRange(origin, name, min, max);
    return static_cast<T>(n);
}

}  // namespace vshost
