#include "model/device_numbers.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <limits>

int32_t deviceStrtol(const char* text, int base) {
    const long long value = std::strtoll(text, nullptr, base);
    constexpr long long low = std::numeric_limits<int32_t>::min();
    constexpr long long high = std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(value < low ? low : value > high ? high : value);
}

uint32_t deviceStrtoul(const char* text, int base) {
    errno = 0;
    const unsigned long long value = std::strtoull(text, nullptr, base);
    const char* p = text;
    while (std::isspace(static_cast<unsigned char>(*p)))
        ++p;
    const bool negative = *p == '-';
    const unsigned long long magnitude = negative ? 0 - value : value;
    if (errno == ERANGE || magnitude > UINT32_MAX) return UINT32_MAX;
    const auto low = static_cast<uint32_t>(magnitude);
    return negative ? 0 - low : low;
}
