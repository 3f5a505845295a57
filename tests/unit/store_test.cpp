#include <arpa/inet.h>
#include <iniparser.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <tuple>

#include "config/config_path.h"
#include "config/ini_layout.h"
#include "config/loader.h"
#include "config/store.h"
#include "config/stored_check.h"
#include "fake_system.h"
#include "filters/filter_store.h"
#include "filters/route_filters.h"
#include "model/handler.h"
#include "model/value_rules.h"
#include "network/dhcp_server.h"
#include "routing/destination.h"

namespace {

// As the store writes it: the line feed that ends it opens the first section.
const std::string kHeader131 = configHeader("1.3.1").erase(configHeader("1.3.1").size() - 1) + " ";
constexpr const char *kBackup = "/mnt/user/kiv_config.old", *kTemporary = "/tmp/kiv_config.tmp";

// `text` behind its check line, as the hardened store writes it.
std::string checked(const std::string& text) {
    char* out = nullptr;
    std::size_t size = 0;
    std::FILE* memory = open_memstream(&out, &size);
    EXPECT_TRUE(stored::writeChecked(memory, text.data(), text.size()));
    std::fclose(memory);
    std::string result(out, size);
    std::free(out);
    return result;
}

// A section as the library writes it out, from "key=value;key=value".
std::string section(const std::string& name, const std::string& keys) {
    std::string text = "\n[" + name + "]\n", pair;
    for (std::istringstream in(keys); std::getline(in, pair, ';');) {
        const std::string key = pair.substr(0, pair.find('='));
        text +=
            key + std::string(30 - key.size(), ' ') + " = " + pair.substr(key.size() + 1) + "\n";
    }
    return text + "\n";
}

class Store : public SeamTest {
  protected:
    int store(std::vector<unsigned> places = {}) {
        for (unsigned place : places)
            m().changed.place[place] = 1;
        answer = AnswerMessage{};
        return storeConfiguration(m(), answer);
    }
    stored::Check check(const char* path = kDefaultConfigPath) const {
        return stored::checkFile(fake.pathOf(path).c_str());
    }
    // The file as the store wrote it, behind the hardened profile's check line (which must hold).
    std::string stored(const char* path = kDefaultConfigPath) const {
        const std::string file = fake.readFile(path);
        return check(path) == stored::Check::Passes ? file.substr(file.find('\n') + 1) : file;
    }
    // Entries of the stored file as the library reads them back, "|"-separated: "-" for none,
    // "[]" for a section.
    std::string entries(const std::string& names) const {
        dictionary* file = iniparser_load(fake.pathOf(kDefaultConfigPath).c_str());
        std::string values, name;
        for (std::istringstream in(names); in >> name;) {
            const char* value = iniparser_getstring(file, name.c_str(), nullptr);
            values += (values.empty() ? "" : "|") +
                      std::string(!iniparser_find_entry(file, name.c_str()) ? "-"
                                  : value                                   ? value
                                                                            : "[]");
        }
        iniparser_freedict(file);
        return values;
    }
    void load(const std::string& file) {
        resetModel(m());
        if (!file.empty()) fake.writeFile(kDefaultConfigPath, file);
        ASSERT_EQ(loadConfiguration(m()), 0);
    }
    RouteRecord& route(unsigned record, const char* info) {
        RouteRecord& r = m().routes[record];
        r.RouteFlags = kRouteActive;
        copyText(r.RtInfo, info);
        return r;
    }

