#include "config/ini_layout.h"
#include "fake_system.h"

using namespace ini;

namespace {

using IniLayout = SeamTest;  // fresh key names and format flags for every test

// The names in force of the keys an older format renames.
std::string renamedKeys() {
    return std::string(keyName(Section::Can, can_key::BR_Register)) + " " +
           keyName(Section::Filter, filter_key::FilterType) + " " +
           keyName(Section::Filter, filter_key::FilterMode);
}
const std::string kCurrentKeys = "BR_Register filter_type filter_mode";

// applyLegacyKeyNames's result, the keys it renamed and the invert-mask flag; the saved names
// must bring back the current ones.
std::string switchedTo(int major, int minor, int patch) {
    resetFormatState();
    const SavedKeyNames saved = saveKeyNames();
    const int result = applyLegacyKeyNames(major, minor, patch);  // before the names are read
    const std::string state =
        std::to_string(result) + " " + renamedKeys() + (invertMask() ? " inverted" : "");
    restoreKeyNames(saved);
    EXPECT_EQ(renamedKeys(), kCurrentKeys);
    return state;
}

TEST_F(IniLayout, KeyAddressesFitAndLegacyNamesSwitchOnlyFor100And120UntilRestored) {
    KeyAddress out;
    EXPECT_EQ(formatKey(out, std::string(197, 's').c_str(), "k"), 199);
    EXPECT_EQ(formatKey(out, std::string(197, 's').c_str(), "kk"), -1);
    EXPECT_STREQ(out, "");

    EXPECT_EQ(switchedTo(1, 0, 0), "0 BR_reigster filter_type filter_mode");
    EXPECT_EQ(switchedTo(1, 2, 0), "0 BR_Register Kind Type inverted");
    EXPECT_EQ(switchedTo(1, 1, 7), "0 " + kCurrentKeys);  // 1.1.x has today's names
    const int unknown[][3] = {{1, 0, 1}, {1, 2, 1}, {1, 3, 0}, {2, 0, 0}};
    for (const auto& v : unknown)
        EXPECT_EQ(switchedTo(v[0], v[1], v[2]), "-1 " + kCurrentKeys) << v[0] << v[1] << v[2];
}

}  // namespace
