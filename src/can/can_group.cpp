#include "can/can_group.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "can/bit_timing.h"
#include "can/link_info.h"
#include "model/config_model.h"
#include "model/device_numbers.h"
#include "model/value_rules.h"
#include "sys/shell_command.h"
#include "sys/system.h"

namespace {

constexpr const char* kBaudrateTooHighFormat = "baud rate not changed! max. baud rate is %d!";
constexpr const char* kBaudrateTooLowFormat = "baud rate not changed! min. baud rate is %d!";
// The blank before the semicolon after PSEG2 is what clients have always received.
constexpr const char* kRegisterTextFormat =
    "BRP %d; RJW %d; TQ %d; PSEG1 %d; PSEG2 %d ; PROPSEG %d; SP %0.1f%%";

constexpr const char* kLinkDownFormat = "ip link set %s%d down";
constexpr const char* kLinkUpFormat = "ip link set %s%d up";
constexpr const char* kLinkTypeFormat = "ip link set %s%d type can ";
constexpr const char* kRegisterTimingFormat =
    "tq %d prop-seg %d phase-seg1 %d phase-seg2 %d sjw %d ";
constexpr const char* kBitrateFormat = "bitrate %u sample-point %0.3f ";
constexpr const char* kListenOnlyFormat = "listen-only %s ";
constexpr const char* kLoopbackFormat = "loopback %s ";
constexpr const char* kTripleSamplingFormat = "triple-sampling %s ";
constexpr const char* kOneShotFormat = "one-shot %s ";
constexpr const char* kBerrReportingFormat = "berr-reporting %s ";
constexpr const char* kRestartText = "restart-ms 1";
constexpr std::size_t kCommandChars = 249;

const char* onOff(uint8_t value) {
    return value ? "on" : "off";
}

using CommandLine = ShellCommand<kCommandChars>;

// --- reads of one interface, indexed by f3 ---

using InterfaceReader = int (*)(const CanInterface& can, AnswerMessage& answer);

template <uint8_t CanInterface::*Field>
int readFlag(const CanInterface& can, AnswerMessage& answer) {
    answerText(answer, "%d", can.*Field);
    return 0;
}

template <uint32_t CanInterface::*Field>
int readNumber(const CanInterface& can, AnswerMessage& answer) {
    answerText(answer, "%u", can.*Field);
    return 0;
}

int readIfName(const CanInterface& can, AnswerMessage& answer) {
    answerCopy(answer, can.IfName);
    return 0;
}

// With register timing the configured rate means nothing; the controller's real one does.
int readBitrate(const CanInterface& can, AnswerMessage& answer) {
    answerText(answer, "%u", can.ManBr ? can.RealBaudrate : can.Baudrate);
    return 0;
}

int readRegisterText(const CanInterface& can, AnswerMessage& answer) {
    const BitTiming& t = can.timing;
    answerText(answer, kRegisterTextFormat, static_cast<int>(t.brp), static_cast<int>(t.sjw),
               static_cast<int>(t.tq), static_cast<int>(t.phase_seg1),
               static_cast<int>(t.phase_seg2), static_cast<int>(t.prop_seg),
               static_cast<double>(static_cast<float>(can.RealSamplepoint) / 10.0f));
    return 0;
}

int readWriteOnly(const CanInterface&, AnswerMessage& answer) {
    return failText(answer, kWriteOnlyText);
}

constexpr InterfaceReader kInterfaceReaders[] = {
    readIfName,                                  // 0
    readFlag<&CanInterface::Active>,             // 1
    readBitrate,                                 // 2
    readFlag<&CanInterface::Listenonly>,         // 3
    readFlag<&CanInterface::Autoresume>,         // 4
    readRegisterText,                            // 5
    readFlag<&CanInterface::Loopback>,           // 6
    readFlag<&CanInterface::Oneshot>,            // 7
    readFlag<&CanInterface::Triplesampling>,     // 8
    readNumber<&CanInterface::Samplepoint>,      // 9
    readFlag<&CanInterface::ManBr>,              // 10
    readNumber<&CanInterface::RealBaudrate>,     // 11
    readNumber<&CanInterface::RealSamplepoint>,  // 12
    readFlag<&CanInterface::CanState>,           // 13
    readWriteOnly,                               // 14
};

// --- writes of one interface, indexed by f3 ---

using InterfaceWriter = int (*)(const RequestMessage& request, AnswerMessage& answer,
                                CanInterface& can);

template <uint8_t CanInterface::*Field>
int writeFlag(const RequestMessage& request, AnswerMessage&, CanInterface& can) {
    can.*Field = request.da[0] != '0';
    return 0;
}

int writeIfName(const RequestMessage& request, AnswerMessage& answer, CanInterface& can) {
    if constexpr (kHardened) {
        if (const char* refusal = rules::checkInterfaceName(request.da))
            return failText(answer, refusal);
    }
    copyText(can.IfName, request.da, kCanIfNameMaxChars);
    return 0;
}

int writeBitrate(const RequestMessage& request, AnswerMessage& answer, CanInterface& can) {
    const long rate = deviceStrtol(request.da, 10);
    if (rate > static_cast<long>(kMaxBaudrate)) {
        answerText(answer, kBaudrateTooHighFormat, static_cast<int>(kMaxBaudrate));
        return -1;
    }
    if (rate < static_cast<long>(kMinBaudrate)) {
        // Clients have always been told the maximum here; the number is kept as they know it.
        answerText(answer, kBaudrateTooLowFormat, static_cast<int>(kMaxBaudrate));
        return -1;
    }
    can.Baudrate = static_cast<uint32_t>(rate);
    can.ManBr = 0;
    return 0;
}

int writeRegisters(const RequestMessage& request, AnswerMessage&, CanInterface& can) {
    can.ManBr = 1;
    // Whatever part of the text parsed stays; the write is accepted regardless.
    (void)parseBrRegs(request.da, can.timing);
    return 0;
}

int refuseUnknown(const RequestMessage& request, AnswerMessage& answer, CanInterface&) {
    return failUnknownSubidxI(request, answer);
}

int refuseReadOnly(const RequestMessage&, AnswerMessage& answer, CanInterface&) {
    return failText(answer, kReadOnlyText);
}

// Marking the interface changed (done by the caller) is the whole point: it forces an apply.
int acceptOnly(const RequestMessage&, AnswerMessage&, CanInterface&) {
    return 0;
}

constexpr InterfaceWriter kInterfaceWriters[] = {
    writeIfName,                           // 0
    writeFlag<&CanInterface::Active>,      // 1
    writeBitrate,                          // 2
    writeFlag<&CanInterface::Listenonly>,  // 3
    writeFlag<&CanInterface::Autoresume>,  // 4
    writeRegisters,                        // 5
    writeFlag<&CanInterface::Loopback>,    // 6
    refuseUnknown,                         // 7 one-shot: configuration file only
    refuseUnknown,                         // 8 triple sampling: configuration file only
    refuseUnknown,                         // 9 sample point: configuration file only
    refuseUnknown,                         // 10 ManBr: configuration file only
    refuseReadOnly,                        // 11
    refuseReadOnly,                        // 12
    refuseReadOnly,                        // 13
    acceptOnly,                            // 14
};

// Live values are fetched once per session, on the first read of an interface.
void refreshOncePerSession(ConfigModel& model) {
    if (model.stamps.can == model.session.counter) return;
    for (unsigned i = 0; i < kCanServed; ++i)
        (void)refreshCanInformation(i, model);  // without the driver the record answers as it is
    model.stamps.can = model.session.counter;
}

int readGroup(const RequestMessage& request, AnswerMessage& answer) {
    switch (request.f3) {
        case 0:
            answerText(answer, "%u", kCanServed);
            return 0;
        case 1:
            answerCopy(answer, kCanBaseName);
            return 0;
        default:
            return failText(answer, kUnknownSubidxIIShort);
    }
}

}  // namespace

