#pragma once
// The Route group: the eight routes' parameters and the forwarding values.

#include "model/handler.h"

int readRoute(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
int setRoute(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
