#include "model/gui.h"

// Placeholder until the group is built.
int readGui(const RequestMessage&, AnswerMessage&, ConfigModel&) {
    return 0;
}
int setGui(const RequestMessage&, AnswerMessage&, ConfigModel&) {
    return 0;
}
