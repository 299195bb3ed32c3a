// SPDX-License-Identifier: Apache-2.0
#include "tests/support/syslog_capture.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <utility>

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

// The test program's own definitions replace those of libc.
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

constexpr size_t kPrefix = 5;  // characters of each level's prefix

bool has_prefix(const std::string& line) {
    for (const char* prefix : {"ERR: ", "WARN:", "DBG: ", "DBG2:"}) {
        if (line.starts_with(prefix)) return true;
    }
    return false;
}

// "ERR: a/b(12): text\n" in its two parts, "ERR: " and "text".
std::pair<std::string, std::string> split(const std::string& line) {
    const std::string prefix = has_prefix(line) ? line.substr(0, kPrefix) : "";
    std::string text = line.substr(prefix.size());
    const size_t close = text.find("): ");
    if (close != std::string::npos && text.find(' ') > close) text = text.substr(close + 3);
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return {prefix, text};
}

}  // namespace

std::vector<std::string> SyslogCapture::messages() const {
    std::vector<std::string> out;
    for (const std::string& line : *captured) {
        const auto [prefix, text] = split(line);
        out.push_back(prefix + text);
    }
    return out;
}

std::vector<std::string> SyslogCapture::texts() const {
    std::vector<std::string> out;
    for (const std::string& line : *captured)
        out.push_back(split(line).second);
    return out;
}

void SyslogCapture::clear() {
    captured->clear();
}
