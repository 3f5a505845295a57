#pragma once
// The request and answer records every parameter group works on. The text form that travels
// on the queue, and the codec between the two, belong to the daemon core.

#include <cstddef>
#include <cstdint>

enum MessageType : uint8_t {
    START_SESSION = 0,
    READ_PARAM = 1,
    SET_PARAM = 2,
    POS_ANSW = 3,
    NEG_ANSW = 4,
    FINISH_SESSION = 5,
    ABORT_SESSION = 6,
    SET_TEMP_PARAM = 7,
};

inline constexpr std::size_t kDataSize = 504;  // the value text of a request or answer

struct RequestMessage {
    uint32_t reserved;
    uint8_t mt;
    uint8_t f1;
    uint8_t f2;
    uint8_t f3;
    char da[kDataSize];
};
static_assert(sizeof(RequestMessage) == 512);

struct AnswerMessage {
    int32_t type;  // the queue message type the answer is sent with: the session's answer address
    uint8_t mt;
    uint8_t f1;
    uint8_t f2;
    uint8_t f3;
    char da[kDataSize];
};
static_assert(sizeof(AnswerMessage) == 512);
