#pragma once
// The one seam between the daemon and the world outside its process: shell commands, the
// gateway driver's nodes, interface queries, the host name, sleeping and the files at the
// device's fixed paths.
// The daemon installs the real implementation; tests install a recorder, so that no command,
// driver request or host-name change of a test can reach the machine that runs it.

#include <cstddef>
#include <cstdio>

namespace sys {

// A file path after the seam has placed it (the real seam keeps it as it is).
struct FilePath {
    char text[256];
    const char* c_str() const { return text; }
};

class System {
  public:
    virtual ~System() = default;

    // system(3): the shell's status, or -1 when no shell could be run.
    virtual int runCommand(const char* command) = 0;

    // open(2), ioctl(2) and close(2) on the gateway driver's device nodes; failures set errno.
    virtual int openNode(const char* path, int flags) = 0;
    virtual int ioctlNode(int fd, unsigned long request, void* argument) = 0;
    virtual int closeNode(int fd) = 0;

    // One query of a network interface (SIOCGIFHWADDR, SIOCGIFADDR) on a datagram socket that
    // is closed again at once; `interfaceRequest` is a struct ifreq. Failures set errno.
    virtual int queryInterface(unsigned long request, void* interfaceRequest) = 0;

    virtual int setHostName(const char* name, std::size_t length) = 0;
    virtual int getHostName(char* name, std::size_t size) = 0;

    virtual void sleepNanoseconds(long nanoseconds) = 0;
    virtual void syncDisks() = 0;

    // Where a file of the device (a fixed path such as "/tmp/uboot_env") is to be opened.
    virtual FilePath placeFile(const char* devicePath) = 0;

    // The files the daemon writes for the services (name server, platform, DHCP server, filter
    // and WLAN files): open(2) and unlink(2) of a device path, placed as placeFile places it.
    // Failures set errno.
    virtual int openFile(const char* devicePath, int flags, unsigned mode);
    virtual int unlinkFile(const char* devicePath);

    // The file steps of replacing the configuration file, on placed paths: fopen(3); the
    // stream flushed and its descriptor fsync(2)ed; fclose(3); rename(2). Failures set errno.
    virtual std::FILE* openStream(const char* path, const char* mode) = 0;
    virtual int syncStream(std::FILE* stream) = 0;
    virtual int closeStream(std::FILE* stream) = 0;
    virtual int renameFile(const char* from, const char* to) = 0;
    // fsync(2) of a placed file or directory, opened read-only, so that what a program wrote
    // into it, or a name made in it, survives a power cut.
    virtual int syncPath(const char* path) = 0;
};

// The seam in force. Calling it before install() is a programming error and aborts: the core
// library carries no real implementation of its own.
System& current();
void install(System* system);

inline FilePath placeFile(const char* devicePath) {
    return current().placeFile(devicePath);
}

// openFile as a stream, with the flags and mode that fopen(3) opens "r", "w" or "w+" with;
// nullptr on failure.
std::FILE* openFileStream(const char* devicePath, const char* mode);

}  // namespace sys
