#include "model/bt.h"

namespace {

// The device has no Bluetooth interface; the group reports none and the name prefix such an
// interface would carry.
constexpr int kBtInterfaceCount = 0;
constexpr const char* kBtInterfacePrefix = "hci";
constexpr unsigned kBtCountParam = 0;
constexpr unsigned kBtPrefixParam = 1;

}  // namespace

int readBt(const RequestMessage& request, AnswerMessage& answer, ConfigModel&) {
    if (request.f2 != 0) return -1;
    switch (request.f3) {
        case kBtCountParam:
            answerText(answer, "%d", kBtInterfaceCount);
            return 0;
        case kBtPrefixParam:
            answerCopy(answer, kBtInterfacePrefix);
            return 0;
        default:
            return failUnknownSubidxII(request, answer);
    }
}
