// SPDX-License-Identifier: Apache-2.0
#include "common/simple_exception.h"

#include <syslog.h>

namespace {

constexpr size_t kMessageBuffer = 256;

}  // namespace

SimpleException SimpleException::from_arguments(const std::string& file, long line,
                                                const char* format, va_list arguments) {
    char text[kMessageBuffer];
    if (std::vsnprintf(text, sizeof text, format, arguments) < 0) text[0] = '\0';
    SimpleException made;
    made.message_ = text;
    made.line_ = line;
    made.file_ = file;
    return made;
}

SimpleException::SimpleException(const std::string& file, long line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    *this = from_arguments(file, line, format, arguments);
    va_end(arguments);
}

void SimpleException::Log(const std::string& prefix) const {
    if (message_.empty()) {
        syslog(LOG_ERR, "%sUnknown error occured\n", prefix.c_str());
    } else {
        syslog(LOG_ERR, "%s%s(%ld): %s\n", prefix.c_str(), file_.c_str(), line_, message_.c_str());
    }
}

void SimpleException::LogPlain(const std::string& prefix) const {
    if (message_.empty()) {
        syslog(LOG_ERR, "%sUnknown error occured\n", prefix.c_str());
    } else {
        syslog(LOG_ERR, "%s%s", prefix.c_str(), message_.c_str());
    }
}

void myprintf(const char* format, ...) {
    static_cast<void>(format);
}

int myfprintf(std::FILE* stream, const char* format, ...) {
    static_cast<void>(stream);
    va_list arguments;
    va_start(arguments, format);
    const int written = std::vprintf(format, arguments);
    va_end(arguments);
    return written;
}

namespace kestrel {
namespace {

thread_local unsigned int* remarks = nullptr;  // of the current handle; null for no limit

// Writes a line; nothing without memory for it.
template <class Line>
void write(const char* prefix, Line line) noexcept {
    try {
        line().Log(prefix);
    } catch (...) {
    }
}

// Counts a line. Returns false for one that is left out.
bool admit_remark(const char* prefix, const LogSite& site) noexcept {
    if (remarks == nullptr) return true;
    if (*remarks < RemarkScope::kMaxRemarks) {
        ++*remarks;
        return true;
    }
    if (*remarks == RemarkScope::kMaxRemarks) {
        ++*remarks;
        write(prefix,
              [&] { return SimpleException(site.file, site.line, "further remarks left out"); });
    }
    return false;
}

bool admits(const LogLevel& level, const LogSite& site) noexcept {
    return level.enabled() &&
           (level.threshold > kWarning.threshold || admit_remark(level.prefix, site));
}

__attribute__((format(printf, 3, 0))) void log_arguments(const char* prefix, LogSite site,
                                                         const char* format,
                                                         va_list arguments) noexcept {
    write(prefix,
          [&] { return SimpleException::from_arguments(site.file, site.line, format, arguments); });
}

}  // namespace

RemarkScope::RemarkScope(unsigned int& written) : before_(remarks) {
    remarks = &written;
}

RemarkScope::~RemarkScope() {
    remarks = before_;
}

void log_line(const LogLevel& level, LogSite site, const char* format, ...) noexcept {
    if (!admits(level, site)) return;
    va_list arguments;
    va_start(arguments, format);
    log_arguments(level.prefix, site, format, arguments);
    va_end(arguments);
}

void log_always(LogSite site, const char* format, ...) noexcept {
    if (!admit_remark("", site)) return;
    va_list arguments;
    va_start(arguments, format);
    log_arguments("", site, format, arguments);
    va_end(arguments);
}

void log_caught(const LogLevel& level, const SimpleException& caught) noexcept {
    if (!admits(level, {caught.file().c_str(), caught.line()})) return;
    write(level.prefix, [&]() -> const SimpleException& { return caught; });
}

}  // namespace kestrel
