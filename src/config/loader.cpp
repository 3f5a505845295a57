#include "config/loader.h"

// Placeholder until the group is built.
int loadConfiguration(ConfigModel&) {
    return 0;
}
