#include "fake_system.h"

#include "config/config_path.h"
#include "config/ini_layout.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

FakeSystem::FakeSystem() {
    char pattern[] = "/tmp/cfgd-test-XXXXXX";
    const char* made = mkdtemp(pattern);
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
    std::ifstream in(pathOf(devicePath), std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

bool FakeSystem::fileExists(const char* devicePath) const {
    return fs::exists(pathOf(devicePath));
}

void FakeSystem::removeFile(const char* devicePath) const {
    std::error_code ignored;
    fs::remove(pathOf(devicePath), ignored);
}

int FakeSystem::runCommand(const char* command) {
    commands.emplace_back(command);
    return commandResult;
}

int FakeSystem::openNode(const char* path, int) {
    return driver.open(path);
}

int FakeSystem::ioctlNode(int fd, unsigned long request, void* argument) {
    return driver.ioctl(fd, request, argument);
}

int FakeSystem::closeNode(int fd) {
    return driver.close(fd);
}

int FakeSystem::queryInterface(unsigned long request, void* interfaceRequest) {
    interfaceQueries.push_back(request);
    auto* query = static_cast<ifreq*>(interfaceRequest);
    const auto known =
        interfaces.find(std::string(query->ifr_name, strnlen(query->ifr_name, IFNAMSIZ)));
    if (known == interfaces.end()) {
        errno = ENODEV;
        return -1;
    }
    if (request == SIOCGIFHWADDR) {
        std::memcpy(query->ifr_hwaddr.sa_data, known->second.mac.data(), 6);
        return 0;
    }
    if (request == SIOCGIFADDR && !known->second.ipv4.empty()) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        inet_pton(AF_INET, known->second.ipv4.c_str(), &address.sin_addr);
        std::memcpy(&query->ifr_addr, &address, sizeof address);
        return 0;
    }
    errno = request == SIOCGIFADDR ? EADDRNOTAVAIL : EINVAL;
    return -1;
}

int FakeSystem::setHostName(const char* name, std::size_t length) {
    if (setHostNameErrno != 0) {
        errno = setHostNameErrno;
        return -1;
    }
    hostName.assign(name, strnlen(name, length));
    hostNamesSet.push_back(hostName);
    return 0;
}

int FakeSystem::getHostName(char* name, std::size_t size) {
    if (size == 0) return -1;
    std::snprintf(name, size, "%s", hostName.c_str());
    return 0;
}

void FakeSystem::sleepNanoseconds(long nanoseconds) {
    sleeps.push_back(nanoseconds);
}

void FakeSystem::syncDisks() {
    ++syncs;
}

sys::FilePath FakeSystem::placeFile(const char* devicePath) {
    sys::FilePath placed{};
    // Paths already under the root (a test handing in a placed path) stay as they are.
    if (std::strncmp(devicePath, root_.c_str(), root_.size()) == 0)
        std::snprintf(placed.text, sizeof placed.text, "%s", devicePath);
    else
        std::snprintf(placed.text, sizeof placed.text, "%s%s", root_.c_str(), devicePath);
    const fs::path parent = fs::path(placed.text).parent_path();
    std::error_code ignored;
    fs::create_directories(parent, ignored);
    return placed;
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
