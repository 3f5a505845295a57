#include "core/message.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr const char* kArrayFormat =
    "a:%d:{s:2:\"mt\";i:%u;s:2:\"f1\";i:%u;s:2:\"f2\";i:%u;s:2:\"f3\";i:%u;s:2:\"da\";s:%u:\"%.*"
    "s\";}";
constexpr int kAnswerElements = 5;
constexpr unsigned long kLargestByte = 255;
constexpr unsigned long kLongestValue = 507;

constexpr const char* kTypeNames[] = {"START_SESSION", "READ_PARAM",     "SET_PARAM",    "POS_ANSW",
                                      "NEG_ANSW",      "FINISH_SESSION", "ABORT_SESSION"};

// A terminated copy of the received text with some zeros behind it, so that the parser's
// unchecked single-character skips can never leave the buffer.
struct ReceivedText {
    char text[kQueueTextSize + 8]{};
    std::size_t length;
};

bool startsWith(const char* at, std::string_view expected) {
    return std::strncmp(at, expected.data(), expected.size()) == 0;
}

// One "<key>i:<number>" element: checks the key and the "i", reads the number after the
// unchecked separator. Returns false when malformed or above 255.
bool readByteElement(const char*& at, std::string_view key, uint8_t& value) {
    if (!startsWith(at, key)) return false;
    at += key.size();
    if (*at != 'i') return false;
    at += 2;
    char* end = nullptr;
    unsigned long number = std::strtoul(at, &end, 10);
    at = end;
    if (number > kLargestByte) return false;
    value = static_cast<uint8_t>(number);
    return true;
}

}  // namespace

const char* messageTypeName(unsigned mt) {
    return mt < std::size(kTypeNames) ? kTypeNames[mt] : nullptr;
}

int parseRequest(const char* text, std::size_t length, RequestMessage& request) {
    ReceivedText received;
    received.length = length < kQueueTextSize ? length : kQueueTextSize;
    std::memcpy(received.text, text, received.length);
    const char* at = received.text;

    if (at[0] != 'a') return -1;
    char* end = nullptr;
    unsigned long count = std::strtoul(at + 2, &end, 10);
    if (count < 4) return -1;
    at = end + 1;

    if (!readByteElement(at, "{s:2:\"mt\";", request.mt)) return -2;
    if (!readByteElement(at, ";s:2:\"f1\";", request.f1)) return -3;
    if (!readByteElement(at, ";s:2:\"f2\";", request.f2)) return -4;
    if (!readByteElement(at, ";s:2:\"f3\";", request.f3)) return -5;

    if (count == 4) {
        std::memset(request.da, 0, sizeof request.da);
        return 0;
    }
    constexpr std::string_view kValueKey = ";s:2:\"da\";";
    if (!startsWith(at, kValueKey)) return -6;
    at += kValueKey.size();
    if (*at != 's') return -6;
    unsigned long declared = std::strtoul(at + 2, &end, 10);
    if (declared > kLongestValue) declared = kLongestValue;
    at = end + 2;

    // The value is copied over the previous request's without clearing it (handlers convert
    // with functions that stop at the first unsuitable character). The copy stops at the end
    // of the received text and never reaches the field's last byte, which stays a terminator.
    const char* textEnd = received.text + received.length;
    std::size_t available = at < textEnd ? static_cast<std::size_t>(textEnd - at) : 0;
    std::size_t n = declared < available ? declared : available;
    if (n > sizeof request.da - 1) n = sizeof request.da - 1;
    std::memcpy(request.da, at, n);
    request.da[sizeof request.da - 1] = '\0';
    return 0;
}

std::size_t formatMessageText(char* out, std::size_t size, unsigned mt, unsigned f1, unsigned f2,
                              unsigned f3, const char* da) {
    const int valueLength = static_cast<int>(strnlen(da, kDataSize));
    int written = std::snprintf(out, size, kArrayFormat, kAnswerElements, mt, f1, f2, f3,
                                static_cast<unsigned>(valueLength), valueLength, da);
    if (written < 0) {
        out[0] = '\0';
        return 0;
    }
    return static_cast<std::size_t>(written);
}

int serialiseAnswer(const AnswerMessage& answer, AnswerQueueMessage& out) {
    out.mtype = answer.type;
    std::size_t full = formatMessageText(out.text, kQueueTextSize, answer.mt, answer.f1, answer.f2,
                                         answer.f3, answer.da);
    return full < kQueueTextSize ? 0 : -1;
}

void errorAnswer(AnswerMessage& answer, int errorNumber, int32_t answerAddress) {
    std::memset(answer.da, 0, sizeof answer.da);
    answer.f1 = answer.f2 = answer.f3 = 0;
    answer.type = answerAddress;
    answer.mt = NEG_ANSW;
    std::snprintf(answer.da, sizeof answer.da, "ERROR: %s!", std::strerror(errorNumber));
}
