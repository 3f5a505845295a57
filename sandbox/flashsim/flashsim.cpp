// The simulated device's flash: a FUSE file system over a backing directory that holds what has
// reached the flash. Namespace changes (create, mkdir, rename, unlink, modes, owners, times) go
// to the backing directory at once and in order, as a journaling flash file system commits
// them. A file's data does not: writes and truncations stay in this process until the writer
// syncs the file (fsync or fdatasync). Told to cut the power, it drops every unsynced byte, so
// that a file whose data was never synced comes back as the flash last held it (a new file
// empty), or, in the torn mode, with a random prefix of its new data over that. It then goes on
// serving what is left, as a device that is switched on again; handles opened before the cut
// fail with EIO.
//
//   cfgd_flashsim BACKING MOUNTPOINT [FUSE options]
//   setfattr -n trusted.flashsim.cut -v drop MOUNTPOINT     (or -v torn): cut now
//
// The cut is done when setxattr returns. The kernel does not pass sync(2) or syncfs(2) on to a
// FUSE file system mounted through /dev/fuse (only virtiofs gets them), so only a file's own
// sync makes its data durable; fsyncdir has nothing to do, namespace changes being durable.

#define FUSE_USE_VERSION 31

#include <dirent.h>
#include <fcntl.h>
#include <fuse.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr const char* kCutAttribute = "trusted.flashsim.cut";

int backing = -1;         // the backing directory, opened before the mount covers it
unsigned generation = 0;  // raised by every cut
std::mt19937 randomBytes{std::random_device{}()};

// A file's data not yet synced: its whole current content, and a descriptor of our own on the
// backing file, so that a cut can still write a torn prefix after every writer closed it.
struct Unsynced {
    int fd = -1;
    std::string data;
};

// An open file: a descriptor on the backing file, opened for reading and writing whatever the
// caller asked (the kernel has checked the caller's access), since a sync may come through a
// read-only descriptor.
struct Handle {
    int fd;
    ino_t ino;
    unsigned generation;
    bool append;
};

std::map<ino_t, Unsynced> unsynced;
std::map<ino_t, int> openHandles;

const char* relative(const char* path) {
    return path[1] == '\0' ? "." : path + 1;
}
Handle* handleOf(const fuse_file_info* fi) {
    return reinterpret_cast<Handle*>(fi->fh);
}
int failure() {
    return -errno;
}

std::string contentOf(int fd) {
    std::string content;
    char block[65536];
    for (off_t at = 0;;) {
        const ssize_t got = pread(fd, block, sizeof block, at);
        if (got <= 0) return content;
        content.append(block, static_cast<std::size_t>(got));
        at += got;
    }
}

// The unsynced data of the handle's file, taken from the flash at its first change.
std::string& dataOf(const Handle& h) {
    auto [at, made] = unsynced.try_emplace(h.ino);
    if (made) {
        at->second.fd = dup(h.fd);
        at->second.data = contentOf(h.fd);
    }
    return at->second.data;
}

// Puts the first `prefix` bytes of `data` on the flash and sets the file's size.
int writeBacking(int fd, std::string_view data, std::size_t prefix, off_t size) {
    for (std::size_t done = 0; done < prefix;) {
        const ssize_t put = pwrite(fd, data.data() + done, prefix - done, static_cast<off_t>(done));
        if (put < 0) return failure();
        done += static_cast<std::size_t>(put);
    }
    return ftruncate(fd, size) == 0 ? 0 : failure();
}

int syncFile(ino_t ino) {
    const auto at = unsynced.find(ino);
    if (at == unsynced.end()) return 0;
    const std::string& data = at->second.data;
    const int result =
        writeBacking(at->second.fd, data, data.size(), static_cast<off_t>(data.size()));
    (void)close(at->second.fd);  // our own descriptor; the data is written
    unsynced.erase(at);
    return result;
}

bool linked(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && status.st_nlink > 0;
}

// Forgets the data of files that lost their last name and their last handle: nobody can
// reach it any more, and a cut would lose it anyway.
void forgetRemoved() {
    for (auto at = unsynced.begin(); at != unsynced.end();) {
        if (openHandles[at->first] == 0 && !linked(at->second.fd)) {
            (void)close(at->second.fd);  // nothing left to write through it
            at = unsynced.erase(at);
        } else {
            ++at;
        }
    }
}

// The power goes: unsynced data is lost or, torn, a random prefix of it reached the flash over
// what was there (a shrunk file keeps its old size: its truncation did not reach the flash).
int cut(bool torn) {
    for (auto& [ino, file] : unsynced) {
        if (torn && linked(file.fd)) {
            const std::string before = contentOf(file.fd);
            const std::size_t kept =
                std::uniform_int_distribution<std::size_t>(0, file.data.size())(randomBytes);
            const std::size_t size = std::max(kept, before.size());
            if (writeBacking(file.fd, file.data, kept, static_cast<off_t>(size)) != 0)
                std::perror("cfgd_flashsim: torn write");
        }
        (void)close(file.fd);  // ours; the cut drops what it held
    }
    unsynced.clear();
    ++generation;
    return 0;
}

