#include "model/param_names.h"

#include <array>
#include <cstdio>
#include <span>

#include "model/config_model.h"
#include "model/message.h"
#include "network/wlan_count.h"

namespace {

using enum ParamAccess;

enum Group : uint8_t {
    General = 0,
    Host = 1,
    Lan = 2,
    Wlan = 3,
    Can = 4,
    Route = 5,
    Bt = 7,
    Gui = 8,
    Filter = 9,
};

struct Row {
    std::string_view word;
    uint8_t sub;  // f3, or f2 in the groups that choose the parameter by f2
    ParamAccess access;
    bool followsInstance = false;
    const char* noneText = nullptr;
    uint16_t chars = 0;
    uint32_t low = 0;
    uint32_t high = 0;
};

// The characters a text field of `size` bytes keeps besides its terminator.
constexpr uint16_t charsOf(std::size_t size) {
    return static_cast<uint16_t>(size - 1);
}

constexpr int kUnnumbered = -1;

// A run of instances that share their parameters.
struct Block {
    std::string_view group;
    uint8_t f1;
    uint8_t f2;          // of the first instance
    unsigned instances;  // served instances; 1 for an unnumbered block
    int firstNumber;     // the number in the first instance's name, or kUnnumbered
    bool subInF2;        // General and Host: f2 chooses the parameter, f3 is 0
    std::span<const Row> rows;
};

// The groups' parameters as their read and write handlers serve them. Left out: Status (it
// carries nothing), General's "Lighttpd port" (never served) and the route sub-indices that
// answer "- none -" and ignore writes.
constexpr Row kGeneralRows[] = {
    {"sw_version", 0, ReadOnly},
    {"hw_version", 1, ReadOnly},
    {"order_number", 2, ReadOnly},
    {"serial_number", 3, ReadOnly},
    // The request's value field bounds the copy.
    {"description", 4, ReadWrite, false, nullptr, kDataSize - 1},
    // A write only clears the setting and is refused: this hardware cannot power down.
    {"kl15_power_down", 5, ReadOnly},
    {"gateway_version", 6, ReadOnly},
};

// The host name reads the system's; the user name reads back nothing.
constexpr Row kHostRows[] = {{"name", 0, ReadWrite, false, nullptr, kHostTextChars},
                             {"user_name", 1, WriteOnly, false, nullptr, kHostTextChars}};

// The group's own parameters of LAN, WLAN, CAN and BT.
constexpr Row kInterfaceCountRows[] = {{"if_count", 0, ReadOnly}, {"prefix", 1, ReadOnly}};

constexpr Row kLanRows[] = {
    {"if_name", 0, ReadWrite, false, nullptr, charsOf(sizeof LanInterface::IfName)},
    {"dhcp", 1, ReadWrite},
    {"ipv4", 2, ReadWrite},
    {"netmask", 3, ReadWrite},
    {"ipv6", 4, ReadWrite},
    {"ipv4_gateway", 5, ReadWrite},
    {"ipv6_gateway", 6, ReadWrite},
    {"mac", 8, Live},
};

// Served once the build has WLAN interfaces.
constexpr Row kWlanRows[] = {
    {"if_name", 0, ReadWrite, false, nullptr, charsOf(sizeof WlanInterface::IfName)},
    {"ssid", 1, ReadWrite, false, nullptr, charsOf(sizeof WlanInterface::SSID)},
    {"encryption", 2, ReadWrite},
    {"encryption_type", 3, ReadWrite},
    {"key_type", 4, ReadWrite},
    {"key", 5, ReadWrite, false, nullptr, charsOf(sizeof WlanInterface::Key)},
    {"supported_modes", 6, ReadOnly},
    {"mode", 7, ReadWrite},
    {"dhcp", 8, ReadWrite},
    {"ipv4", 9, ReadWrite},
    {"netmask", 10, ReadWrite},
    {"ipv6", 11, ReadWrite},
    {"ipv4_gateway", 12, ReadWrite},
    {"ipv6_gateway", 13, ReadWrite},
    {"ipv6_net_bits", 14, ReadOnly},
    {"mac", 15, Live},
};

// One-shot, triple sampling, sample point and register timing come from the configuration
// file only.
constexpr Row kCanRows[] = {
    {"if_name", 0, ReadWrite, false, nullptr, kCanIfNameMaxChars},
    {"active", 1, ReadWrite},
    {"bit_timing", 5, ReadWrite},
    {"bitrate", 2, ReadWrite, true, nullptr, 0, kMinBaudrate, kMaxBaudrate},
    {"listen_only", 3, ReadWrite},
    {"auto_resume", 4, ReadWrite},
    {"loopback", 6, ReadWrite},
    {"one_shot", 7, ReadOnly},
    {"triple_sampling", 8, ReadOnly},
    {"sample_point", 9, ReadOnly},
    {"manual_bit_timing", 10, ReadOnly},
    {"real_bitrate", 11, Live},
    {"real_sample_point", 12, Live},
    {"state", 13, Live},
    {"reapply", 14, WriteOnly},  // accepted without a value: the interface is applied again
};

constexpr Row kFilterGroupRows[] = {
    {"count", 0, ReadOnly}, {"max", 1, ReadOnly}, {"list", 2, ReadOnly}};

constexpr Row kFilterRows[] = {
    {"kind", 0, ReadWrite},
    {"type", 1, ReadWrite},
    {"term", 2, ReadWrite, true},
    {"comment", 3, ReadWrite, false, nullptr, charsOf(sizeof Filter::Comment)},
    {"name", 4, ReadWrite, false, nullptr, charsOf(sizeof Filter::Name)},
};

constexpr Row kRouteGroupRows[] = {{"slots", 0, ReadOnly}, {"active_count", 1, ReadOnly}};

constexpr Row kRouteRows[] = {
    {"name", 0, ReadWrite, false, nullptr, kRtInfoChars},
    {"type", 2, ReadWrite},
    {"interface", 3, ReadWrite, false, nullptr, charsOf(sizeof RouteInfo::interface1)},
    {"protocol", 6, ReadWrite},
    {"destination", 8, ReadWrite},
    {"fpp", 11, ReadWrite},
    {"tcp_delay", 12, ReadWrite},
    {"display_index", 13, ReadWrite},
    {"no_control", 32, ReadWrite},
    {"filters", 33, ReadWrite, false, "-1"},
    {"unify_filters", 34, ReadWrite},
    {"join_filters", 35, ReadWrite},
    {"cdm", 36, WriteOnly},
    {"state", 1, ReadWrite, true},
    {"retry_delay", 29, ReadOnly},
    {"retry_count", 30, ReadOnly},
    {"reset_stats", 15, WriteOnly},
    {"authorized_peers", 14, Live},
    {"can_packets", 16, Live},
    {"can_msgs", 17, Live},
    {"can_errors", 18, Live},
    {"can_dropped", 19, Live},
    {"can_retry_ok", 20, Live},
    {"lan_packets", 21, Live},
    {"lan_msgs", 22, Live},
    {"lan_errors", 23, Live},
    {"lan_discarded", 24, Live},
    {"lan_dropped", 25, Live},
    {"rx_buffer_len", 26, Live},
    {"rx_buffer_size", 27, Live},
    {"fpp_stats", 28, Live},
    {"tcp_connected", 31, Live},
};

constexpr Row kGuiRows[] = {
    {"show_device", 0, ReadWrite},  {"show_can", 1, ReadWrite},     {"show_lan", 2, ReadWrite},
    {"show_wlan", 3, ReadWrite},    {"show_bt", 4, ReadWrite},      {"show_routing", 5, ReadWrite},
    {"show_contact", 6, ReadWrite}, {"show_support", 7, ReadWrite}, {"show_filter", 8, ReadWrite},
};

constexpr Block kBlocks[] = {
    {"general", General, 0, 1, kUnnumbered, true, kGeneralRows},
    {"host", Host, 0, 1, kUnnumbered, true, kHostRows},
    {"lan", Lan, 0, 1, kUnnumbered, false, kInterfaceCountRows},
    {"lan", Lan, 1, kLanServed, 0, false, kLanRows},
    {"wlan", Wlan, 0, 1, kUnnumbered, false, kInterfaceCountRows},
    {"wlan", Wlan, 1, WLAN_IF_COUNT, 0, false, kWlanRows},
    {"can", Can, 0, 1, kUnnumbered, false, kInterfaceCountRows},
    {"can", Can, 1, kCanServed, 0, false, kCanRows},
    {"filter", Filter, 0, 1, kUnnumbered, false, kFilterGroupRows},
    {"filter", Filter, 1, kMaxFilters, 1, false, kFilterRows},
    {"route", Route, 0, 1, kUnnumbered, false, kRouteGroupRows},
    {"route", Route, 1, kRoutesServed, 1, false, kRouteRows},
    {"bt", Bt, 0, 1, kUnnumbered, false, kInterfaceCountRows},
    {"gui", Gui, 1, 1, kUnnumbered, false, kGuiRows},
};

constexpr std::size_t blockSize(const Block& block) {
    return block.instances * block.rows.size();
}

constexpr std::size_t countParams() {
    std::size_t count = 0;
    for (const Block& block : kBlocks)
        count += blockSize(block);
    return count;
}

constexpr std::size_t kParamCount = countParams();

}  // namespace

