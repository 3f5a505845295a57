#include "core/message.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

constexpr const char* kArrayFormat =
    "a:%d:{s:2:\"mt\";i:%u;s:2:\"f1\";i:%u;s:2:\"f2\";i:%u;s:2:\"f3\";i:%u;s:2:\"da\";s:%u:\"%.*"
    "s\";}";
constexpr unsigned kAnswerElements = 5;
constexpr unsigned long kLargestByte = 255;
constexpr unsigned long kLongestValue = 507;

// A terminated copy of the received text with some zeros behind it, so that the parser's
// unchecked single-character skips can never leave the buffer.
struct ReceivedText {
    char text[kQueueTextSize + 8]{};
    std::size_t length;
};

// The answer's array form split once, at compile time, into the literal pieces around its
// conversions: every request is answered, and copying pieces costs a fraction of having
// snprintf interpret the format each time. The result is snprintf's, byte for byte.
struct SplitFormat {
    static constexpr std::size_t kConversions = 7;
    std::array<std::string_view, kConversions + 1> literals{};  // before each conversion; tail
    std::array<char, kConversions> conversions{};
};

constexpr SplitFormat splitFormat(std::string_view format) {
    SplitFormat split;
    std::size_t count = 0, start = 0;
    for (std::size_t i = format.find('%'); i != std::string_view::npos; i = format.find('%', i)) {
        split.literals[count] = format.substr(start, i - start);
        i += format.substr(i + 1, 2) == ".*" ? 3 : 1;
        split.conversions[count++] = format[i];
        start = ++i;
    }
    split.literals[count] = format.substr(start);
    return split;
}

constexpr SplitFormat kArray = splitFormat(kArrayFormat);
static_assert(std::string_view(kArray.conversions.data(), SplitFormat::kConversions) == "duuuuus",
              "the writer below fills the conversions in this order");

// snprintf's bounds: copies what fits into `size` bytes and terminates; counts the whole text.
class BoundedText {
  public:
    BoundedText(char* out, std::size_t size) : out_(out), size_(size) {}
    void put(std::string_view text) {
        if (length_ + 1 < size_)
            std::memcpy(out_ + length_, text.data(), std::min(text.size(), size_ - 1 - length_));
        length_ += text.size();
    }
    void put(unsigned number) {
        char digits[10];
        char* first = digits + sizeof digits;
        do {
            *--first = static_cast<char>('0' + number % 10);
            number /= 10;
        } while (number != 0);
        put(std::string_view(first, static_cast<std::size_t>(digits + sizeof digits - first)));
    }
    std::size_t finish() {
        if (size_ > 0) out_[std::min(length_, size_ - 1)] = '\0';
        return length_;
    }

  private:
    char* out_;
    std::size_t size_;
    std::size_t length_ = 0;
};

bool isCSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// strtoul(text, end, 10) in the C locale, which the daemon keeps: white space, a sign, digits;
// ULONG_MAX on overflow; a negative number wraps; without digits `end` is `text`. Without the
// library's locale and base handling it costs a tenth.
unsigned long readDecimal(const char* text, const char** end) {
    const char* at = text;
    while (isCSpace(*at))
        ++at;
    const bool negative = *at == '-';
    if (*at == '-' || *at == '+') ++at;
    if (*at < '0' || *at > '9') {
        *end = text;
        return 0;
    }
    unsigned long value = 0;
    bool overflow = false;
    for (; *at >= '0' && *at <= '9'; ++at) {
        overflow = overflow || __builtin_mul_overflow(value, 10ul, &value) ||
                   __builtin_add_overflow(value, static_cast<unsigned long>(*at - '0'), &value);
    }
    *end = at;
    if (overflow) return ULONG_MAX;
    return negative ? 0ul - value : value;
}

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
    unsigned long number = readDecimal(at, &at);
    if (number > kLargestByte) return false;
    value = static_cast<uint8_t>(number);
    return true;
}

}  // namespace

int parseRequest(const char* text, std::size_t length, RequestMessage& request) {
    ReceivedText received;
    received.length = length < kQueueTextSize ? length : kQueueTextSize;
    std::memcpy(received.text, text, received.length);
    const char* at = received.text;

    if (at[0] != 'a') return -1;
    const char* end = nullptr;
    unsigned long count = readDecimal(at + 2, &end);
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
    unsigned long declared = readDecimal(at + 2, &end);
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
    const std::size_t valueLength = strnlen(da, kDataSize);
    BoundedText text(out, size);
    const unsigned numbers[] = {
        kAnswerElements, mt, f1, f2, f3, static_cast<unsigned>(valueLength)};
    for (std::size_t i = 0; i < std::size(numbers); ++i) {
        text.put(kArray.literals[i]);
        text.put(numbers[i]);
    }
    text.put(kArray.literals[6]);
    text.put(std::string_view(da, valueLength));
    text.put(kArray.literals[7]);
    return text.finish();
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
