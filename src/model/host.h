#pragma once
// Host group (f1 1): host and user name.

#include "model/handler.h"

int readHost(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
int setHost(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
// Sets the system host name from the stored one.
int applyHost(unsigned instance, ConfigModel& model, AnswerMessage& answer);
