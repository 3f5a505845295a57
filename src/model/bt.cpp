#include "model/bt.h"

// Placeholder until the group is built.
int readBt(const RequestMessage&, AnswerMessage&, ConfigModel&) {
    return 0;
}
