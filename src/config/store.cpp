#include "config/store.h"
#include "core/message.h"

// Placeholder until the group is built.
int storeConfiguration(ConfigModel&, AnswerMessage&) {
    return 0;
}
