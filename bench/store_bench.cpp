// Measures a store of a full configuration (every group, 8 routes, 32 filters) against the
// least any replacement of the file costs: the same bytes written to a temporary file, synced
// and renamed by hand, in the same run, alternately, on the same file system.
//
// The daemon's module runs with a seam of its own that does the real file operations, under a
// private temporary directory: no device path of this machine is touched. The store's
// "mv -f" is done here with rename(2), without a shell: what is measured is the daemon's own
// part (parse, edit, write, sync, close, two renames). On the device the shell and mv add a
// fork and two program starts to every store.

#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "config/config_path.h"
#include "config/store.h"
#include "filters/filter_store.h"
#include "filters/filter_term.h"
#include "filters/route_filters.h"
#include "model/config_model.h"
#include "model/handler.h"
#include "model/value_rules.h"
#include "routing/destination.h"
#include "sys/system.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr long kDefaultStores = 300;
constexpr double kTargetRatio = 1.5;
constexpr std::size_t kMaxFileSize = 1 << 16;

// The store's file steps as the daemon makes them, on paths under `root`; no shell, no driver.
class FileSystem final : public sys::System {
  public:
    explicit FileSystem(std::string root) : root_(std::move(root)) {}

    int runCommand(const char* command) override {
        char from[256];
        char to[256];
        if (std::sscanf(command, "mv -f %255s %255s", from, to) != 2 || !underRoot(from) ||
            !underRoot(to)) {
            std::fprintf(stderr, "store_bench: refused to run: %s\n", command);
            std::exit(1);
        }
        return std::rename(from, to) == 0 ? 0 : 256;  // mv's failure is only an exit status
    }
    int openNode(const char*, int) override { return refuse(); }
    int ioctlNode(int, unsigned long, void*) override { return refuse(); }
    int closeNode(int) override { return refuse(); }
    int queryInterface(unsigned long, void*) override { return refuse(); }
    int setHostName(const char*, std::size_t) override { return refuse(); }
    int getHostName(char*, std::size_t) override { return refuse(); }
    void sleepNanoseconds(long) override {}
    void syncDisks() override {}
    sys::FilePath placeFile(const char* devicePath) override {
        sys::FilePath placed{};
        std::snprintf(placed.text, sizeof placed.text, "%s%s", root_.c_str(), devicePath);
        std::error_code ignored;  // a directory that cannot be made fails the open after it
        std::filesystem::create_directories(std::filesystem::path(placed.text).parent_path(),
                                            ignored);
        return placed;
    }
    std::FILE* openStream(const char* path, const char* mode) override {
        return std::fopen(path, mode);
    }
    int syncStream(std::FILE* stream) override {
        if (std::fflush(stream) != 0) return -1;
        return ::fsync(::fileno(stream));
    }
    int closeStream(std::FILE* stream) override { return std::fclose(stream); }
    int syncPath(const char* path) override {
        const int fd = ::open(path, O_RDONLY);
        const int result = fd >= 0 ? ::fsync(fd) : -1;
        if (fd >= 0) (void)::close(fd);  // read only
        return result;
    }
    int renameFile(const char* from, const char* to) override { return std::rename(from, to); }

  private:
    static int refuse() {
        errno = ENODEV;
        return -1;
    }
    bool underRoot(const char* path) const {
        return std::strncmp(path, root_.c_str(), root_.size()) == 0;
    }

    std::string root_;
};

// Every group filled in, 8 routes in use with filters, 32 filters of all four kinds.
void fill(ConfigModel& m) {
    copyText(m.general.Description, "store benchmark: every group, 8 routes, 32 filters");
    copyText(m.general.hostName, "bench-gw");
    copyText(m.lan[0].IfName, "eth0");
    (void)inet_pton(AF_INET, "198.51.100.10", &m.lan[0].IPv4);
    (void)inet_pton(AF_INET, "255.255.255.0", &m.lan[0].Subnetmask);
    (void)inet_pton(AF_INET, "198.51.100.1", &m.lan[0].IPv4Gw);
    for (unsigned n = 0; n < 2; ++n) {
        CanInterface& can = m.can[n];
        std::snprintf(can.IfName, sizeof can.IfName, "can%u", n);
        can.Active = 1;
        can.Baudrate = 500000;
        can.Samplepoint = 875;
    }
    static const char* const terms[] = {"0x100-0x1FF", "0x1000-0x1FFFF", "0x123/0x7FF",
                                        "0x12345/0x1FFFFFFF"};
    for (uint32_t i = 0; i < kMaxFilters; ++i) {
        Filter record{};
        record.index = i;
        record.filter_type = kRange11 + i % 4;
        record.filter_mode = 1;
        const bool range = record.filter_type == kRange11 || record.filter_type == kRange29;
        const char* term = terms[i % 4];
        if ((range ? parseRangeTerm(record, term, m.filters) : parseMaskTerm(record, term)) < 1)
            std::abort();  // the terms above all parse
        std::snprintf(record.Name, sizeof record.Name, "filter %u", i + 1);
        if (insertFilter(m.filters, record) == nullptr) std::abort();
    }
    for (unsigned r = 0; r < 8; ++r) {
        RouteRecord& route = m.routes[r];
        route.RouteFlags = kRouteActive | kRouteRunning;
        std::snprintf(route.RtInfo, sizeof route.RtInfo, "route %u", r + 1);
        copyText(route.image.info.interface1, r % 2 ? "can1" : "can0");
        route.image.info.protocol2 = 17;
        route.image.info.fpp = 8;
        route.image.info.cdm = 500;
        char destination[32];
        std::snprintf(destination, sizeof destination, "198.51.100.%u:%u", 20 + r, 5000 + r);
        parseDestination(destination, route.image.info.destination);
        char filters[16];
        std::snprintf(filters, sizeof filters, "%u,%u,%u,%u", 4 * r, 4 * r + 1, 4 * r + 2,
                      4 * r + 3);
        (void)parseFilterList(m.filters, filters, static_cast<int>(r), true);  // all fit
    }
    m.gui.show[0] = 1;
    m.dhcp.active = 1;
    m.dhcp.max_leases = 20;
    (void)inet_pton(AF_INET, "198.51.100.100", &m.dhcp.start_addr);
    (void)inet_pton(AF_INET, "198.51.100.120", &m.dhcp.end_addr);
}

