#pragma once
// CAN group (f1 4): the CAN interfaces' parameters, live link state and ip link apply.

#include "can/bit_timing.h"
#include "can/link_info.h"
#include "model/handler.h"

int readCan(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
int setCan(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
// Brings interface `instance` (1 or 2; 0 is the group and does nothing) into line with its
// record through ip link: down, bit timing and modes, and up again when it is active.
int applyCanInterface(unsigned instance, ConfigModel& model, AnswerMessage& answer);