    AnswerMessage answer{};
};

TEST_F(Store, WritesHeaderSectionsAndKeysInTheLibrarysForm) {
    const std::string before =
        configHeader("1.3.1") + "[General]\nDescription = old\nLighttpdPort=8080\n";
    fake.writeFile(kDefaultConfigPath, before);
    m().general.KL15pwdn = 1;  // the description stays empty
    copyText(m().general.hostName, "gw-1");
    m().can[0] = {"can0", 1, 250000, 0, 875, 0, 0, 1, {125, 0, 13, 2, 1, 3}, 0, 0, 0, 0, 0, 1, ""};
    ASSERT_EQ(store({flag::General, flag::Host, flag::Can + 1}), 0) << answer.da;
    EXPECT_EQ(stored(),
              kHeader131 + section("general", "description=;lighttpdport=8080;kl15pwdn=1") +
                  section("host", "devicename=gw-1") +
                  section("can_0",
                          "ifname=can0;active=1;baudrate=250000;listenonly=0;autoresume=1;"
                          "loopback=0;oneshot=0;triplesampling=0;manbr=1;br_register=BRP "
                          "3, RJW 1, TQ 125, PSEG1 13, PSEG2 2, PROPSEG 0;samplepoint=875") +
                  "\n");
    EXPECT_EQ(fake.readFile(kBackup), before);
    EXPECT_EQ(fake.commands, std::vector<std::string>{"mv -f " + fake.pathOf(kTemporary) + " " +
                                                      fake.pathOf(kDefaultConfigPath)});
    // Only the hardened store writes a check line and syncs the moved file and its directory.
    EXPECT_EQ(check(), kHardened ? stored::Check::Passes : stored::Check::NoCheckLine);
    const std::vector<std::string> synced{kDefaultConfigPath, "/mnt/user"};
    EXPECT_EQ(fake.syncedPaths, kHardened ? synced : std::vector<std::string>{});
}

TEST_F(Store, AWholeCheckedFilePassesAndEveryCutOrChangeFails) {
    const std::string text = configHeader("1.3.1") + "[General]\nDescription = lab\n";
    const std::string whole = checked(text);
    std::string changed = whole;
    changed[changed.size() - 3] ^= 1;
    const std::pair<std::string, stored::Check> cases[] = {
        {whole, stored::Check::Passes},
        {text, stored::Check::NoCheckLine},  // a person's or a legacy build's
        {whole.substr(0, 1), stored::Check::Fails},
        {whole.substr(0, whole.find('\n')), stored::Check::Fails},
        {whole.substr(0, whole.size() - 1), stored::Check::Fails},
        {whole + "[x]\n", stored::Check::Fails},
        {changed, stored::Check::Fails},
    };
    for (const auto& [file, result] : cases) {
        fake.writeFile(kDefaultConfigPath, file);
        EXPECT_EQ(check(), result) << file;
    }
}

// Every written key of every group reads back as it was stored: a second store of the reloaded
// model writes the same file.
TEST_F(Store, EveryGroupReadsBackAsItWasStored) {
    const auto v4 = [](const char* text) { return in_addr{inet_addr(text)}; };
    const auto v6 = [](const char* t, in6_addr a = {}) { return inet_pton(AF_INET6, t, &a), a; };
    fake.writeFile(kDefaultConfigPath, configHeader("1.3.1"));
    copyText(m().general.Description, "lab bench");
    copyText(m().general.hostName, "gw-9");
    const in_addr address = v4("10.0.0.2"), mask = v4("255.0.0.0"), gateway = v4("10.0.0.1");
    m().lan[0] = {"uplink", 0, 1, address, mask, v6("fe80::1"), 0, gateway, v6("::2"), "", ""};
    m().can[1] = {"can1", 1, 125000, 0, 625, 0, 0, 1, {125, 1, 2, 3, 4, 5}, 1, 1, 1, 0, 0, 1, ""};
    m().can[0] = m().can[1];  // a zero baud rate would load clamped
    copyText(m().can[0].IfName, "can0");
    RouteRecord& first = route(0, "first");
    first.RouteFlags |= kRouteRunning | kRouteUnifyFilters;
    RouteInfo& info = first.image.info;
    copyText(info.interface1, "can1");
    parseDestination("192.168.5.5:6000", info.destination);
    std::tie(info.flags, info.protocol2, info.fpp, info.retryDelay, info.retryCount, info.cdm,
             first.DispIdx) =
        std::tuple(kDrvCan2Lan | kDrvTcpDelay | kDrvNoControl, 6, 20, 301, 31, 600, 3);
    RouteRecord& third = route(2, "third");  // stored as the second route
    third.RouteFlags |= kRouteJoinFilters;
    third.image.info.protocol2 = 17;  // the file has no text for other numbers
    third.image.info.cdm = 10;        // nor for values the loader would clamp
    for (const Filter& filter :
         {Filter{0, kRange11, 1, {}, {}, 0x100, 0x1FF},
          {5, kMask29, 1 | kFilterInverted, "note", "masked", 0x12345, 0x1FFFFFFF}})
        ASSERT_NE(insertFilter(m().filters, filter), nullptr);
    ASSERT_EQ(parseFilterList(m().filters, "0,5", 2, true), 0);
    m().gui.show[3] = 1;
    m().dhcp = {1, v4("10.0.0.50"), v4("10.0.0.60"), 9};
    m().changed.setAll();
    ASSERT_EQ(store(), 0) << answer.da;
    const std::string written = stored();
    EXPECT_EQ(fake.readFile(kDhcpdConfigPath),
              "start 10.0.0.50\nstart 10.0.0.60\ninterface eth0\n");
    load("");
    m().changed.setAll();
    ASSERT_EQ(store(), 0) << answer.da;
    EXPECT_EQ(stored(), written);
    for (const char* value : {"fe80::1", "can2lan", "tcp", "192.168.5.5:6000", "0,5", "note",
                              "masked", "0x00012345/0x1FFFFFFF", "10.0.0.60"})
        EXPECT_NE(strcasestr(written.c_str(), value), nullptr) << value;
}

// Only groups whose flags the writer consults make it rewrite the file; the rewrite keeps every
// entry and only brings names and layout into the library's form.
TEST_F(Store, GroupFlagsAloneRewriteTheFileUnchanged) {
    const std::string before =
        configHeader("1.3.1") + "; hand-made\n[General]\nDescription=Gate ; c\n[Unknown]\nX=1\n";
    const std::string rewritten =
        kHeader131 + section("general", "description=Gate") + section("unknown", "x=1") + "\n";
    const std::pair<unsigned, bool> cases[] = {{flag::Lan, true},     {flag::Wlan, true},
                                               {flag::Can, true},     {flag::Route, false},
                                               {flag::Filter, false}, {flag::Unused, false}};
    for (const auto& [flag, rewrites] : cases) {
        fake.writeFile(kDefaultConfigPath, before);
        m().changed.clearAll();
        EXPECT_EQ(store({flag}), 0) << flag;
        EXPECT_EQ(stored(), rewrites ? rewritten : before) << flag;
    }
}

TEST_F(Store, RoutesAreRenumberedAndOneStaleSectionGoes) {
    // sections in the file, records in use, entries after the store
    const std::tuple<unsigned, std::vector<unsigned>, std::string> cases[] = {
        {3, {0, 2}, "r0|-|r2|0|-|-|-|2"},
        // Beyond Count the fourth is never read: it is left for a later store.
        {4, {0, 3}, "r0|-|r3|-|-|-|old3|2"},
    };
    for (const auto& [inFile, inUse, expected] : cases) {
        resetModel(m());
        std::string file = configHeader("1.3.1") + "[FWD_GEN]\nCount = " + std::to_string(inFile);
        for (unsigned n = 0; n < inFile; ++n)
            file += "\n[RT_" + std::to_string(n) + "]\nRtInfo = old" + std::to_string(n) +
                    "\nFilters = 7\nInterface2 = eth0";
        fake.writeFile(kDefaultConfigPath, file + "\n");
        for (unsigned record : inUse)
            route(record, ("r" + std::to_string(record)).c_str());
        ASSERT_EQ(parseFilterList(m().filters, "0", 2, true), 0);
        ASSERT_EQ(store({flag::Route + 2}), 0) << answer.da;
        EXPECT_EQ(entries("rt_0:rtinfo rt_0:filters rt_1:rtinfo rt_1:filters rt_2 rt_2:rtinfo "
                          "rt_3:rtinfo fwd_gen:count"),
                  expected)
            << inFile;
    }
}

TEST_F(Store, FilterSectionsAreRemovedRewrittenAndCreated) {
    fake.writeFile(kDefaultConfigPath,
                   configHeader("1.3.1") +
                       "[FILTER_0]\nfilter_type = 1\nTerm = 0x100-0x1FF\n"
                       "[FILTER_2]\nfilter_type = 1\nTerm = 0x1-0x2\nExtra = x\n");
    for (const Filter& filter : {Filter{2, kMask11, 1, {}, {}, 0x123, 0x7FF},
                                 {4, kMask11, 1 | kFilterInverted, {}, "n", 0x123, 0x7FF}})
        ASSERT_NE(insertFilter(m().filters, filter), nullptr);
    ASSERT_EQ(store({flag::Filter + 1, flag::Filter + 3, flag::Filter + 5}), 0) << answer.da;
    EXPECT_EQ(
        entries("filter_0 filter_0:filter_type filter_2:filter_type filter_2:term filter_2:extra"),
        "-|-|3|0x123/0x7FF|x");
    EXPECT_NE(stored().find(section(
                  "filter_4", "filter_type=3;filter_mode=0;comment=;name=n;term=0x123/0x7FF")),
              std::string::npos)
        << stored();
}

// After a file of an older format was loaded every group is stored, with no flag set, under the
// current header and names.
TEST_F(Store, OlderFormatsAreRewrittenWholeUnderCurrentNames) {
    const std::string br = "BRP 2, RJW 1, TQ 83, PSEG1 9, PSEG2 2, PROPSEG 1";
    // file, entries after the store; 1.2.0 held the mask inverted. Only filter keys lose their
    // older names; the old CAN key stays, and nothing reads it.
    const std::pair<std::string, std::string> cases[] = {
        {configHeader("1.2.0") + "[filter_3]\nKind = 3\nType = 0\nTerm = 0x123/0x7FF\n",
         "-|-|3|0|0x123/0x000|[]|[]|[]|[]|[]|[]|0|-|-"},
        {configHeader("1.0.0") + "[CAN_0]\nManBr = 1\nBR_reigster = " + br + "\n",
         "-|-|-|-|-|[]|[]|[]|[]|[]|[]|0|" + br + "|" + br},
    };
    for (const auto& [file, expected] : cases) {
        ini::resetFormatState();
        load(file);
        m().changed.clearAll();
        ASSERT_EQ(store(), 0) << answer.da;
        EXPECT_EQ(stored().rfind(kHeader131, 0), 0u);
        EXPECT_EQ(entries("filter_3:kind filter_3:type filter_3:filter_type filter_3:filter_mode "
                          "filter_3:term general host lan_0 can_1 gui dhcp_server fwd_gen:count "
                          "can_0:br_register can_0:br_reigster"),
                  expected);
    }
}

// Only a regular file is read: anything else loads as the defaults with one line, and is never
// stored over. (A file the library cannot parse is the end-to-end suite's case.)
TEST_F(Store, DirectoryGivesDefaultsAndIsNeverStoredOver) {
    const std::string path = fake.pathOf(kDefaultConfigPath);
    std::filesystem::create_directories(path);
    testing::internal::CaptureStderr();
    ASSERT_EQ(loadConfiguration(m()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "can't parse file " + std::string(kDefaultConfigPath) + "\n");
    EXPECT_STREQ(m().general.Description, "Module description");
    EXPECT_EQ(store({flag::General, flag::Can + 1}), -1);
    EXPECT_STREQ(answer.da, "");
    EXPECT_FALSE(fake.fileExists(kBackup) || fake.fileExists(kTemporary));
    EXPECT_TRUE(std::filesystem::is_directory(path));
}

// Values are written unquoted, so the next load reads them by the file's comment and line
// rules: a ';' or '#' ends the value, outer blanks go, and a line break makes the whole file
// unreadable (every default, and every later store fails until the file is mended).
TEST_F(Store, CommentSignsAndLineBreaksInValuesChangeTheNextLoad) {
    const std::pair<const char*, const char*> cases[] = {
        {"a;b", "a"}, {"#all", ""}, {"  blanks  ", "blanks"}, {"two\nlines", "Module description"}};
    for (const auto& [value, loaded] : cases) {
        fake.writeFile(kDefaultConfigPath, configHeader("1.3.1"));
        copyText(m().general.Description, value);
        ASSERT_EQ(store({flag::General}), 0) << value;
        load("");
        EXPECT_STREQ(m().general.Description, loaded) << value;
    }
    EXPECT_EQ(store({flag::General}), -1);  // the file with the line break
}

// Whichever file step fails, the configuration path or else the backup holds a whole file.
TEST_F(Store, EachFileStepFailingLeavesAWholeFileErrorTexts) {
    using Knob = int FakeSystem::*;
    const Knob open = &FakeSystem::openStreamErrno, write = &FakeSystem::writeErrno,
               sync = &FakeSystem::syncErrno, close = &FakeSystem::closeErrno,
               rename = &FakeSystem::renameErrno, shell = &FakeSystem::commandResult;
    const unsigned gui = flag::Gui, route = flag::Route + 1;
    const std::string before = configHeader("1.3.1") + "[GUI]\nshow_can_info = 1\n";
    // knob, value, flag, the answer after "ERROR@(2," (none: success), then the state of the
    // configuration file, the backup and the temporary file: missing, Old, New or other
    const std::tuple<Knob, int, unsigned, std::string, std::string> cases[] = {
        {open, 0, gui, "", "NO-"},
        {open, EACCES, gui, "330): new .ini file can't be created (Permission denied)", "O--"},
        {open, EACCES, route, "80): new .ini file can't be created (Permission denied)", "O--"},
        {write, ENOSPC, gui, "330): can't close new .ini file (No space left on device)", "O--"},
        {sync, EIO, gui, "", "NO-"},
        {close, EIO, gui, "330): can't close new .ini file (Input/output error)", "O-N"},
        {rename, EACCES, gui, "330): can't rename old .ini file (Permission denied)", "O-N"},
        {shell, -1, gui, "330): can't rename new .ini file (Resource temporarily unavailable)",
         "O-N"},
        // mv's own exit status is not examined: the new file waits in /tmp, the old one is the
        // backup.
        {shell, 256, gui, "", "-ON"},
    };
    std::string fresh;
    const auto state = [&](const char* path) {
        const std::string content = fake.fileExists(path) ? stored(path) : "-";
        return content == "-" ? '-' : content == before ? 'O' : content == fresh ? 'N' : '?';
    };
    for (const auto& [knob, value, flag, text, states] : cases) {
        for (Knob k : {open, write, sync, close, rename, shell})
            fake.*k = 0;
        for (const char* path : {kBackup, kTemporary})
            fake.removeFile(path);
        fake.writeFile(kDefaultConfigPath, before);
        m().changed.clearAll();
        fake.*knob = value;
        EXPECT_EQ(store({flag}), text.empty() ? 0 : -1) << text;
        EXPECT_EQ(answer.da, text.empty() ? text : "ERROR@(2," + text);
        if (fresh.empty()) fresh = stored();
        EXPECT_EQ(std::string({state(kDefaultConfigPath), state(kBackup), state(kTemporary)}),
                  states)
            << text;
    }
    EXPECT_NE(fresh.find("show_can_info                  = 0"), std::string::npos);
    EXPECT_GT(fake.streamSyncs, 0);

    // The texts of a key or section the file lacks.
    char text[kDataSize];
    EXPECT_EQ(formatIniError(text, sizeof text, 5, 1, 0), 51);
    EXPECT_STREQ(text, "ERROR@(5,1,0): key pair doesn't exist in .ini file!");
    formatIniError(text, sizeof text, 2, 0, kSectionErrorKey);
    EXPECT_STREQ(text, "ERROR@(2,0,4294967295): section doesn't exist in .ini file!");
}

// A store cut short after the file went to the backup: the start-up puts the backup back. The
// hardened start-up does so for a file that did not reach the flash whole too.
TEST_F(Store, InterruptedStoreIsUndoneAtStartUp) {
    const std::string whole = checked(configHeader("1.3.1") + "[General]\nDescription = new\n");
    const std::string cut = whole.substr(0, 60);
    const std::string old = configHeader("1.3.1") + "[General]\nDescription = old\n";
    // configuration file ("-": missing), backup ("-": missing), whether it is put back
    const std::tuple<std::string, std::string, bool> cases[] = {
        {"-", "stored\n", true},
        {"", "stored\n", true},
        {"current\n", "stored\n", false},
        {"-", "-", false},
        {"", "", false},
        {cut, old, kHardened},
        {cut, checked(old), kHardened},
        {cut, checked(old).substr(0, 60), false},  // both cut: no better one
        {whole, old, false},
    };
    for (const auto& [file, backup, putBack] : cases) {
        fake.removeFile(kDefaultConfigPath);
        fake.removeFile(kBackup);
        if (file != "-") fake.writeFile(kDefaultConfigPath, file);
        if (backup != "-") fake.writeFile(kBackup, backup);
        EXPECT_EQ(restoreInterruptedStore(), putBack ? 1 : 0) << file << " | " << backup;
        EXPECT_EQ(fake.readFile(kDefaultConfigPath), putBack ? backup : file == "-" ? "" : file);
        EXPECT_EQ(fake.fileExists(kBackup), backup != "-" && !putBack);
    }
}

}  // namespace
