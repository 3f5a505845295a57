#pragma once
// Session rules and dispatch of requests to the parameter groups.

#include "core/message.h"

struct ConfigModel;

// Processes one request into its answer. 0, or -1 when the answer is a refusal; the answer is
// sent either way.
int procMsg(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);

// Runs the apply handler of every changed group instance in the fixed order General, Host,
// LAN, WLAN, CAN, filters, routes; goes on after a failure. -1 if any failed (the answer's
// `da` then holds the last failing handler's text).
int applyChangedGroups(ConfigModel& model, AnswerMessage& answer);
