// SPDX-License-Identifier: Apache-2.0
// Lines on standard error: the tool's own messages, and the remarks that the library makes there.
#ifndef KESTREL_TOOLS_MESSAGES_H
#define KESTREL_TOOLS_MESSAGES_H

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// Prints "kestrel: TEXT" as one line, whatever the text holds.
void say(std::string_view text);

// Standard error for what is no message, such as a line of progress.
std::FILE* error_stream();

// From here on what the library writes to `stderr` is a remark: it is printed as
// "kestrel: FILE: REMARK" when remarks are wanted, and kept by an ErrorCapture. An exit that the
// library makes in the middle of a command prints its last remark, as nothing else says why.
void take_over_remarks();
void show_remarks();
// Which file remarks are about from here on.
void set_remark_file(const std::string& name);
// The command came to its own end: the exit that follows is the tool's.
void expect_exit();

// Keeps the remarks made while it lives. One at a time.
class ErrorCapture {
  public:
    ErrorCapture();
    ErrorCapture(const ErrorCapture&) = delete;
    ErrorCapture& operator=(const ErrorCapture&) = delete;
    ~ErrorCapture();

    // Ends the capture. The first few lines, each once, and none longer than 255 characters.
    std::vector<std::string> lines();

  private:
    void end();

    std::vector<std::string> kept_;
};

}  // namespace tool

#endif
