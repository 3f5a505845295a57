#include "core/daemon.h"
#include "sys/real_system.h"

int main(int argc, char** argv) {
    static sys::RealSystem realSystem;
    sys::install(&realSystem);
    return runDaemon(argc, argv);
}
