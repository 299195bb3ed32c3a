#include "tests/support/syslog_capture.h"

#include <cstdarg>
#include <cstdio>

namespace {

std::vector<LoggedLine>& captured() {
    static std::vector<LoggedLine> lines;
    return lines;
}

__attribute__((format(printf, 2, 0))) void capture(int priority, const char* format,
                                                   va_list arguments) {
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    captured().push_back({priority, text});
}

}  // namespace

// These take the place of libc's; a fortified build calls the second.
extern "C" __attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format,
                                                             ...) {
    va_list arguments;
    va_start(arguments, format);
    capture(priority, format, arguments);
    va_end(arguments);
}

extern "C" __attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int,
                                                                   const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    capture(priority, format, arguments);
    va_end(arguments);
}

SyslogCapture::SyslogCapture(int32_t level) : level_before_(sx_Debug) {
    sx_Debug = level;
    clear();
}

SyslogCapture::~SyslogCapture() {
    sx_Debug = level_before_;
}

const std::vector<LoggedLine>& SyslogCapture::lines() const {
    return captured();
}

std::vector<std::string> SyslogCapture::messages() const {
    std::vector<std::string> messages;
    for (const LoggedLine& line : captured()) {
        const size_t site_end = line.text.find("): ");
        std::string text =
            site_end == std::string::npos ? line.text : line.text.substr(site_end + 3);
        if (!text.empty() && text.back() == '\n') text.pop_back();
        messages.push_back(text);
    }
    return messages;
}

void SyslogCapture::clear() {
    captured().clear();
}
