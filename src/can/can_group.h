#pragma once
// CAN group (f1 4): the CAN interfaces' parameters, live link state and ip link apply.

#include "model/handler.h"

int readCan(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
int setCan(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
int applyCanInterface(unsigned instance, ConfigModel& model, AnswerMessage& answer);
