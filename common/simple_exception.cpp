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

__attribute__((format(printf, 3, 0))) void log_arguments(const char* prefix, LogSite site,
                                                         const char* format,
                                                         va_list arguments) noexcept {
    try {
        SimpleException::from_arguments(site.file, site.line, format, arguments).Log(prefix);
    } catch (...) {
        // No memory for a log line: the work that wanted to log goes on without it.
    }
}

}  // namespace

void log_line(const LogLevel& level, LogSite site, const char* format, ...) noexcept {
    if (!level.enabled()) return;
    va_list arguments;
    va_start(arguments, format);
    log_arguments(level.prefix, site, format, arguments);
    va_end(arguments);
}

void log_always(LogSite site, const char* format, ...) noexcept {
    va_list arguments;
    va_start(arguments, format);
    log_arguments("", site, format, arguments);
    va_end(arguments);
}

void log_caught(const LogLevel& level, const SimpleException& caught) noexcept {
    if (!level.enabled()) return;
    try {
        caught.Log(level.prefix);
    } catch (...) {
    }
}

}  // namespace kestrel
