// SPDX-License-Identifier: Apache-2.0
// Catches what the library writes to the system log while an object of it lives.
#ifndef KESTREL_TESTS_SYSLOG_CAPTURE_H
#define KESTREL_TESTS_SYSLOG_CAPTURE_H

#include <cstdint>
#include <string>
#include <vector>

class SyslogCapture {
  public:
    // Lets the lines of `level` (a value of sx_Debug) through, and puts the level back at the end.
    explicit SyslogCapture(int32_t level);
    SyslogCapture(const SyslogCapture&) = delete;
    SyslogCapture& operator=(const SyslogCapture&) = delete;
    ~SyslogCapture();

    const std::vector<std::string>& lines() const;

    // The lines without file and line number: "ERR: .//a/b(12): text\n" becomes "ERR: text".
    std::vector<std::string> messages() const;

    // The same without the level's prefix.
    std::vector<std::string> texts() const;

    void clear();

  private:
    int32_t level_before_;
};

#endif
