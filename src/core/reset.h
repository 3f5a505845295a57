#pragma once
// The reload of the configuration file that ends an aborted or abandoned session.

#include "core/message.h"

struct ConfigModel;

// Reloads the file after a session that was aborted or left open. The legacy profile loads it
// over the live model: filters, route-to-filter links and route bits of the session survive,
// and routes switched on are added to the driver. The hardened profile makes the model the one
// a fresh start on the file makes and applies only the groups in which the system differs from
// it. 0, or -1 when an apply failed (its text in the answer).
int reloadConfiguration(ConfigModel& model, AnswerMessage& answer);
