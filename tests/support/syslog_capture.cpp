#include "tests/support/syslog_capture.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <regex>

#include "kestrel/log.h"

namespace {

std::vector<std::string>* captured = nullptr;

void capture(int priority, const char* format, va_list arguments) {
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

std::vector<std::string> SyslogCapture::messages() const {
    static const std::regex kPlace(R"(^(ERR: |WARN:|DBG: |DBG2:|)[^ ]*\(\d+\): )");
    std::vector<std::string> out;
    for (const std::string& line : *captured) {
        std::string text = std::regex_replace(line, kPlace, "$1");
        if (!text.empty() && text.back() == '\n') text.pop_back();
        out.push_back(text);
    }
    return out;
}
