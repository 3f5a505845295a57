#include <arpa/inet.h>
#include <iniparser.h>

#include <cerrno>
#include <cstring>
#include <tuple>

#include "config/config_path.h"
#include "config/ini_layout.h"
#include "config/loader.h"
#include "config/store.h"
#include "fake_system.h"
#include "filters/filter_store.h"
#include "filters/route_filters.h"
#include "model/handler.h"
#include "network/dhcp_server.h"
#include "routing/destination.h"

namespace {

// As the store writes it: the line feed that ends it opens the first section.
const std::string kHeader131 = configHeader("1.3.1").erase(configHeader("1.3.1").size() - 1) + " ";
const std::string kAbsent = "(absent)", kSection = "(section)";
constexpr const char *kBackup = "/mnt/user/kiv_config.old", *kTemporary = "/tmp/kiv_config.tmp";
using Strings = std::vector<std::string>;

// A key as the library writes it out.
std::string key(const std::string& name, const std::string& value) {
    return name + std::string(30 - name.size(), ' ') + " = " + value + "\n";
}

class Store : public SeamTest {
  protected:
    int store(std::vector<unsigned> places = {}) {
        for (unsigned place : places)
            m().changed.place[place] = 1;
        answer = AnswerMessage{};
        return storeConfiguration(m(), answer);
    }
    std::string stored() const { return fake.readFile(kDefaultConfigPath); }
    // Entries of the stored file as the library reads them back.
    Strings entries(std::initializer_list<const char*> names) const {
        dictionary* file = iniparser_load(fake.pathOf(kDefaultConfigPath).c_str());
        Strings values;
        for (const char* name : names) {
            const char* value = iniparser_getstring(file, name, nullptr);
            values.push_back(!iniparser_find_entry(file, name) ? kAbsent
                             : value                           ? value
                                                               : kSection);
        }
        iniparser_freedict(file);
        return values;
    }
    void reload() {
        resetModel(m());
        ASSERT_EQ(loadConfiguration(m()), 0);
    }
    void define(std::initializer_list<Filter> filters) {
        for (const Filter& filter : filters)
            ASSERT_NE(insertFilter(m().filters, filter), nullptr);
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
    CanInterface& can = m().can[0];
    copyText(can.IfName, "can0");
    can.Active = can.Autoresume = can.ManBr = 1;
    can.Baudrate = 250000;
    can.Samplepoint = 875;
    can.timing = {125, 0, 13, 2, 1, 3};
    ASSERT_EQ(store({flag::General, flag::Host, flag::Can + 1}), 0) << answer.da;
    EXPECT_EQ(stored(),
              kHeader131 + "\n[general]\n" + key("description", "") + key("lighttpdport", "8080") +
                  key("kl15pwdn", "1") + "\n\n[host]\n" + key("devicename", "gw-1") +
                  "\n\n[can_0]\n" + key("ifname", "can0") + key("active", "1") +
                  key("baudrate", "250000") + key("listenonly", "0") + key("autoresume", "1") +
                  key("loopback", "0") + key("oneshot", "0") + key("triplesampling", "0") +
                  key("manbr", "1") +
                  key("br_register", "BRP 3, RJW 1, TQ 125, PSEG1 13, PSEG2 2, PROPSEG 0") +
                  key("samplepoint", "875") + "\n\n");
    EXPECT_EQ(fake.readFile(kBackup), before);
    EXPECT_EQ(fake.commands, std::vector<std::string>{"mv -f " + fake.pathOf(kTemporary) + " " +
                                                      fake.pathOf(kDefaultConfigPath)});
}

// Every written key of every group reads back as it was stored: a second store of the reloaded
// model writes the same file.
TEST_F(Store, EveryGroupReadsBackAsItWasStored) {
    fake.writeFile(kDefaultConfigPath, configHeader("1.3.1"));
    copyText(m().general.Description, "lab bench");
    copyText(m().general.hostName, "gw-9");
    LanInterface& lan = m().lan[0];
    lan.UseDHCP = 1;
    copyText(lan.IfName, "uplink");
    inet_pton(AF_INET, "10.0.0.2", &lan.IPv4);
    inet_pton(AF_INET, "255.0.0.0", &lan.Subnetmask);
    inet_pton(AF_INET, "10.0.0.1", &lan.IPv4Gw);
    inet_pton(AF_INET6, "fe80::1", &lan.IPv6);
    inet_pton(AF_INET6, "2001:db8::1", &lan.IPv6Gw);
    m().can[1] = {"can1", 1, 125000, 0, 625, 0, 0, 1, {125, 1, 2, 3, 4, 5}, 1, 1, 1, 0, 0, 1, ""};
    RouteRecord& first = route(0, "first");
    first.RouteFlags |= kRouteRunning | kRouteUnifyFilters;
    RouteInfo& info = first.image.info;
    info.flags = kDrvCan2Lan | kDrvTcpDelay | kDrvNoControl;
    copyText(info.interface1, "can1");
    info.protocol2 = 6;
    parseDestination("192.168.5.5:6000", info.destination);
    std::tie(info.fpp, info.retryDelay, info.retryCount, info.cdm, first.DispIdx) =
        std::tuple(20, 301, 31, 600, 3);
    m().can[0] = m().can[1];  // a zero baud rate would load clamped
    copyText(m().can[0].IfName, "can0");
    RouteRecord& third = route(2, "third");  // stored as the second route
    third.RouteFlags |= kRouteJoinFilters;
    third.image.info.protocol2 = 17;  // the file has no text for other numbers
    third.image.info.cdm = 10;        // nor for values the loader would clamp
    define({{0, kRange11, 1, {}, {}, 0x100, 0x1FF},
            {5, kMask29, 1 | kFilterInverted, "note", "masked", 0x12345, 0x1FFFFFFF}});
    ASSERT_EQ(parseFilterList(m().filters, "0,5", 2, true), 0);
    m().gui.show[3] = 1;
    m().dhcp = {1, {}, {}, 9};
    inet_pton(AF_INET, "10.0.0.50", &m().dhcp.start_addr);
    inet_pton(AF_INET, "10.0.0.60", &m().dhcp.end_addr);

    m().changed.setAll();
    ASSERT_EQ(store(), 0) << answer.da;
    const std::string written = stored();
    EXPECT_EQ(fake.readFile(kDhcpdConfigPath),
              "start 10.0.0.50\nstart 10.0.0.60\ninterface eth0\n");
    reload();
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
    const std::string rewritten = kHeader131 + "\n[general]\n" + key("description", "Gate") +
                                  "\n\n[unknown]\n" + key("x", "1") + "\n\n";
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
    const struct {
        unsigned inFile;
        std::vector<unsigned> inUse;
        Strings expected;  // rt_0:rtinfo, rt_0:filters, rt_1:rtinfo, rt_1:filters, rt_2,
                           // rt_2:rtinfo, rt_3:rtinfo, fwd_gen:count
    } cases[] = {
        {3, {0, 2}, {"r0", kAbsent, "r2", "0", kAbsent, kAbsent, kAbsent, "2"}},
        // Beyond Count the fourth is never read: it is left for a later store.
        {4, {0, 3}, {"r0", kAbsent, "r3", kAbsent, kAbsent, kAbsent, "old3", "2"}},
    };
    for (const auto& c : cases) {
        resetModel(m());
        std::string file =
            configHeader("1.3.1") + "[FWD_GEN]\nCount = " + std::to_string(c.inFile) + "\n";
        for (unsigned n = 0; n < c.inFile; ++n)
            file += "[RT_" + std::to_string(n) + "]\nRtInfo = old" + std::to_string(n) +
                    "\nFilters = 7\nInterface2 = eth0\n";
        fake.writeFile(kDefaultConfigPath, file);
        for (unsigned record : c.inUse)
            route(record, ("r" + std::to_string(record)).c_str());
        ASSERT_EQ(parseFilterList(m().filters, "0", 2, true), 0);
        ASSERT_EQ(store({flag::Route + 2}), 0) << answer.da;
        EXPECT_EQ(entries({"rt_0:rtinfo", "rt_0:filters", "rt_1:rtinfo", "rt_1:filters", "rt_2",
                           "rt_2:rtinfo", "rt_3:rtinfo", "fwd_gen:count"}),
                  c.expected)
            << c.inFile;
    }
}

TEST_F(Store, FilterSectionsAreRemovedRewrittenAndCreated) {
    fake.writeFile(kDefaultConfigPath,
                   configHeader("1.3.1") +
                       "[FILTER_0]\nfilter_type = 1\nTerm = 0x100-0x1FF\n"
                       "[FILTER_2]\nfilter_type = 1\nTerm = 0x1-0x2\nExtra = x\n");
    define({{2, kMask11, 1, {}, {}, 0x123, 0x7FF},
            {4, kMask11, 1 | kFilterInverted, {}, "n", 0x123, 0x7FF}});
    ASSERT_EQ(store({flag::Filter + 1, flag::Filter + 3, flag::Filter + 5}), 0) << answer.da;
    EXPECT_EQ(entries({"filter_0", "filter_0:filter_type", "filter_2:filter_type", "filter_2:term",
                       "filter_2:extra"}),
              (Strings{kAbsent, kAbsent, "3", "0x123/0x7FF", "x"}));
    EXPECT_NE(
        stored().find("\n[filter_4]\n" + key("filter_type", "3") + key("filter_mode", "0") +
                      key("comment", "") + key("name", "n") + key("term", "0x123/0x7FF") + "\n"),
        std::string::npos)
        << stored();
}

// After a file of an older format was loaded every group is stored, with no flag set, under the
// current header and names.
TEST_F(Store, OlderFormatsAreRewrittenWholeUnderCurrentNames) {
    const std::string br = "BRP 2, RJW 1, TQ 83, PSEG1 9, PSEG2 2, PROPSEG 1";
    fake.writeFile(kDefaultConfigPath,
                   configHeader("1.2.0") + "[filter_3]\nKind = 3\nType = 0\nTerm = 0x123/0x7FF\n");
    ASSERT_EQ(loadConfiguration(m()), 0);
    m().changed.clearAll();
    ASSERT_EQ(store(), 0) << answer.da;
    EXPECT_EQ(stored().rfind(kHeader131, 0), 0u);
    // 1.2.0 held the mask inverted.
    EXPECT_EQ(entries({"filter_3:kind", "filter_3:type", "filter_3:filter_type",
                       "filter_3:filter_mode", "filter_3:term", "general", "host", "lan_0", "can_1",
                       "gui", "dhcp_server", "fwd_gen:count"}),
              (Strings{kAbsent, kAbsent, "3", "0", "0x123/0x000", kSection, kSection, kSection,
                       kSection, kSection, kSection, "0"}));

    resetModel(m());
    ini::resetFormatState();
    fake.writeFile(kDefaultConfigPath,
                   configHeader("1.0.0") + "[CAN_0]\nManBr = 1\nBR_reigster = " + br + "\n");
    ASSERT_EQ(loadConfiguration(m()), 0);
    m().changed.clearAll();
    ASSERT_EQ(store(), 0) << answer.da;
    // Only filter keys lose their older names; the old CAN key stays, and nothing reads it.
    EXPECT_EQ(entries({"can_0:br_register", "can_0:br_reigster"}), (Strings{br, br}));
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

// Whichever file step fails, the configuration path or else the backup holds a whole file.
TEST_F(Store, EachFileStepFailingLeavesAWholeFile) {
    enum State { Missing, Old, New, Other };
    using Knob = int FakeSystem::*;
    const Knob open = &FakeSystem::openStreamErrno, write = &FakeSystem::writeErrno,
               sync = &FakeSystem::syncErrno, close = &FakeSystem::closeErrno,
               rename = &FakeSystem::renameErrno, shell = &FakeSystem::commandResult;
    const std::string before = configHeader("1.3.1") + "[GUI]\nshow_can_info = 1\n";
    const struct {
        Knob knob;
        int value;
        unsigned flag;
        int result;
        std::string text;
        State config, backup, temporary;
    } cases[] = {
        {open, 0, flag::Gui, 0, "", New, Old, Missing},
        {open, EACCES, flag::Gui, -1,
         "ERROR@(2,330): new .ini file can't be created (Permission denied)", Old, Missing,
         Missing},
        {open, EACCES, flag::Route + 1, -1,
         "ERROR@(2,80): new .ini file can't be created (Permission denied)", Old, Missing, Missing},
        {write, ENOSPC, flag::Gui, -1,
         "ERROR@(2,330): can't close new .ini file (No space left on device)", Old, Missing,
         Missing},
        {sync, EIO, flag::Gui, 0, "", New, Old, Missing},
        {close, EIO, flag::Gui, -1, "ERROR@(2,330): can't close new .ini file (Input/output error)",
         Old, Missing, New},
        {rename, EACCES, flag::Gui, -1,
         "ERROR@(2,330): can't rename old .ini file (Permission denied)", Old, Missing, New},
        {shell, -1, flag::Gui, -1,
         "ERROR@(2,330): can't rename new .ini file (Resource temporarily unavailable)", Old,
         Missing, New},
        // mv's own exit status is not examined: the new file waits in /tmp, the old one is the
        // backup.
        {shell, 256, flag::Gui, 0, "", Missing, Old, New},
    };
    std::string fresh;
    const auto state = [&](const char* path) {
        const std::string content = fake.fileExists(path) ? fake.readFile(path) : "-";
        return content == "-" ? Missing : content == before ? Old : content == fresh ? New : Other;
    };
    for (const auto& c : cases) {
        for (Knob knob : {open, write, sync, close, rename, shell})
            fake.*knob = 0;
        for (const char* path : {kBackup, kTemporary})
            fake.removeFile(path);
        fake.writeFile(kDefaultConfigPath, before);
        m().changed.clearAll();
        fake.*c.knob = c.value;
        EXPECT_EQ(store({c.flag}), c.result) << c.text;
        EXPECT_STREQ(answer.da, c.text.c_str());
        if (fresh.empty()) fresh = stored();
        EXPECT_EQ(std::tuple(state(kDefaultConfigPath), state(kBackup), state(kTemporary)),
                  std::tuple(c.config, c.backup, c.temporary))
            << c.text;
    }
    EXPECT_NE(fresh.find("show_can_info                  = 0"), std::string::npos);
    EXPECT_GT(fake.streamSyncs, 0);
}

// Values are written unquoted, so the next load reads them by the file's comment and line
// rules: a ';' or '#' ends the value, outer blanks go, and a line break makes the whole file
// unreadable (every default, and every later store fails until the file is mended).
TEST_F(Store, CommentSignsAndLineBreaksInValuesChangeTheNextLoad) {
    const struct {
        const char* stored;
        const char* loaded;
    } cases[] = {
        {"a;b", "a"}, {"#all", ""}, {"  blanks  ", "blanks"}, {"two\nlines", "Module description"}};
    for (const auto& c : cases) {
        fake.writeFile(kDefaultConfigPath, configHeader("1.3.1"));
        copyText(m().general.Description, c.stored);
        ASSERT_EQ(store({flag::General}), 0) << c.stored;
        reload();
        EXPECT_STREQ(m().general.Description, c.loaded) << c.stored;
    }
    EXPECT_EQ(store({flag::General}), -1);  // the file with the line break
}

TEST_F(Store, ErrorTexts) {
    char text[kDataSize];
    EXPECT_EQ(formatIniError(text, sizeof text, 5, 1, 0), 51);
    EXPECT_STREQ(text, "ERROR@(5,1,0): key pair doesn't exist in .ini file!");
    formatIniError(text, sizeof text, 2, 0, kSectionErrorKey);
    EXPECT_STREQ(text, "ERROR@(2,0,4294967295): section doesn't exist in .ini file!");
}

// A store cut short after the file went to the backup: the start-up puts the backup back.
TEST_F(Store, InterruptedStoreIsUndoneAtStartUp) {
    // configuration file (nullptr: missing), backup (nullptr: missing), result, file after
    const std::tuple<const char*, const char*, int, std::string> cases[] = {
        {nullptr, "stored\n", 1, "stored\n"},
        {"", "stored\n", 1, "stored\n"},
        {"current\n", "stored\n", 0, "current\n"},
        {nullptr, nullptr, 0, ""},
        {"", "", 0, ""},
    };
    for (const auto& [file, backup, result, after] : cases) {
        fake.removeFile(kDefaultConfigPath);
        fake.removeFile(kBackup);
        if (file != nullptr) fake.writeFile(kDefaultConfigPath, file);
        if (backup != nullptr) fake.writeFile(kBackup, backup);
        EXPECT_EQ(restoreInterruptedStore(), result)
            << (file ? file : "-") << (backup ? backup : "-");
        EXPECT_EQ(stored(), after);
        EXPECT_EQ(fake.fileExists(kBackup), backup != nullptr && result == 0);
    }
}

}  // namespace
