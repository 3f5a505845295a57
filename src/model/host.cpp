#include "model/host.h"

#include <array>
#include <cerrno>
#include <cstring>

#include "model/config_model.h"
#include "model/value_rules.h"
#include "sys/system.h"

namespace {

constexpr const char* kSetHostNameFailedFormat = "sethostname failed (%s)";
constexpr unsigned kHostNameParam = 0;
constexpr unsigned kUserNameParam = 1;

// The stored texts a Host write can change, indexed by f2.
constexpr std::array<char (GeneralRecord::*)[kHostTextChars + 1], 2> kHostTexts{
    &GeneralRecord::hostName, &GeneralRecord::userName};

// Live host information is refreshed once per session. Nothing of it is kept in this version
// (the host name is asked of the system at every read), so only the stamp moves.
void refreshHostInformation(ConfigModel& model) {
    if (model.stamps.host == model.session.counter) return;
    model.stamps.host = model.session.counter;
}

}  // namespace

int readHost(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    refreshHostInformation(model);
    switch (request.f2) {
        case kHostNameParam:
            // The name in force, not the stored one: a written name shows only once applied.
            if (sys::current().getHostName(answer.da, sizeof answer.da) != 0) {
                answer.da[0] = '\0';
                return -1;
            }
            answer.da[sizeof answer.da - 1] = '\0';  // a cut name need not be terminated
            return 0;
        case kUserNameParam:
            return 0;  // not served: an empty value
        default:
            return -1;
    }
}

int setHost(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    if constexpr (kHardened) {
        // Before the mark: a refused name leaves nothing to apply or store.
        if (request.f2 == kHostNameParam) {
            if (const char* refusal = rules::checkHostName(request.da))
                return failText(answer, refusal);
        }
    }
    // Marked before the check, so even a refused write sets the host name and stores at the
    // end of the session.
    model.changed.mark(flag::Host);
    if (request.f2 >= kHostTexts.size()) {
        answerText(answer, kUnknownParameterFormat, request.f1, request.f2);
        return -1;
    }
    copyText(model.general.*kHostTexts[request.f2], request.da, kHostTextChars);
    return 0;
}

int applyHost(unsigned, ConfigModel& model, AnswerMessage& answer) {
    const char* name = model.general.hostName;
    if (sys::current().setHostName(name, std::strlen(name)) != 0) {
        answerText(answer, kSetHostNameFailedFormat, std::strerror(errno));
        return -1;
    }
    return 0;
}
