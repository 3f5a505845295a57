#include "model/status.h"

// The Status group has no parameters in this version: reads and writes succeed and the
// answer's value stays empty.
int readStatus(const RequestMessage&, AnswerMessage&, ConfigModel&) {
    return 0;
}
int setStatus(const RequestMessage&, AnswerMessage&, ConfigModel&) {
    return 0;
}
