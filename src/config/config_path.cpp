#include "config/config_path.h"

#include <cstring>

namespace {
char path[kMaxPathLength + 1];
}

int setConfigPath(const char* newPath) {
    if (std::strlen(newPath) > kMaxPathLength) return -1;
    std::strncpy(path, newPath, kMaxPathLength);
    return 0;
}

const char* configPath() {
    return path[0] != '\0' ? path : kDefaultConfigPath;
}
