// Catches what the library writes to the system log. A test program that links this file's source
// gets every line of its process; nothing reaches the system.
#ifndef KESTREL_TESTS_SUPPORT_SYSLOG_CAPTURE_H
#define KESTREL_TESTS_SUPPORT_SYSLOG_CAPTURE_H

#include <cstdint>
#include <string>
#include <vector>

#include "kestrel/log.h"

struct LoggedLine {
    int priority;
    std::string text;
};

// From construction to destruction: starts with no lines and the given level, puts the level back.
class SyslogCapture {
  public:
    explicit SyslogCapture(int32_t level = 3);
    SyslogCapture(const SyslogCapture&) = delete;
    SyslogCapture& operator=(const SyslogCapture&) = delete;
    ~SyslogCapture();

    const std::vector<LoggedLine>& lines() const;

    // What the lines say, without "<prefix><file>(<line>): " and the newline.
    std::vector<std::string> messages() const;

    void clear();

  private:
    int32_t level_before_;
};

#endif
