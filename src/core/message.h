#pragma once
// Requests and answers on the message queue: the serialised-array text form that travels
// between the web front end and the daemon, and its codec.

#include <cstddef>
#include <cstdint>

#include "model/message.h"

inline constexpr std::size_t kQueueTextSize = 508;  // the largest text a queue message carries
inline constexpr long kRequestQueueType = 1;        // the daemon takes only requests of this type

// A queue message as it is received.
struct QueueMessage {
    long mtype;
    char text[kQueueTextSize];
};

// A serialised answer; the text is formatted into its first kQueueTextSize bytes only.
struct AnswerQueueMessage {
    long mtype;
    char text[1024 - sizeof(long)];
};

// Both are the kernel's message buffer: the type as the platform's long, the text right behind
// it. On the device (32-bit long) the receive buffer is 512 bytes; the answer buffer is 1024
// bytes on every platform.
static_assert(offsetof(QueueMessage, text) == sizeof(long));
static_assert(sizeof(long) != 4 || sizeof(QueueMessage) == 512);
static_assert(offsetof(AnswerQueueMessage, text) == sizeof(long));
static_assert(sizeof(AnswerQueueMessage) == 1024);

// Parses a received request text of `length` bytes. 0 on success; -1 to -6 name the element
// that was malformed. `da` is copied over the previous request's value without being cleared.
[[nodiscard]] int parseRequest(const char* text, std::size_t length, RequestMessage& request);

// Formats one array text (used for answers, and by clients for requests) into `out` of `size`
// bytes, cut to size - 1 characters. Returns the text's full length, as snprintf does.
std::size_t formatMessageText(char* out, std::size_t size, unsigned mt, unsigned f1, unsigned f2,
                              unsigned f3, const char* da);

// 0 when the answer fitted in a queue message, -1 when its text was cut.
int serialiseAnswer(const AnswerMessage& answer, AnswerQueueMessage& out);

// The answer to a request that could not be received.
void errorAnswer(AnswerMessage& answer, int errorNumber, int32_t answerAddress);
