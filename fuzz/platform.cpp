// The platform file reader on arbitrary contents, placed through the recording seam, and the
// rewrite of what it read.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "fuzz_seam.h"
#include "network/platform_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const FakeSystem& fake = freshSeam();
    fake.writeFile(kPlatformConfigPath,
                   std::string_view(reinterpret_cast<const char*>(data), size));
    PlatformConfig config{};
    if (readPlatformConfig(config) != 0) std::abort();  // the file was just written
    (void)writePlatformConfig(config);                  // the placed file can always be opened
    return 0;
}
