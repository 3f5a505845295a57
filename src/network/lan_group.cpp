#include "network/lan_group.h"

#include <arpa/inet.h>

#include <cstdio>

#include "model/config_model.h"
#include "model/value_rules.h"
#include "network/nw.h"

namespace {

constexpr unsigned kGroupInstance = 0;
constexpr unsigned kInterfaceInstance = 1;

// --- f2 = 0: the group as a whole, indexed by f3 ---

int readCount(AnswerMessage& answer) {
    answerText(answer, "%u", kLanServed);
    return 0;
}

int readPrefix(AnswerMessage& answer) {
    answerCopy(answer, kLanBaseName);
    return 0;
}

constexpr int (*kGroupReaders[])(AnswerMessage& answer) = {
    readCount,   // 0 "IF cnt"
    readPrefix,  // 1 "Prefix"
};

// --- f2 = 1: the interface, indexed by f3 ---

using InterfaceReader = int (*)(const LanInterface& lan, AnswerMessage& answer);

int readIfName(const LanInterface& lan, AnswerMessage& answer) {
    answerCopy(answer, lan.IfName);
    return 0;
}

int readUseDhcp(const LanInterface& lan, AnswerMessage& answer) {
    answerText(answer, "%u", lan.UseDHCP);
    return 0;
}

template <auto Field>
int readAddress(const LanInterface& lan, AnswerMessage& answer) {
    constexpr int family = sizeof(lan.*Field) == sizeof(in_addr) ? AF_INET : AF_INET6;
    return inet_ntop(family, &(lan.*Field), answer.da, sizeof answer.da) != nullptr ? 0 : -1;
}

int readMac(const LanInterface& lan, AnswerMessage& answer) {
    answerCopy(answer, lan.MAC);
    return 0;
}

int readNotServed(const LanInterface&, AnswerMessage& answer) {
    return failText(answer, kUnknownSubidxIIShort);
}

constexpr InterfaceReader kInterfaceReaders[] = {
    readIfName,                              // 0 "IF name"
    readUseDhcp,                             // 1 "DHCP usage"
    readAddress<&LanInterface::IPv4>,        // 2 "IPv4"
    readAddress<&LanInterface::Subnetmask>,  // 3 "Subnetmask"
    readAddress<&LanInterface::IPv6>,        // 4 "IPv6"
    readAddress<&LanInterface::IPv4Gw>,      // 5 "IPv4Gateway"
    readAddress<&LanInterface::IPv6Gw>,      // 6 "IPv6Gateway"
    readNotServed,                           // 7 "IPv6 net bits": kept in the file only
    readMac,                                 // 8 "MAC Address"
};

using InterfaceWriter = int (*)(const RequestMessage& request, AnswerMessage& answer,
                                LanInterface& lan);

int writeIfName(const RequestMessage& request, AnswerMessage& answer, LanInterface& lan) {
    if constexpr (kHardened) {
        if (const char* refusal = rules::checkInterfaceName(request.da))
            return failText(answer, refusal);
    }
    copyText(lan.IfName, request.da);  // at most 127 characters, always terminated
    return 0;
}

// Any text but one starting with '0' switches DHCP on, the empty text included.
int writeUseDhcp(const RequestMessage& request, AnswerMessage&, LanInterface& lan) {
    lan.UseDHCP = request.da[0] != '0';
    return 0;
}

// A text that does not convert leaves the field as the conversion left it.
template <auto Field, const char* const* FailFormat>
int writeAddress(const RequestMessage& request, AnswerMessage& answer, LanInterface& lan) {
    constexpr int family = sizeof(lan.*Field) == sizeof(in_addr) ? AF_INET : AF_INET6;
    if (inet_pton(family, request.da, &(lan.*Field)) == 1) return 0;
    answerText(answer, *FailFormat, request.f1, request.f2);
    return -1;
}

int refuseUnknown(const RequestMessage& request, AnswerMessage& answer, LanInterface&) {
    answerText(answer, kUnknownParameterFormat, request.f1, request.f2);
    return -1;
}

constexpr InterfaceWriter kInterfaceWriters[] = {
    writeIfName,                                                       // 0
    writeUseDhcp,                                                      // 1
    writeAddress<&LanInterface::IPv4, &kFalseAddressFormat>,           // 2
    writeAddress<&LanInterface::Subnetmask, &kFalseSubnetmaskFormat>,  // 3
    writeAddress<&LanInterface::IPv6, &kFalseAddressFormat>,           // 4
    writeAddress<&LanInterface::IPv4Gw, &kFalseAddressFormat>,         // 5
    writeAddress<&LanInterface::IPv6Gw, &kFalseAddressFormat>,         // 6
    refuseUnknown,                                                     // 7 net bits: file only
    refuseUnknown,                                                     // 8 MAC: the kernel's
};

// The interface's live MAC and address are fetched once per session, on its first read. The
// kernel's address then replaces the configured one in the record (and reaches the file with
// the next store); 0.0.0.0 when the interface has none.
void refreshOncePerSession(ConfigModel& model) {
    if (model.stamps.lan == model.session.counter) return;
    LanInterface& lan = model.lan[0];
    const InterfaceName name(lan);
    (void)nw_get_mac(name.text, lan.MAC);    // a failed query leaves zeros, which are shown
    (void)nw_get_ipv4(name.text, lan.IPv4);  // likewise 0.0.0.0
    model.stamps.lan = model.session.counter;
}

void applyInterface(ConfigModel& model) {
    const LanInterface& lan = model.lan[0];
    const InterfaceName name(lan);
    // Command results are not reported: clients see the outcome in the interface's read-back.
    // Switching DHCP off does not stop a running client, nor does switching it on drop the
    // static address.
    if (lan.UseDHCP == 0) {
        (void)nw_update_ip_cfg(name.text, lan.IPv4, lan.Subnetmask);
        (void)nw_update_default_route(name.text, lan.IPv4Gw);
        (void)nw_update_resolv_conf(&lan.IPv4Gw);  // the gateway is the only name server
    } else {
        (void)nw_dhcp_client(NW_RESTART, name.text, model.general.hostName);
    }
}

}  // namespace