std::size_t paramCount() {
    return kParamCount;
}

Param paramAt(std::size_t position) {
    for (const Block& block : kBlocks) {
        if (position >= blockSize(block)) {
            position -= blockSize(block);
            continue;
        }
        const unsigned instance = static_cast<unsigned>(position / block.rows.size());
        const Row& row = block.rows[position % block.rows.size()];
        Param param{};
        if (block.firstNumber == kUnnumbered)
            (void)std::snprintf(param.name, sizeof param.name, "%.*s.%.*s",  // names fit
                                static_cast<int>(block.group.size()), block.group.data(),
                                static_cast<int>(row.word.size()), row.word.data());
        else
            (void)std::snprintf(param.name, sizeof param.name, "%.*s%u.%.*s",  // as above
                                static_cast<int>(block.group.size()), block.group.data(),
                                static_cast<unsigned>(block.firstNumber) + instance,
                                static_cast<int>(row.word.size()), row.word.data());
        param.f1 = block.f1;
        param.f2 = block.subInF2 ? row.sub : static_cast<uint8_t>(block.f2 + instance);
        param.f3 = block.subInF2 ? 0 : row.sub;
        param.access = row.access;
        param.followsInstance = row.followsInstance;
        param.noneText = row.noneText;
        param.chars = row.chars;
        param.low = row.low;
        param.high = row.high;
        return param;
    }
    return Param{};
}

bool findParam(std::string_view name, Param& param) {
    for (std::size_t i = 0; i < kParamCount; ++i) {
        Param candidate = paramAt(i);
        if (name == candidate.name) {
            param = candidate;
            return true;
        }
    }
    return false;
}

bool findParamAt(uint8_t f1, uint8_t f2, uint8_t f3, Param& param) {
    for (std::size_t i = 0; i < kParamCount; ++i) {
        Param candidate = paramAt(i);
        if (candidate.f1 == f1 && candidate.f2 == f2 && candidate.f3 == f3) {
            param = candidate;
            return true;
        }
    }
    return false;
}

std::string_view accessWord(ParamAccess access) {
    constexpr std::array<std::string_view, 4> kWords{"rw", "r", "live", "w"};
    return kWords[static_cast<std::size_t>(access)];
}
