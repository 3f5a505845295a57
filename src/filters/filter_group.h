#pragma once
// Filter group (f1 9): the CAN identifier filters, created, changed and deleted by request.

#include "model/handler.h"

int readFilter(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
int setFilter(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
int applyFilter(unsigned instance, ConfigModel& model, AnswerMessage& answer);
