#include "can/bit_timing.h"

#include "model/device_numbers.h"

#include <cstdlib>
#include <cstring>

namespace {

struct RegisterKey {
    const char* keyword;
    uint32_t BitTiming::*field;
    bool required;
};

// Searched in this order; a missing required keyword stops the parse where it is.
constexpr RegisterKey kRegisterKeys[] = {
    {"BRP", &BitTiming::brp, false},         {"RJW", &BitTiming::sjw, true},
    {"TQ", &BitTiming::tq, false},           {"PSEG1", &BitTiming::phase_seg1, true},
    {"PSEG2", &BitTiming::phase_seg2, true}, {"PROPSEG", &BitTiming::prop_seg, true},
};

constexpr double kCanClockMHz = 24.0;

}  // namespace

int parseBrRegs(const char* text, BitTiming& timing) {
    bool haveBrp = false;
    bool haveTq = false;
    for (const RegisterKey& key : kRegisterKeys) {
        const char* found = std::strstr(text, key.keyword);
        if (found == nullptr) {
            if (key.required) return -1;
            continue;
        }
        const long value = deviceStrtol(found + std::strlen(key.keyword), 10);
        timing.*key.field = value < 0 ? 0 : static_cast<uint32_t>(value);
        if (key.field == &BitTiming::brp) haveBrp = true;
        if (key.field == &BitTiming::tq) haveTq = true;
    }
    if (!haveBrp && !haveTq) return -1;
    if (haveTq) return 0;
    // Through single precision, as the device has always computed it, so tq keeps its value.
    const float ticks = static_cast<float>(timing.brp * 1000u);
    timing.tq = static_cast<uint32_t>(static_cast<double>(ticks) / kCanClockMHz);
    return 0;
}
