// The bit-timing register parser on arbitrary text.

#include <cstdint>
#include <cstring>
#include <vector>

#include "can/bit_timing.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<char> text(size + 1);  // exactly sized, so a read beyond the terminator shows
    std::memcpy(text.data(), data, size);
    BitTiming timing{};
    (void)parseBrRegs(text.data(), timing);
    return 0;
}
