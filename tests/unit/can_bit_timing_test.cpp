#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "can/bit_timing.h"

namespace {

constexpr uint32_t kKept = 77;  // a value the parse did not reach

TEST(ParseBrRegs, KeywordsResultsAndDerivedTq) {
    // text, result, then tq, prop_seg, phase_seg1, phase_seg2, sjw and brp afterwards
    const std::tuple<const char*, int, std::vector<uint32_t>> cases[] = {
        // Without TQ it follows from BRP at 24 MHz, truncated.
        {"BRP 3; RJW 1; PSEG1 13; PSEG2 2; PROPSEG 0", 0, {125, 0, 13, 2, 1, 3}},
        {"BRP 1; RJW 1; PSEG1 1; PSEG2 1; PROPSEG 1", 0, {41, 1, 1, 1, 1, 1}},
        // 200001000 is no float: single precision gives 8333374 where double gives 8333375.
        {"BRP 200001; RJW 1; PSEG1 1; PSEG2 1; PROPSEG 1", 0, {8333374, 1, 1, 1, 1, 200001}},
        // A missing required keyword stops the parse, keeping what was stored before it.
        {"BRP 3; PSEG1 13; PSEG2 2; PROPSEG 0", -1, {kKept, kKept, kKept, kKept, kKept, 3}},
        {"BRP 3; RJW 2; TQ 9; PSEG1 13; PROPSEG 0", -1, {9, kKept, 13, kKept, 2, 3}},
        // Neither BRP nor TQ: everything required is stored, and still a failure.
        {"RJW 1; PSEG1 13; PSEG2 2; PROPSEG 4", -1, {kKept, 4, 13, 2, 1, kKept}},
        {"RJW 1; TQ 50; PSEG1 1; PSEG2 1; PROPSEG 1", 0, {50, 1, 1, 1, 1, kKept}},
        {"BRP -4; RJW 1; TQ 100; PSEG1 -2; PSEG2 2; PROPSEG 0", 0, {100, 0, 0, 2, 1, 0}},
    };
    for (const auto& [text, result, expected] : cases) {
        BitTiming t{kKept, kKept, kKept, kKept, kKept, kKept};
        EXPECT_EQ(parseBrRegs(text, t), result) << text;
        EXPECT_EQ(std::vector({t.tq, t.prop_seg, t.phase_seg1, t.phase_seg2, t.sjw, t.brp}),
                  expected)
            << text;
    }
}

}  // namespace
