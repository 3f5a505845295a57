#pragma once
// The bit-timing register text ("BRP 3; RJW 1; TQ 125; PSEG1 13; PSEG2 2 ; PROPSEG 0") that
// requests and the configuration file use to give a controller's registers directly.

#include <cstdint>

#include "can/can_interface.h"

// Parses the register text into `timing`, storing each value as soon as it is found.
// 0 on success; -1 when RJW, PSEG1, PSEG2 or PROPSEG is missing (the values found before it
// stay stored) or when neither BRP nor TQ is given. Without TQ, tq follows from BRP for the
// controller's 24 MHz clock.
int parseBrRegs(const char* text, BitTiming& timing);
