#include "model/handler.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

void answerText(AnswerMessage& answer, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(answer.da, sizeof answer.da, format, arguments);
    va_end(arguments);
}

void answerCopy(AnswerMessage& answer, const char* text) {
    copyText(answer.da, text);
}

int failText(AnswerMessage& answer, const char* text) {
    answerCopy(answer, text);
    return -1;
}

int failUnknownSubidxI(const RequestMessage& request, AnswerMessage& answer) {
    answerText(answer, kUnknownSubidxIFormat, request.f1, request.f2, request.f3);
    return -1;
}

int failUnknownSubidxII(const RequestMessage& request, AnswerMessage& answer) {
    answerText(answer, kUnknownSubidxIIFormat, request.f1, request.f2, request.f3);
    return -1;
}

void copyText(char* field, std::size_t fieldSize, const char* source, std::size_t maxChars) {
    if (fieldSize == 0) return;
    std::size_t limit = maxChars < fieldSize - 1 ? maxChars : fieldSize - 1;
    std::size_t n = strnlen(source, limit);
    std::memcpy(field, source, n);
    field[n] = '\0';
}
