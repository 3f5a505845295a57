#include "fake_system.h"

#include "config/config_path.h"
#include "config/ini_layout.h"
#include "core/session.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

FakeSystem::FakeSystem() {
    // Under TMPDIR when it is set: the fuzz targets write their files thousands of times a
    // second, which a memory file system takes without waiting for a disk.
    const char* base = std::getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/cfgd-test-XXXXXX";
    const char* made = mkdtemp(pattern.data());
    if (made == nullptr) std::abort();
    root_ = made;
}

FakeSystem::~FakeSystem() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
}

void FakeSystem::writeFile(const char* devicePath, std::string_view content) const {
    const fs::path path = pathOf(devicePath);
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

std::string FakeSystem::readFile(const char* devicePath) const {
    return (std::ostringstream() << std::ifstream(pathOf(devicePath), std::ios::binary).rdbuf())
        .str();
}

int FakeSystem::runCommand(const char* command) {
    commands.emplace_back(command);
    if (commandResult == 0) moveFile(command);
    if (commandResult < 0) errno = EAGAIN;  // as system(3) does when no shell could start
    return commandResult;
}

void FakeSystem::moveFile(const char* command) const {
    char from[256];
    char to[256];
    if (std::sscanf(command, "mv -f %255s %255s", from, to) != 2) return;
    const auto underRoot = [this](const char* path) {
        return std::strncmp(path, root_.c_str(), root_.size()) == 0;
    };
    if (!underRoot(from) || !underRoot(to)) return;  // never anything outside the root
    std::error_code ignored;
    fs::rename(from, to, ignored);
}

int FakeSystem::queryInterface(unsigned long request, void* interfaceRequest) {
    interfaceQueries.push_back(request);
    auto* query = static_cast<ifreq*>(interfaceRequest);
    const auto known =
        interfaces.find(std::string(query->ifr_name, strnlen(query->ifr_name, IFNAMSIZ)));
    if (known == interfaces.end()) return failWith(ENODEV);
    if (request == SIOCGIFHWADDR) {
        std::memcpy(query->ifr_hwaddr.sa_data, known->second.mac.data(), 6);
        return 0;
    }
    if (request == SIOCGIFADDR) {
        const sockaddr_in address{AF_INET, 0, {inet_addr(known->second.ipv4.c_str())}, {}};
        std::memcpy(&query->ifr_addr, &address, sizeof address);
        return 0;
    }
    return failWith(EINVAL);
}

int FakeSystem::setHostName(const char* name, std::size_t length) {
    if (setHostNameErrno != 0) return failWith(setHostNameErrno);
    hostName.assign(name, strnlen(name, length));
    hostNamesSet.push_back(hostName);
    return 0;
}

sys::FilePath FakeSystem::placeFile(const char* devicePath) {
    sys::FilePath placed{};
    std::snprintf(placed.text, sizeof placed.text, "%s%s", root_.c_str(), devicePath);
    std::error_code ignored;
    fs::create_directories(fs::path(placed.text).parent_path(), ignored);
    return placed;
}

std::FILE* FakeSystem::openStream(const char* path, const char* mode) {
    if (openStreamErrno != 0) return failWith(openStreamErrno), nullptr;
    if (writeErrno == 0) return std::fopen(path, mode);
    cookie_io_functions_t full{};  // a full disk: nothing reaches a file
    full.write = [](void* cookie, const char*, size_t) -> ssize_t {
        errno = *static_cast<int*>(cookie);
        return -1;
    };
    return fopencookie(&writeErrno, mode, full);
}

int FakeSystem::syncStream(std::FILE* stream) {
    ++streamSyncs;
    if (std::fflush(stream) != 0) return -1;
    return syncErrno != 0 ? failWith(syncErrno) : 0;
}

int FakeSystem::closeStream(std::FILE* stream) {
    const int result = std::fclose(stream);
    return closeErrno != 0 ? failWith(closeErrno) : result;  // EOF is -1
}

SeamTest::SeamTest() : model(allocateModel()) {
    sys::install(&fake);
    if (model == nullptr) std::abort();
    // Process-wide state of the configuration module starts afresh in every test.
    ini::resetFormatState();
    if (setConfigPath(kDefaultConfigPath) != 0) std::abort();
}

SeamTest::~SeamTest() {
    releaseModel(model);
    sys::install(nullptr);
}

Reply SeamTest::handle(ReadHandler handler, uint8_t f1, uint8_t f2, uint8_t f3, const char* value) {
    RequestMessage request{0, READ_PARAM, f1, f2, f3, {}};
    std::snprintf(request.da, sizeof request.da, "%s", value);
    AnswerMessage answer{};
    const int result = handler(request, answer, m());
    return {result, answer.da};
}

Reply SeamTest::applied(ApplyHandler handler, unsigned instance) {
    AnswerMessage answer{};
    const int result = handler(instance, m(), answer);
    return {result, answer.da};
}

AnswerMessage SeamTest::send(uint8_t mt, uint8_t f1, uint8_t f2, uint8_t f3, const char* value) {
    RequestMessage request{0, mt, f1, f2, f3, {}};
    std::snprintf(request.da, sizeof request.da, "%s", value);
    AnswerMessage answer{};
    std::snprintf(answer.da, sizeof answer.da, "stale text");
    (void)procMsg(request, answer, m());  // the answer's type tells
    return answer;
}

std::string shown(const AnswerMessage& a) {
    const std::string kind = a.mt == POS_ANSW   ? "POS"
                             : a.mt == NEG_ANSW ? "NEG"
                                                : std::to_string(a.mt);
    return kind + " to " + std::to_string(a.type) + " " + std::to_string(a.f1) + "/" +
           std::to_string(a.f2) + "/" + std::to_string(a.f3) + ": " + a.da;
}

std::string configHeader(const std::string& version) {
    return "#########################################\n# KIV configuration file\n"
           "# Format version " +
           version + "\n#########################################\n";
}
