#pragma once
// BT group (f1 7): read only; the device has no Bluetooth interface.

#include "model/handler.h"

int readBt(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model);
