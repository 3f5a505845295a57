#pragma once
// General group (f1 0): identity and version texts, description, KL15 power down.

#include "model/handler.h"

int readGeneral(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
int setGeneral(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
int applyGeneral(unsigned instance, ConfigModel& model, AnswerMessage& answer);
