#include "tests/support/syslog_capture.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>

#include "kestrel/log.h"

namespace {

std::vector<std::string>* captured = nullptr;

__attribute__((format(printf, 2, 0))) void capture(int priority, const char* format,
                                                   va_list arguments) {
    if (captured == nullptr) return;
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    captured->push_back(priority == LOG_ERR ? text : "wrong priority: " + std::string(text));
}

}  // namespace

// The test program's own definitions stand in front of libc's.
extern "C" void syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    capture(priority, format, arguments);
    va_end(arguments);
}

extern "C" void __syslog_chk(int priority, int, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    capture(priority, format, arguments);
    va_end(arguments);
}

SyslogCapture::SyslogCapture(int32_t level) : level_before_(sx_Debug) {
    captured = new std::vector<std::string>;
    sx_Debug = level;
}

SyslogCapture::~SyslogCapture() {
    sx_Debug = level_before_;
    delete captured;
    captured = nullptr;
}

const std::vector<std::string>& SyslogCapture::lines() const {
    return *captured;
}

namespace {

// "ERR: a/b(12): text" without "a/b(12): ".
std::string without_place(const std::string& line) {
    constexpr size_t kPrefix = 5;
    const size_t prefix = line[0] == '.' || line.size() < kPrefix ? 0 : kPrefix;
    const size_t open = line.find('(', prefix);
    const size_t close = line.find("): ", prefix);
    const bool has_place = open != std::string::npos && close != std::string::npos &&
                           line.find(' ', prefix) > open && open < close;
    return has_place ? line.substr(0, prefix) + line.substr(close + 3) : line;
}

}  // namespace

std::vector<std::string> SyslogCapture::messages() const {
    std::vector<std::string> out;
    for (const std::string& line : *captured) {
        std::string text = without_place(line);
        if (!text.empty() && text.back() == '\n') text.pop_back();
        out.push_back(text);
    }
    return out;
}
