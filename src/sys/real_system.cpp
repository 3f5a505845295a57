#include "sys/real_system.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace sys {

int RealSystem::runCommand(const char* command) {
    return std::system(command);
}

int RealSystem::openNode(const char* path, int flags) {
    return ::open(path, flags);
}

int RealSystem::ioctlNode(int fd, unsigned long request, void* argument) {
    return ::ioctl(fd, request, argument);
}

int RealSystem::closeNode(int fd) {
    const int result = ::close(fd);
    // The route apply's common exit closes descriptor 0 as it always has. /dev/null takes its
    // place at once, so that no node or file opened later is handed descriptor 0, which the
    // configuration header check has always refused.
    if (fd == 0 && result == 0) {
        const int placeholder = ::open("/dev/null", O_RDWR);
        if (placeholder > 0) (void)::close(placeholder);  // 0 was taken meanwhile: nothing to hold
    }
    return result;
}

int RealSystem::queryInterface(unsigned long request, void* interfaceRequest) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return -1;
    const int result = ::ioctl(fd, request, interfaceRequest);
    const int saved = errno;
    (void)::close(fd);  // a socket only used for the query; nothing to lose
    errno = saved;
    return result;
}

int RealSystem::setHostName(const char* name, std::size_t length) {
    return ::sethostname(name, length);
}

int RealSystem::getHostName(char* name, std::size_t size) {
    return ::gethostname(name, size);
}

void RealSystem::sleepNanoseconds(long nanoseconds) {
    timespec request{nanoseconds / 1000000000L, nanoseconds % 1000000000L};
    (void)::nanosleep(&request, nullptr);  // an early wake-up only shortens a retry pause
}

void RealSystem::syncDisks() {
    ::sync();
}

FilePath RealSystem::placeFile(const char* devicePath) {
    FilePath placed{};
    std::snprintf(placed.text, sizeof placed.text, "%s", devicePath);
    return placed;
}

std::FILE* RealSystem::openStream(const char* path, const char* mode) {
    return std::fopen(path, mode);
}

int RealSystem::syncStream(std::FILE* stream) {
    // What is still in the stream's buffer has to reach the descriptor before it is synced.
    if (std::fflush(stream) != 0) return -1;
    return ::fsync(::fileno(stream));
}

int RealSystem::closeStream(std::FILE* stream) {
    return std::fclose(stream);
}

int RealSystem::renameFile(const char* from, const char* to) {
    return std::rename(from, to);
}

int RealSystem::syncPath(const char* path) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    const int result = ::fsync(fd);
    (void)::close(fd);  // read only: the sync above is what counts
    return result;
}

}  // namespace sys
