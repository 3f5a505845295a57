#include "sys/system.h"

#include "sys/profile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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
    const FilePath path = placeFile(devicePath);
    if constexpr (!kHardened) return ::open(path.c_str(), flags, static_cast<mode_t>(mode));
    if ((flags & O_ACCMODE) == O_RDONLY) return ::open(path.c_str(), flags | O_CLOEXEC);
    // The files the daemon writes lie in places such as /tmp where every local user may plant
    // a link, a hard link, a FIFO or a file of their own: root must neither write nor truncate
    // through it, nor wait on it. What is not the daemon's own plain file is removed and made
    // anew.
    const int open = (flags & ~O_TRUNC) | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
    for (int attempt = 0; attempt < 2; ++attempt) {
        const int fd = ::open(path.c_str(), attempt == 0 ? open : open | O_CREAT | O_EXCL,
                              static_cast<mode_t>(mode));
        if (fd < 0 && (attempt > 0 || errno == ENOENT || errno == EACCES || errno == EROFS))
            return -1;
        struct stat st {};
        if (fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == geteuid() &&
            st.st_nlink == 1 && fcntl(fd, F_SETFL, flags & O_APPEND) == 0 &&
            ((flags & O_TRUNC) == 0 || ftruncate(fd, 0) == 0))
            return fd;
        const int reason = fd >= 0 ? EEXIST : errno;
        if (fd >= 0) (void)::close(fd);  // nothing was written through it
        if (attempt == 0 && ::unlink(path.c_str()) != 0) {
            errno = reason;  // a directory, say: nothing to make anew
            return -1;
        }
    }
    errno = EEXIST;
    return -1;
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
