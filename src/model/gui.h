#pragma once
// GUI group (f1 8): which pages the web front end shows; stored, never applied.

#include "model/handler.h"

int readGui(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
int setGui(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
