// The configuration loader on arbitrary file contents, placed through the recording seam, and
// the store of everything it loaded.

#include <cstdint>
#include <string_view>

#include "config/config_path.h"
#include "config/ini_layout.h"
#include "config/loader.h"
#include "config/store.h"
#include "fuzz_seam.h"
#include "routing/gateway.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // A loaded driver, so that the load also takes routes into it.
    const FakeSystem& fake = freshSeam();
    fake.writeFile(kProcDevicesPath, "Character devices:\n  1 mem\n250 tarn-gw\n");
    fake.writeFile(kProcModulesPath, "tarn_gw 98304 8 - Live 0x0\n");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const FakeSystem& fake = freshSeam();
    ini::resetFormatState();  // format flags are process-wide: each run starts as a new daemon
    fake.writeFile(kDefaultConfigPath, std::string_view(reinterpret_cast<const char*>(data), size));
    ConfigModel* model = allocateModel();
    if (model == nullptr) return 0;
    (void)loadConfiguration(*model);  // never fails
    model->changed.setAll();
    AnswerMessage answer{};
    (void)storeConfiguration(*model, answer);  // failures are answer texts, not faults
    releaseModel(model);
    return 0;
}