int readLan(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    if (request.f2 == kGroupInstance) {
        if (request.f3 >= std::size(kGroupReaders)) return failUnknownSubidxII(request, answer);
        return kGroupReaders[request.f3](answer);
    }
    if (request.f2 > kLanServed) return -1;  // fails with an empty answer text
    refreshOncePerSession(model);
    if (request.f3 >= std::size(kInterfaceReaders)) return failText(answer, kUnknownSubidxIIShort);
    return kInterfaceReaders[request.f3](model.lan[request.f2 - 1], answer);
}

int setLan(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    if (request.f2 > kLanServed)
        return 0;  // beyond the served interface: accepted, nothing changes
    // Marked before validating: even a refused write makes the session apply the instance, so
    // a write to the group as a whole still runs the time-service step.
    model.changed.mark(flag::Lan, request.f2);
    if (request.f2 == kGroupInstance) {
        if (request.f3 < std::size(kGroupReaders)) return failText(answer, kReadOnlyText);
        answerText(answer, kUnknownParameterFormat, request.f1, request.f2);
        return -1;
    }
    if (request.f3 >= std::size(kInterfaceWriters))
        return refuseUnknown(request, answer, model.lan[request.f2 - 1]);
    return kInterfaceWriters[request.f3](request, answer, model.lan[request.f2 - 1]);
}

int applyLan(unsigned instance, ConfigModel& model, AnswerMessage& answer) {
    int result = 0;
    if (instance == kInterfaceInstance) {
        applyInterface(model);
    } else if (instance != kGroupInstance) {
        answerText(answer, kFalseInterfaceFormat, static_cast<int>(instance));
        result = -1;
    }
    // The time service follows every LAN apply, a refused one included. No stop precedes a
    // start, so each apply with NTP on launches one more ntpd.
    const GeneralRecord& general = model.general;
    (void)nw_ntp(general.UseNTP == 1 ? NW_START : NW_STOP, general.NTPServer);
    return result;
}
