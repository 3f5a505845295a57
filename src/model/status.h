#pragma once
// Status group (f1 6): reads and writes succeed and carry nothing.

#include "model/handler.h"

int readStatus(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
int setStatus(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
