#pragma once
// Numbers read from text the way the device's C library reads them: its long is 32 bits, so a
// value beyond that range saturates there, and a 64-bit build host reads the same as the device.

#include <cstdint>

// strtol: saturated at the 32-bit limits.
int32_t deviceStrtol(const char* text, int base);
// strtoul: saturated at UINT32_MAX; a negative number wraps modulo 2^32, as strtoul defines.
uint32_t deviceStrtoul(const char* text, int base);
