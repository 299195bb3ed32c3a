// SPDX-License-Identifier: Apache-2.0
// Lines on standard error: the tool's messages, and the remarks of the library.
#ifndef KESTREL_TOOLS_MESSAGES_H
#define KESTREL_TOOLS_MESSAGES_H

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// Prints "kestrel: TEXT" as one line, for any text.
void say(std::string_view text);

// Standard error for other output than messages, such as a progress line.
std::FILE* error_stream();

// Makes lines that the library writes to `stderr` remarks: they are printed as "kestrel: FILE:
// REMARK" if requested, and captured by an ErrorCapture. An exit of the library during a command
// prints its last remark, which is the only explanation.
void take_over_remarks();
void show_remarks();
// Sets the file of the next remarks.
void set_remark_file(const std::string& name);
const std::string& remark_file();
// Reports that the command has ended, so that the exit is the tool's.
void expect_exit();

// Captures remarks while it exists. One at a time.
class ErrorCapture {
  public:
    ErrorCapture();
    ErrorCapture(const ErrorCapture&) = delete;
    ErrorCapture& operator=(const ErrorCapture&) = delete;
    ~ErrorCapture();

    // Ends the capture. Returns the first few lines, each once and with at most 255 characters.
    std::vector<std::string> lines();

  private:
    void end();

    std::vector<std::string> kept_;
};

}  // namespace tool

#endif
