// Built once per program: the legacy store leaves the moved file to the flash's own pace and the
// legacy start-up takes whatever the flash holds; the hardened store writes a check line and
// syncs the moved file and its directory, and the hardened start-up puts the backup back for a
// file that did not reach the flash whole.

#include "config/config_path.h"
#include "config/store.h"
#include "config/stored_check.h"
#include "fake_system.h"
#include "model/value_rules.h"

namespace {

using stored::Check;
constexpr const char* kBackup = "/mnt/user/kiv_config.old";

class Durable : public SeamTest {
  protected:
    // `text` behind its check line, as the hardened store writes it.
    static std::string checked(const std::string& text) {
        char* out = nullptr;
        std::size_t size = 0;
        std::FILE* memory = open_memstream(&out, &size);
        EXPECT_TRUE(stored::writeChecked(memory, text.data(), text.size()));
        std::fclose(memory);
        std::string result(out, size);
        std::free(out);
        return result;
    }
    Check check(const char* devicePath) {
        return stored::checkFile(fake.pathOf(devicePath).c_str());
    }
};

TEST_F(Durable, AWholeCheckedFilePassesAndEveryCutOrChangeFails) {
    const std::string text = configHeader("1.3.1") + "[General]\nDescription = lab\n";
    const std::string whole = checked(text);
    std::string changed = whole;
    changed[changed.size() - 3] ^= 1;
    const std::pair<std::string, Check> cases[] = {
        {whole, Check::Passes},
        {text, Check::NoCheckLine},  // a person's or a legacy build's
        {whole.substr(0, 1), Check::Fails},
        {whole.substr(0, whole.find('\n')), Check::Fails},
        {whole.substr(0, whole.size() - 1), Check::Fails},
        {whole + "[x]\n", Check::Fails},
        {changed, Check::Fails},
    };
    for (const auto& [file, result] : cases) {
        fake.writeFile(kDefaultConfigPath, file);
        EXPECT_EQ(check(kDefaultConfigPath), result) << file;
    }
}

TEST_F(Durable, TheStoreSyncsBehindACheckLineInTheHardenedProfileOnly) {
    fake.writeFile(kDefaultConfigPath, configHeader("1.3.1"));
    m().changed.place[flag::General] = 1;
    AnswerMessage answer{};
    ASSERT_EQ(storeConfiguration(m(), answer), 0) << answer.da;
    EXPECT_EQ(fake.commands.size(), 1u);  // the same mv line in either profile
    if constexpr (kHardened) {
        EXPECT_EQ(check(kDefaultConfigPath), Check::Passes);
        EXPECT_EQ(fake.syncedPaths, (std::vector<std::string>{kDefaultConfigPath, "/mnt/user"}));
    } else {
        EXPECT_EQ(check(kDefaultConfigPath), Check::NoCheckLine);
        EXPECT_TRUE(fake.syncedPaths.empty());
    }
}

TEST_F(Durable, AFileCutShortGivesWayToItsBackupInTheHardenedProfileOnly) {
    const std::string whole = checked(configHeader("1.3.1") + "[General]\nDescription = new\n");
    const std::string backup = configHeader("1.3.1") + "[General]\nDescription = old\n";
    // the file, the backup, whether the backup is put back (in the hardened profile)
    const std::tuple<std::string, std::string, bool> cases[] = {
        {whole.substr(0, 60), backup, true},
        {whole.substr(0, 60), checked(backup), true},
        {whole.substr(0, 60), checked(backup).substr(0, 60), false},  // both cut: no better one
        {whole, backup, false},
    };
    for (const auto& [file, old, putBack] : cases) {
        fake.writeFile(kDefaultConfigPath, file);
        fake.writeFile(kBackup, old);
        const bool restored = kHardened && putBack;
        EXPECT_EQ(restoreInterruptedStore(), restored ? 1 : 0) << file;
        EXPECT_EQ(fake.readFile(kDefaultConfigPath), restored ? old : file);
    }
}

}  // namespace