// The least a replacement of the file costs: the bytes written to a temporary file, synced,
// closed and renamed over the file.
bool replaceByHand(const std::string& temporary, const std::string& target,
                   const std::string& bytes) {
    std::FILE* stream = std::fopen(temporary.c_str(), "w");
    if (stream == nullptr) return false;
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), stream) == bytes.size() &&
                         std::fflush(stream) == 0 && ::fsync(::fileno(stream)) == 0;
    return std::fclose(stream) == 0 && written &&
           std::rename(temporary.c_str(), target.c_str()) == 0;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

template <typename Step>
double microseconds(Step step) {
    const auto start = Clock::now();
    if (!step()) {
        std::fprintf(stderr, "store_bench: a store or a replacement failed\n");
        std::exit(1);
    }
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    long stores = kDefaultStores;
    const char* directory = std::getenv("TMPDIR");
    for (int option; (option = getopt(argc, argv, "n:d:")) != -1;) {
        if (option == 'n' && std::atol(optarg) > 0) {
            stores = std::atol(optarg);
        } else if (option == 'd') {
            directory = optarg;
        } else {
            std::fprintf(stderr,
                         "Usage: store_bench [-n STORES] [-d DIRECTORY]\n"
                         "Times STORES (default %ld) stores of a full configuration and as many\n"
                         "replacements of the same bytes by hand, alternately, in a private\n"
                         "directory made in DIRECTORY (default $TMPDIR, else /tmp).\n",
                         kDefaultStores);
            return 2;
        }
    }
    std::string pattern =
        std::string(directory != nullptr ? directory : "/tmp") + "/cfgd-store-bench-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        std::perror("store_bench: mkdtemp");
        return 1;
    }
    FileSystem files(pattern);
    sys::install(&files);
    ConfigModel* model = allocateModel();
    if (model == nullptr || setConfigPath(kDefaultConfigPath) != 0) return 1;
    fill(*model);
    const std::string target = files.placeFile(kDefaultConfigPath).c_str();
    const std::string temporary = files.placeFile(kTemporaryConfigPath).c_str();
    std::FILE* empty = std::fopen(target.c_str(), "w");  // the store edits the file in place
    if (empty == nullptr || std::fclose(empty) != 0) return 1;

    AnswerMessage answer{};
    const auto store = [&] {
        model->changed.setAll();
        return storeConfiguration(*model, answer) == 0;
    };
    (void)microseconds(store);  // the first store writes the full file
    std::string bytes(kMaxFileSize, '\0');
    std::FILE* written = std::fopen(target.c_str(), "r");
    bytes.resize(written != nullptr ? std::fread(bytes.data(), 1, bytes.size(), written) : 0);
    if (written != nullptr) (void)std::fclose(written);  // read-only
    const auto byHand = [&] { return replaceByHand(temporary, target, bytes); };

    std::vector<double> storeTimes, handTimes;
    for (long i = 0; i < stores; ++i) {
        storeTimes.push_back(microseconds(store));
        handTimes.push_back(microseconds(byHand));
    }
    const double storeMedian = median(storeTimes), handMedian = median(handTimes);
    std::printf("%s profile: file of %zu bytes in %s, %ld of each\n",
                kHardened ? "hardened" : "legacy", bytes.size(), pattern.c_str(), stores);
    std::printf("store (parse, edit, write, fsync, close, rename, rename%s): median %.1f us\n",
                kHardened ? ", fsync file and directory" : "", storeMedian);
    std::printf("by hand (write, fsync, close, rename):                   median %.1f us\n",
                handMedian);
    std::printf("ratio %.2f (target at most %.2f)\n", storeMedian / handMedian, kTargetRatio);

    releaseModel(model);
    std::error_code ignored;  // a directory of our own; what stays is harmless
    std::filesystem::remove_all(pattern, ignored);
    return 0;
}
