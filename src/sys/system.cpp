#include "sys/system.h"

#include <fcntl.h>
#include <unistd.h>

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

int System::openFile(const char* devicePath, int flags, unsigned mode) {
    return ::open(placeFile(devicePath).c_str(), flags, static_cast<mode_t>(mode));
}

int System::unlinkFile(const char* devicePath) {
    return ::unlink(placeFile(devicePath).c_str());
}

std::FILE* openFileStream(const char* devicePath, const char* mode) {
    const int access = mode[0] == 'r' ? O_RDONLY : mode[1] == '+' ? O_RDWR : O_WRONLY;
    const int flags = mode[0] == 'r' ? access : access | O_CREAT | O_TRUNC;
    const int fd = current().openFile(devicePath, flags, 0666);
    if (fd < 0) return nullptr;
    std::FILE* stream = fdopen(fd, mode);
    if (stream == nullptr) (void)close(fd);  // nothing read or written yet
    return stream;
}

}  // namespace sys
