#include "model/general.h"

// Placeholder until the group is built.
int readGeneral(const RequestMessage&, AnswerMessage&, ConfigModel&) {
    return 0;
}
int setGeneral(const RequestMessage&, AnswerMessage&, ConfigModel&) {
    return 0;
}
int applyGeneral(unsigned, ConfigModel&, AnswerMessage&) {
    return 0;
}
