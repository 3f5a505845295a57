#include "can/can_group.h"

// Placeholder until the group is built.
int readCan(const RequestMessage&, AnswerMessage&, ConfigModel&) {
    return 0;
}
int setCan(const RequestMessage&, AnswerMessage&, ConfigModel&) {
    return 0;
}
int applyCanInterface(unsigned, ConfigModel&, AnswerMessage&) {
    return 0;
}
