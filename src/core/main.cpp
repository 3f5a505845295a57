#include "core/daemon.h"
#include "sys/real_system.h"

namespace {

// At namespace scope and constant-initialised, the seam needs no guard at run time: a local
// static's guard brings the C++ runtime's exception and name-demangling code (about 60 KiB)
// into the device's binary.
constinit sys::RealSystem realSystem;

}  // namespace

int main(int argc, char** argv) {
    sys::install(&realSystem);
    return runDaemon(argc, argv);
}