int readCan(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    if (request.f2 == 0) return readGroup(request, answer);
    if (request.f2 > kCanServed) return failUnknownSubidxI(request, answer);
    refreshOncePerSession(model);
    if (request.f3 >= std::size(kInterfaceReaders)) return failText(answer, kUnknownSubidxIIShort);
    return kInterfaceReaders[request.f3](model.can[request.f2 - 1], answer);
}

int setCan(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    if (request.f2 > kCanServed) return 0;  // silently ignored, as clients expect
    // Marked before validating: a refused value still makes the session apply the interface.
    model.changed.mark(flag::Can, request.f2);
    if (request.f2 == 0) {
        if (request.f3 <= 1) return failText(answer, kReadOnlyText);
        answerText(answer, kUnknownParameterFormat, request.f1, request.f2);
        return -1;
    }
    if (request.f3 >= std::size(kInterfaceWriters)) return failUnknownSubidxI(request, answer);
    return kInterfaceWriters[request.f3](request, answer, model.can[request.f2 - 1]);
}

int applyCanInterface(unsigned instance, ConfigModel& model, AnswerMessage& answer) {
    if (instance == 0) return 0;  // the group as a whole has nothing to apply
    if (instance > kCanServed) {
        answerText(answer, kFalseInterfaceFormat, static_cast<int>(instance));
        return -1;
    }
    const int index = static_cast<int>(instance - 1);
    const CanInterface& can = model.can[instance - 1];

    CommandLine down;
    down.append(kLinkDownFormat, can.BaseName, index);
    down.run();

    CommandLine type;
    type.append(kLinkTypeFormat, can.BaseName, index);
    if (can.ManBr) {
        // The prescaler follows from tq; ip link takes no brp beside it.
        const BitTiming& t = can.timing;
        type.append(kRegisterTimingFormat, static_cast<int>(t.tq), static_cast<int>(t.prop_seg),
                    static_cast<int>(t.phase_seg1), static_cast<int>(t.phase_seg2),
                    static_cast<int>(t.sjw));
    } else {
        type.append(kBitrateFormat, can.Baudrate, can.Samplepoint / 1000.0);
    }
    type.append(kListenOnlyFormat, onOff(can.Listenonly));
    type.append(kLoopbackFormat, onOff(can.Loopback));
    type.append(kTripleSamplingFormat, onOff(can.Triplesampling));
    type.append(kOneShotFormat, onOff(can.Oneshot));
    type.append(kBerrReportingFormat, onOff(can.BerrReporting));
    // Without Autoresume no restart option is sent, so a restart time set earlier stays.
    if (can.Autoresume) type.append("%s", kRestartText);
    type.run();

    if (can.Active) {
        CommandLine up;
        up.append(kLinkUpFormat, can.BaseName, index);
        up.run();
    }
    return 0;
}
