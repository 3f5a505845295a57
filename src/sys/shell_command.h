#pragma once
// A shell command composed piece by piece into a buffer of a fixed number of characters: a
// piece that does not fit is cut, never overrun. Each subsystem has always had its own bound
// (249 characters for the network and CAN commands, 255 for the driver module and helper).

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "sys/system.h"

template <std::size_t MaxChars>
class ShellCommand {
  public:
    void append(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        va_list arguments;
        va_start(arguments, format);
        appendList(format, arguments);
        va_end(arguments);
    }
    void appendList(const char* format, va_list arguments) __attribute__((format(printf, 2, 0))) {
        if (length_ >= text_.size() - 1) return;
        std::vsnprintf(text_.data() + length_, text_.size() - length_, format, arguments);
        length_ = std::strlen(text_.data());
    }
    const char* text() const { return text_.data(); }
    // Exit statuses are not examined: a command that failed shows in the state that clients
    // read back (addresses, link state, driver nodes), never as an error of the request.
    void run() const { (void)sys::current().runCommand(text_.data()); }

  private:
    std::array<char, MaxChars + 1> text_{};
    std::size_t length_ = 0;
};
