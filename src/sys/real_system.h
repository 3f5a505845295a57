#pragma once
#include "sys/system.h"

namespace sys {

// The device's own system calls; linked into the daemon only, never into tests.
class RealSystem final : public System {
  public:
    int runCommand(const char* command) override;
    int openNode(const char* path, int flags) override;
    int ioctlNode(int fd, unsigned long request, void* argument) override;
    int closeNode(int fd) override;
    int queryInterface(unsigned long request, void* interfaceRequest) override;
    int setHostName(const char* name, std::size_t length) override;
    int getHostName(char* name, std::size_t size) override;
    void sleepNanoseconds(long nanoseconds) override;
    void syncDisks() override;
    FilePath placeFile(const char* devicePath) override;
    std::FILE* openStream(const char* path, const char* mode) override;
    int syncStream(std::FILE* stream) override;
    int closeStream(std::FILE* stream) override;
    int renameFile(const char* from, const char* to) override;
    int syncPath(const char* path) override;
};

}  // namespace sys