// The operations, named as fuse_operations names them.
namespace op {

void* init(fuse_conn_info*, fuse_config* config) {
    config->use_ino = 1;
    config->hard_remove = 1;  // removed files stay reachable through their handles, unnamed
    config->nullpath_ok = 1;  // operations on open files and directories use their handles
    // The kernel keeps nothing: after a cut every look-up, attribute and read comes here.
    config->entry_timeout = config->attr_timeout = config->negative_timeout = 0;
    config->direct_io = 1;
    return nullptr;
}

int getattr(const char* path, struct stat* status, fuse_file_info* fi) {
    if (fi != nullptr ? fstat(handleOf(fi)->fd, status) != 0
                      : fstatat(backing, relative(path), status, AT_SYMLINK_NOFOLLOW) != 0)
        return failure();
    if (const auto at = unsynced.find(status->st_ino); at != unsynced.end()) {
        status->st_size = static_cast<off_t>(at->second.data.size());
        status->st_blocks = (status->st_size + 511) / 512;
    }
    return 0;
}

int openHandle(int fd, int flags, fuse_file_info* fi) {
    struct stat status {};
    if (fd < 0) return failure();
    if (fstat(fd, &status) != 0) {
        const int result = failure();
        (void)close(fd);  // not handed out
        return result;
    }
    fi->fh = reinterpret_cast<uint64_t>(
        new Handle{fd, status.st_ino, generation, (flags & O_APPEND) != 0});
    ++openHandles[status.st_ino];
    if ((flags & O_TRUNC) != 0) dataOf(*handleOf(fi)).clear();
    return 0;
}

int open(const char* path, fuse_file_info* fi) {
    return openHandle(openat(backing, relative(path), O_RDWR | O_NOFOLLOW | O_CLOEXEC), fi->flags,
                      fi);
}

int create(const char* path, mode_t mode, fuse_file_info* fi) {
    const int fd = openat(backing, relative(path),
                          O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | (fi->flags & O_EXCL), mode);
    const fuse_context* caller = fuse_get_context();
    if (fd >= 0 && fchown(fd, caller->uid, caller->gid) != 0) {
        const int result = failure();
        (void)close(fd);  // the file stays, as an interrupted create leaves it
        return result;
    }
    return openHandle(fd, fi->flags, fi);
}

int release(const char*, fuse_file_info* fi) {
    const Handle* h = handleOf(fi);
    --openHandles[h->ino];
    (void)close(h->fd);  // a release has no result to give
    delete h;
    forgetRemoved();
    return 0;
}

int read(const char*, char* buffer, size_t size, off_t offset, fuse_file_info* fi) {
    const Handle& h = *handleOf(fi);
    if (h.generation != generation) return -EIO;
    const auto at = unsynced.find(h.ino);
    if (at == unsynced.end()) {
        const ssize_t got = pread(h.fd, buffer, size, offset);
        return got < 0 ? failure() : static_cast<int>(got);
    }
    const std::string& data = at->second.data;
    if (static_cast<std::size_t>(offset) >= data.size()) return 0;
    const std::size_t count = std::min(size, data.size() - static_cast<std::size_t>(offset));
    std::memcpy(buffer, data.data() + offset, count);
    return static_cast<int>(count);
}

int write(const char*, const char* buffer, size_t size, off_t offset, fuse_file_info* fi) {
    const Handle& h = *handleOf(fi);
    if (h.generation != generation) return -EIO;
    std::string& data = dataOf(h);
    const std::size_t at = h.append ? data.size() : static_cast<std::size_t>(offset);
    if (data.size() < at + size) data.resize(at + size);
    data.replace(at, size, buffer, size);
    return static_cast<int>(size);
}

int truncate(const char* path, off_t size, fuse_file_info* fi) {
    if (fi != nullptr) {
        if (handleOf(fi)->generation != generation) return -EIO;
        dataOf(*handleOf(fi)).resize(static_cast<std::size_t>(size));
        return 0;
    }
    fuse_file_info own{};
    if (const int result = open(path, &own); result != 0) return result;
    dataOf(*handleOf(&own)).resize(static_cast<std::size_t>(size));
    return release(path, &own);
}

int fsync(const char*, int, fuse_file_info* fi) {
    const Handle& h = *handleOf(fi);
    return h.generation != generation ? -EIO : syncFile(h.ino);
}

int fsyncdir(const char*, int, fuse_file_info*) {
    return 0;
}

int mkdir(const char* path, mode_t mode) {
    const fuse_context* caller = fuse_get_context();
    if (mkdirat(backing, relative(path), mode) != 0 ||
        fchownat(backing, relative(path), caller->uid, caller->gid, AT_SYMLINK_NOFOLLOW) != 0)
        return failure();
    return 0;
}

int unlink(const char* path) {
    if (unlinkat(backing, relative(path), 0) != 0) return failure();
    forgetRemoved();
    return 0;
}

int rmdir(const char* path) {
    return unlinkat(backing, relative(path), AT_REMOVEDIR) == 0 ? 0 : failure();
}

int rename(const char* from, const char* to, unsigned int flags) {
    if (renameat2(backing, relative(from), backing, relative(to), flags) != 0) return failure();
    forgetRemoved();
    return 0;
}

int chmod(const char* path, mode_t mode, fuse_file_info* fi) {
    const int result =
        fi != nullptr ? fchmod(handleOf(fi)->fd, mode) : fchmodat(backing, relative(path), mode, 0);
    return result == 0 ? 0 : failure();
}

int chown(const char* path, uid_t uid, gid_t gid, fuse_file_info* fi) {
    const int result = fi != nullptr
                           ? fchown(handleOf(fi)->fd, uid, gid)
                           : fchownat(backing, relative(path), uid, gid, AT_SYMLINK_NOFOLLOW);
    return result == 0 ? 0 : failure();
}

int utimens(const char* path, const timespec times[2], fuse_file_info* fi) {
    const int result = fi != nullptr
                           ? futimens(handleOf(fi)->fd, times)
                           : utimensat(backing, relative(path), times, AT_SYMLINK_NOFOLLOW);
    return result == 0 ? 0 : failure();
}

int opendir(const char* path, fuse_file_info* fi) {
    const int fd = openat(backing, relative(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return failure();
    fi->fh = static_cast<uint64_t>(fd);
    return 0;
}

int readdir(const char*, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info* fi,
            fuse_readdir_flags) {
    const int fd = dup(static_cast<int>(fi->fh));  // the directory stream closes its own
    DIR* directory = fd >= 0 ? fdopendir(fd) : nullptr;
    if (directory == nullptr) {
        const int result = failure();
        if (fd >= 0) (void)close(fd);  // fdopendir did not take it
        return result;
    }
    rewinddir(directory);  // the copy shares the position of the last listing
    while (const dirent* entry = ::readdir(directory))
        if (fill(buffer, entry->d_name, nullptr, 0, static_cast<fuse_fill_dir_flags>(0)) != 0)
            break;
    (void)closedir(directory);  // read only
    return 0;
}

int releasedir(const char*, fuse_file_info* fi) {
    (void)close(static_cast<int>(fi->fh));  // a release has no result to give
    return 0;
}

int statfs(const char*, struct statvfs* status) {
    return fstatvfs(backing, status) == 0 ? 0 : failure();
}

int setxattr(const char* path, const char* name, const char* value, size_t size, int) {
    if (std::strcmp(path, "/") != 0 || std::strcmp(name, kCutAttribute) != 0) return -ENOTSUP;
    const std::string_view mode(value, size);
    if (mode != "drop" && mode != "torn") return -EINVAL;
    return cut(mode == "torn");
}

}  // namespace op
}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s BACKING MOUNTPOINT [FUSE options]\n", argv[0]);
        return 2;
    }
    backing = ::open(argv[1], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (backing < 0) {
        std::perror(argv[1]);
        return 1;
    }
    umask(0);  // the callers' modes, which the kernel masked already, reach the flash as they are
    fuse_operations operations{};
    operations.init = op::init;
    operations.getattr = op::getattr;
    operations.open = op::open;
    operations.create = op::create;
    operations.release = op::release;
    operations.read = op::read;
    operations.write = op::write;
    operations.truncate = op::truncate;
    operations.fsync = op::fsync;
    operations.fsyncdir = op::fsyncdir;
    operations.mkdir = op::mkdir;
    operations.unlink = op::unlink;
    operations.rmdir = op::rmdir;
    operations.rename = op::rename;
    operations.chmod = op::chmod;
    operations.chown = op::chown;
    operations.utimens = op::utimens;
    operations.opendir = op::opendir;
    operations.readdir = op::readdir;
    operations.releasedir = op::releasedir;
    operations.statfs = op::statfs;
    operations.setxattr = op::setxattr;
    // Single-threaded: the operations and a cut never overlap. Every user of the device may
    // reach it, with the kernel checking modes and owners as on the flash.
    char* arguments[] = {argv[0], argv[2], const_cast<char*>("-s"), const_cast<char*>("-o"),
                         const_cast<char*>("allow_other,default_permissions,fsname=flashsim")};
    std::vector<char*> all(std::begin(arguments), std::end(arguments));
    all.insert(all.end(), argv + 3, argv + argc);
    return fuse_main(static_cast<int>(all.size()), all.data(), &operations, nullptr);
}
