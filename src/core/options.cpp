#include "core/options.h"

#include <libgen.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "core/version.h"

namespace {

constexpr int kExitUsage = 2;
constexpr int kExitBadOption = -1;
constexpr int kLargestKey = 255;

// The text names an older default path and says "ftoc" for ftok; scripts and manuals quote it
// as it stands, so it is kept word for word.
constexpr const char* kUsageFormat =
    "\nUsage: %s [-f IniFile] [-l lockFile] [-s semKey] [-q queueKey]\n"
    "\t\t -f\t Ini file to use (default /etc/kiv_config.ini)\n"
    "\t\t -l\t Lock file to use (default /tmp/kiv_lock)\n"
    "\t\t -s\t IPC key for semaphore \n"
    "\t\t -s\t 0 < semKey < 255, if no number is specified ftoc(iniFile, 1) is used to create "
    "one\n"
    "\t\t -q\t IPC key for queue \n"
    "\t\t -q\t 0 < queueKey < 255, if no number is specified ftoc(iniFile, 2) is used to create "
    "one\n";

void printUsage(std::FILE* out, const char* programPath) {
    char copy[256];
    std::snprintf(copy, sizeof copy, "%s", programPath);
    std::fprintf(out, kUsageFormat, basename(copy));
}

// Copies a path option; false (after the message) when it does not fit.
bool takePath(char (&field)[kMaxPathLength + 1], const char* value, std::FILE* out) {
    if (std::strlen(value) > kMaxPathLength) {
        std::fprintf(out, "filename to large (max. %d)\n", kMaxPathLength);
        return false;
    }
    std::snprintf(field, sizeof field, "%s", value);
    return true;
}

// The usage text allows 1 to 254, but 0 to 255 have always been accepted.
bool takeKey(int& key, const char* value) {
    key = std::atoi(value);
    return key >= 0 && key <= kLargestKey;
}

}  // namespace

int parseOptions(int argc, char** argv, Options& options, std::FILE* out) {
    std::snprintf(options.configPath, sizeof options.configPath, "%s", kDefaultConfigPath);
    std::snprintf(options.lockPath, sizeof options.lockPath, "%s", kDefaultLockPath);
    options.queueKey = kNoKey;
    options.semaphoreKey = kNoKey;

    optind = 0;  // start afresh, also when called more than once
    int option;
    while ((option = getopt(argc, argv, "vf:l:q:s:")) != -1) {
        switch (option) {
            case 'f':
                if (!takePath(options.configPath, optarg, out)) return kExitBadOption;
                break;
            case 'l':
                if (!takePath(options.lockPath, optarg, out)) return kExitBadOption;
                break;
            case 'q':
            case 's':
                if (!takeKey(option == 'q' ? options.queueKey : options.semaphoreKey, optarg)) {
                    printUsage(out, argv[0]);
                    return kExitBadOption;
                }
                break;
            case 'v':
                std::fprintf(out, "%s\n", kSoftwareVersion);
                std::fprintf(out, "build for: %s at %s %s\n", kProductOrderNumber, kBuildDate,
                             kBuildTime);
                return kExitUsage;
            default:
                printUsage(out, argv[0]);
                return kExitUsage;
        }
    }
    return kContinue;
}
