#include "filters/filter_group.h"

// Placeholder until the group is built.
int readFilter(const RequestMessage&, AnswerMessage&, ConfigModel&) {
    return 0;
}
int setFilter(const RequestMessage&, AnswerMessage&, ConfigModel&) {
    return 0;
}
int applyFilter(unsigned, ConfigModel&, AnswerMessage&) {
    return 0;
}
