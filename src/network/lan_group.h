#pragma once
// The LAN group: the wired Ethernet interface's addressing and its application.

#include "model/handler.h"

int readLan(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
int setLan(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
int applyLan(unsigned instance, ConfigModel& model, AnswerMessage& answer);
