#include "model/gui.h"

#include <iterator>

#include "model/config_model.h"

namespace {

constexpr unsigned kGuiInstance = 1;  // f2 of the one GUI record

// The show flag that f2 and f3 address, or nullptr with the refusal's text in the answer.
uint8_t* showFlag(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    if (request.f2 > kGuiInstance) {
        (void)failUnknownSubidxI(request, answer);  // the caller fails on nullptr
        return nullptr;
    }
    if (request.f2 != kGuiInstance || request.f3 >= std::size(model.gui.show)) {
        (void)failUnknownSubidxII(request, answer);  // the caller fails on nullptr
        return nullptr;
    }
    return &model.gui.show[request.f3];
}

}  // namespace

int readGui(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    const uint8_t* show = showFlag(request, answer, model);
    if (show == nullptr) return -1;
    answerText(answer, "%d", *show);
    return 0;
}

int setGui(const RequestMessage& request, AnswerMessage& answer, ConfigModel& model) {
    // Marked before the check: a refused write still stores the GUI section.
    model.changed.mark(flag::Gui);
    uint8_t* show = showFlag(request, answer, model);
    if (show == nullptr) return -1;
    *show = request.da[0] == '1' ? 1 : 0;
    return 0;
}
