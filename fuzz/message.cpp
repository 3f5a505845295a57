// Queue request parser on arbitrary received texts; a parsed request, answered back with its
// own fields, must serialise into a text that parses to the same request.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/message.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    RequestMessage request{};
    if (parseRequest(reinterpret_cast<const char*>(data), size, request) != 0) return 0;

    AnswerMessage answer{1, request.mt, request.f1, request.f2, request.f3, {}};
    std::memcpy(answer.da, request.da, sizeof answer.da);
    AnswerQueueMessage out{};
    if (serialiseAnswer(answer, out) != 0) return 0;  // cut texts are not meant to parse back
    RequestMessage again{};
    if (parseRequest(out.text, std::strlen(out.text), again) != 0 || again.mt != request.mt ||
        again.f1 != request.f1 || again.f2 != request.f2 || again.f3 != request.f3 ||
        std::strcmp(again.da, request.da) != 0)
        std::abort();
    return 0;
}
