#pragma once
// The recording seam of the unit tests: shell commands are kept in order and never run, the
// host name is a string, driver nodes go to the simulated driver, sleeps return at once, and
// the device's fixed paths are placed under a private temporary directory.

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "model/config_model.h"
#include "model/handler.h"
#include "sim_driver.h"
#include "sys/system.h"

class FakeSystem final : public sys::System {
  public:
    FakeSystem();
    ~FakeSystem() override;
    FakeSystem(const FakeSystem&) = delete;
    FakeSystem& operator=(const FakeSystem&) = delete;

    // Test controls and records.
    std::vector<std::string> commands;
    // Every command's result. At 0 (the shell ran and the command succeeded) an "mv -f FROM TO"
    // under the root really moves the file.
    int commandResult = 0;
    std::string hostName = "host-under-test";
    std::vector<std::string> hostNamesSet;
    int setHostNameErrno = 0;  // non-zero: sethostname fails with it
    std::vector<long> sleeps;
    SimDriver driver;
    // Network interfaces the kernel queries see, by name; unknown names fail with ENODEV.
    struct Interface {
        std::array<uint8_t, 6> mac;
        std::string ipv4;  // dotted
    };
    std::map<std::string, Interface> interfaces;
    std::vector<unsigned long> interfaceQueries;
    // The file steps work on the real files under the root; each can be made to fail.
    int openStreamErrno = 0;  // non-zero: openStream fails with it
    int writeErrno = 0;       // non-zero: the stream opened takes no byte, each write fails so
    int syncErrno = 0;        // non-zero: syncStream fails with it
    int closeErrno = 0;       // non-zero: closeStream closes the stream, then fails with it
    int renameErrno = 0;      // non-zero: renameFile fails with it and renames nothing
    int streamSyncs = 0;
    std::vector<std::string> syncedPaths;  // syncPath's, as the device names them

    // Files of the device, under the private root.
    std::string pathOf(const char* devicePath) const { return root_ + devicePath; }
    void writeFile(const char* devicePath, std::string_view content) const;
    std::string readFile(const char* devicePath) const;
    bool fileExists(const char* devicePath) const {
        return std::filesystem::exists(pathOf(devicePath));
    }
    void removeFile(const char* devicePath) const {
        std::error_code ignored;
        std::filesystem::remove(pathOf(devicePath), ignored);
    }

    int runCommand(const char* command) override;
    int openNode(const char* path, int) override { return driver.open(path); }
    int ioctlNode(int fd, unsigned long request, void* argument) override {
        return driver.ioctl(fd, request, argument);
    }
    int closeNode(int fd) override { return driver.close(fd); }
    int queryInterface(unsigned long request, void* interfaceRequest) override;
    int setHostName(const char* name, std::size_t length) override;
    int getHostName(char* name, std::size_t size) override {
        return std::snprintf(name, size, "%s", hostName.c_str()) < 0 ? -1 : 0;
    }
    void sleepNanoseconds(long nanoseconds) override { sleeps.push_back(nanoseconds); }
    void syncDisks() override {}
    sys::FilePath placeFile(const char* devicePath) override;
    std::FILE* openStream(const char* path, const char* mode) override;
    int syncStream(std::FILE* stream) override;
    int closeStream(std::FILE* stream) override;
    int renameFile(const char* from, const char* to) override {
        if (renameErrno != 0) errno = renameErrno;
        return renameErrno != 0 ? -1 : std::rename(from, to);
    }
    int syncPath(const char* path) override {
        syncedPaths.push_back(std::string(path).substr(root_.size()));
        return 0;
    }

  private:
    void moveFile(const char* command) const;

    std::string root_;
};

// A handler's result and the answer text it left.
using Reply = std::pair<int, std::string>;

// An answer as "POS to 42 1/7/3: text" (NEG for a refusal, the number for any other type).
std::string shown(const AnswerMessage& answer);

// The header that opens a configuration file of the given format version.
std::string configHeader(const std::string& version);

// A test with the fake seam installed and a freshly allocated model.
class SeamTest : public ::testing::Test {
  protected:
    SeamTest();
    ~SeamTest() override;

    // One request of group f1 handed straight to a read or set handler.
    Reply handle(ReadHandler handler, uint8_t f1, uint8_t f2, uint8_t f3, const char* value = "");
    Reply applied(ApplyHandler handler, unsigned instance);
    // One request through the session rules and the dispatch. The answer starts with a stale
    // text, which the processing must clear.
    AnswerMessage send(uint8_t mt, uint8_t f1 = 0, uint8_t f2 = 0, uint8_t f3 = 0,
                       const char* value = "");

    FakeSystem fake;
    ConfigModel* model;
    ConfigModel& m() { return *model; }
};
