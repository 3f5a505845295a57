#include "core/session.h"

#include <array>
#include <cstring>

#include "can/can_group.h"
#include "config/store.h"
#include "core/reset.h"
#include "filters/filter_group.h"
#include "model/bt.h"
#include "model/config_model.h"
#include "model/general.h"
#include "model/gui.h"
#include "model/host.h"
#include "model/status.h"
#include "network/lan_group.h"
#include "network/wlan_count.h"
#include "network/wlan_group.h"
#include "routing/gateway.h"
#include "routing/route_group.h"

namespace {

struct GroupHandlers {
    ReadHandler read;  // nullptr: the read succeeds with an empty value
    SetHandler set;    // nullptr: the write succeeds and changes nothing
};

// Indexed by f1; groups beyond the table answer like a group without handlers.
constexpr std::array<GroupHandlers, 10> kGroupHandlers{{
    {readGeneral, setGeneral},
    {readHost, setHost},
    {readLan, setLan},
    {readWlan, storeWlanInformation},
    {readCan, setCan},
    {readRoute, setRoute},
    {readStatus, setStatus},
    {readBt, nullptr},
    {readGui, setGui},
    {readFilter, setFilter},
}};

struct ApplyStep {
    ApplyHandler apply;
    unsigned base;       // change-flag place of instance 0
    unsigned instances;  // instance i is at place base + i
};

// The order in which a finished session reaches the system: the network before the CAN
// interfaces, and the routes last, when their filters and interfaces are in place. The WLAN
// step is the group as a whole only, unless the build serves WLAN interfaces.
constexpr ApplyStep kApplyOrder[] = {
    {applyGeneral, flag::General, 1},  {applyHost, flag::Host, 1},
    {applyLan, flag::Lan, 2},          {setWlanConfig, flag::Wlan, kWlanApplyInstances},
    {applyCanInterface, flag::Can, 3}, {applyFilter, flag::Filter, 33},
    {applyRoute, flag::Route, 9},
};

constexpr const char* kTooManyWritesText = "ERROR: Exeeded number of write requests!";
constexpr const char* kMixedWritesText =
    "ERROR: Temporary and permanent requests mixed up during session!";

void echoAddress(const RequestMessage& request, AnswerMessage& answer, const SessionState& s) {
    answer.f1 = request.f1;
    answer.f2 = request.f2;
    answer.f3 = request.f3;
    answer.type = s.answerAddress;
}

int finish(AnswerMessage& answer, int result) {
    answer.mt = result < 0 ? NEG_ANSW : POS_ANSW;
    return result < 0 ? -1 : 0;
}

int startSession(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    SessionState& s = model.session;
    // A session left open was neither finished nor aborted: reload the file as an abort does.
    if (!s.noSessionOpen) {
        AnswerMessage ignored{};  // the start is answered as always
        (void)reloadConfiguration(model, ignored);
    }
    s.readCount = 0;
    s.writeCount = 0;
    s.answerAddress = request.f1;
    s.startArgument = request.f2;
    s.announcedWrites = request.f3;
    answer.f1 = 1;
    answer.f2 = request.f2;
    answer.f3 = request.f3;
    answer.type = s.answerAddress;
    model.changed.clearAll();
    answer.mt = POS_ANSW;
    ++s.counter;
    s.noSessionOpen = 0;
    return 0;
}

int readParam(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    echoAddress(request, answer, model.session);
    ++model.session.readCount;
    const ReadHandler read =
        request.f1 < kGroupHandlers.size() ? kGroupHandlers[request.f1].read : nullptr;
    return finish(answer, read != nullptr ? read(request, answer, model) : 0);
}

int setParam(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    SessionState& s = model.session;
    echoAddress(request, answer, s);
    // A session that announced N writes has N + 1 accepted: the web front end has always
    // counted this way, so the limit stays one above the announcement.
    if (s.writeCount++ > s.announcedWrites) {
        answerCopy(answer, kTooManyWritesText);
        return finish(answer, -1);
    }
    if (request.mt == SET_PARAM) {
        s.permanent = 1;
        if (s.temporary) {
            answerCopy(answer, kMixedWritesText);
            return finish(answer, -1);
        }
    } else {
        // A temporary write after a permanent one is still carried out; it only carries the
        // warning, which a successful write answers inside a POS_ANSW.
        s.temporary = 1;
        if (s.permanent) {
            answerCopy(answer, kMixedWritesText);
            answer.mt = NEG_ANSW;
        }
    }
    const SetHandler set =
        request.f1 < kGroupHandlers.size() ? kGroupHandlers[request.f1].set : nullptr;
    return finish(answer, set != nullptr ? set(request, answer, model) : 0);
}

int finishSession(AnswerMessage& answer, ConfigModel& model) {
    SessionState& s = model.session;
    s.noSessionOpen = 1;
    answer.type = s.answerAddress;
    answer.mt = POS_ANSW;
    answer.f1 = answer.f2 = answer.f3 = 0;
    // A session that announced no writes may still make one; it stays in memory only.
    if (s.writeCount <= 0 || s.announcedWrites <= 0) return 0;
    // On failure the temporary and permanent flags stay set and carry into the next session.
    if (applyChangedGroups(model, answer) < 0) return finish(answer, -1);
    if (s.permanent && storeConfiguration(model, answer) < 0) return finish(answer, -1);
    s.temporary = 0;
    s.permanent = 0;
    return finish(answer, 0);
}

int abortSession(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    SessionState& s = model.session;
    s.noSessionOpen = 1;
    s.temporary = 0;
    s.permanent = 0;
    echoAddress(request, answer, s);
    return finish(answer, reloadConfiguration(model, answer));
}

}  // namespace

int applyChangedGroups(ConfigModel& model, AnswerMessage& answer) {
    int result = 0;
    for (const ApplyStep& step : kApplyOrder) {
        for (unsigned instance = 0; instance < step.instances; ++instance) {
            if (!model.changed.isSet(step.base, instance)) continue;
            if (step.apply(instance, model, answer) < 0) result = -1;
        }
    }
    return result;
}

int procMsg(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    std::memset(answer.da, 0, sizeof answer.da);
    switch (request.mt) {
        case START_SESSION:
            return startSession(request, answer, model);
        case READ_PARAM:
            return readParam(request, answer, model);
        case SET_PARAM:
        case SET_TEMP_PARAM:
            return setParam(request, answer, model);
        case FINISH_SESSION:
            return finishSession(answer, model);
        case ABORT_SESSION:
            return abortSession(request, answer, model);
        default:
            // Answers and unknown types get an empty answer of message type 0, which cannot
            // be sent.
            answer.type = 0;
            answer.mt = 0;
            answer.f1 = answer.f2 = answer.f3 = 0;
            return 0;
    }
}
