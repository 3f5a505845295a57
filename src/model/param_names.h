#pragma once
// Readable names of the parameters for the clients (cfgctl, and the PHP library through
// `cfgctl names --php`), defined once beside the groups' addressing. The request path never
// uses them.
//
// A name is GROUP.PARAMETER for the parameters of a group as a whole (`can.if_count`,
// `route.active_count`, `gui.show_can`, `general.order_number`) and GROUPn.PARAMETER for those of
// an instance. Interfaces carry the number of their kernel name (`lan0` is f2 1, eth0; `can0`
// and `can1` are f2 1 and 2); routes and filters carry the number that requests and filter
// lists use, which is f2 itself (`route1`..`route8`, `filter1`..`filter32`). Parameter words
// are lower case with underscores.

#include <cstddef>
#include <cstdint>
#include <string_view>

enum class ParamAccess : uint8_t {
    ReadWrite,
    ReadOnly,   // identity, counts, and values that only the configuration file sets
    Live,       // read only, and changing by itself: link state, statistics, MAC address
    WriteOnly,  // an action, or a value that reads back nothing
};

inline constexpr std::size_t kParamNameSize = 32;

struct Param {
    char name[kParamNameSize];
    uint8_t f1;
    uint8_t f2;
    uint8_t f3;
    ParamAccess access;
    // Written again after any other write to its instance, whose side effect it undoes: any
    // route write switches the route on (its state follows), a bit-timing text switches the
    // interface to register timing (its bit rate follows), a kind change converts the filter's
    // term (the term follows).
    bool followsInstance;
    // What a read answers for "none", which written back would mean something else; nullptr
    // when there is no such text. A route without filters reads "-1", which a write would take
    // as filter 1: the empty list is written instead.
    const char* noneText;
    // The most characters of a written value that the daemon keeps (the record's field);
    // 0 for a value it converts (numbers, switches, addresses, terms), bounded by the request
    // alone. The web front end's maxlength.
    uint16_t chars;
    // The range a number must lie in, where the handler refuses others with a legacy text
    // that does not say it; low == high == 0: none given.
    uint32_t low;
    uint32_t high;
};

// The parameters in the order a dump lists them, which is also an order that writes them
// correctly: filters before the routes whose lists name them.
std::size_t paramCount();
// The parameter at `position` (below paramCount()).
Param paramAt(std::size_t position);

[[nodiscard]] bool findParam(std::string_view name, Param& param);
[[nodiscard]] bool findParamAt(uint8_t f1, uint8_t f2, uint8_t f3, Param& param);

// The access word that `cfgctl names` and the PHP table show: "rw", "r", "live", "w".
std::string_view accessWord(ParamAccess access);
