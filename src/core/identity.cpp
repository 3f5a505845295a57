#include "core/identity.h"

// Placeholder until the identity reader is built.
int readDeviceIdentity(ConfigModel&) {
    return 0;
}
