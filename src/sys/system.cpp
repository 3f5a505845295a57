#include "sys/system.h"

#include <cstdlib>

namespace sys {
namespace {
System* installed = nullptr;
}

System& current() {
    if (installed == nullptr) std::abort();
    return *installed;
}

void install(System* system) {
    installed = system;
}

}  // namespace sys
