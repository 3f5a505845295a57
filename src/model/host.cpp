#include "model/host.h"

// Placeholder until the group is built.
int readHost(const RequestMessage&, AnswerMessage&, ConfigModel&) {
    return 0;
}
int setHost(const RequestMessage&, AnswerMessage&, ConfigModel&) {
    return 0;
}
int applyHost(unsigned, ConfigModel&, AnswerMessage&) {
    return 0;
}
