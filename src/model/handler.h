#pragma once
// The contract every parameter group keeps: a read and a set handler per request, an apply
// handler per changed instance. 0 is success; a negative result is a failure whose text the
// handler has written into the answer's `da`.

#include <cstddef>

#include "model/message.h"

struct ConfigModel;

using ReadHandler = int (*)(const RequestMessage& request, AnswerMessage& answer,
                            ConfigModel& model);
using SetHandler = int (*)(const RequestMessage& request, AnswerMessage& answer,
                           ConfigModel& model);
using ApplyHandler = int (*)(unsigned instance, ConfigModel& model, AnswerMessage& answer);

// Texts shared by the groups.
inline constexpr const char* kReadOnlyText = "read only value!";
inline constexpr const char* kWriteOnlyText = "write only value!";
inline constexpr const char* kUnknownSubidxIFormat = "Unknown subidx I in f2 (f1:%d, f2:%d, f3:%d)";
inline constexpr const char* kUnknownSubidxIIFormat =
    "Unknown subidx II in f3 (f1:%d, f2:%d, f3:%d)";
inline constexpr const char* kUnknownSubidxIIShort = "Unknown subidx II in f3";
inline constexpr const char* kUnknownParameterFormat = "unknown parameter %d %d";
// An apply handler called for an interface it does not have; "intdex" is the text clients
// have always received.
inline constexpr const char* kFalseInterfaceFormat = "false interface intdex %d";

// Writes a formatted text into the answer's `da` (bounded, always terminated).
void answerText(AnswerMessage& answer, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Copies a text into the answer's `da` (bounded, always terminated): the reads of texts, without
// a format to interpret.
void answerCopy(AnswerMessage& answer, const char* text);

// The common failures; each writes its text and returns -1.
int failText(AnswerMessage& answer, const char* text);
int failUnknownSubidxI(const RequestMessage& request, AnswerMessage& answer);
int failUnknownSubidxII(const RequestMessage& request, AnswerMessage& answer);

// Copies at most `maxChars` characters of `source` (and never more than the field holds) and
// terminates the field.
void copyText(char* field, std::size_t fieldSize, const char* source, std::size_t maxChars);
template <std::size_t N>
void copyText(char (&field)[N], const char* source, std::size_t maxChars = N - 1) {
    copyText(field, N, source, maxChars);
}
