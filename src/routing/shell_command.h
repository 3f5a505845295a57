#pragma once
// A shell command of the routing code, composed piece by piece into at most 255 characters: a
// piece that does not fit is cut, never overrun.

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "sys/system.h"

class ShellCommand {
  public:
    static constexpr std::size_t kSize = 256;  // 255 characters and the terminator

    void append(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        if (length_ >= text_.size() - 1) return;
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(text_.data() + length_, text_.size() - length_, format, arguments);
        va_end(arguments);
        length_ = std::strlen(text_.data());
    }
    // Exit statuses are not examined: a failed module or helper command shows up as a missing
    // driver node or helper later, never as an error of the request.
    void run() const { (void)sys::current().runCommand(text_.data()); }

  private:
    std::array<char, kSize> text_{};
    std::size_t length_ = 0;
};
