// SPDX-License-Identifier: Apache-2.0
// The library's exception and log record, and the functions of all log sites.
#ifndef KESTREL_COMMON_SIMPLE_EXCEPTION_H
#define KESTREL_COMMON_SIMPLE_EXCEPTION_H

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>

#include "kestrel/log.h"
#include "kestrel/status.h"

// A formatted message with the source file and line where it was made. Thrown and caught by
// reference, or made and logged. No exception leaves a public function.
class SimpleException {
  public:
    SimpleException() = default;

    // Formats the message like printf, truncated to 255 characters.
    SimpleException(const std::string& file, long line, const char* format, ...)
        __attribute__((format(printf, 4, 5)));

    virtual ~SimpleException() = default;

    // Writes "<prefix><file>(<line>): <message>" to the system log at LOG_ERR, whatever the level.
    void Log(const std::string& prefix) const;

    // Writes prefix and message only, with no file, line or newline.
    void LogPlain(const std::string& prefix) const;

    const std::string& message() const { return message_; }
    long line() const { return line_; }
    const std::string& file() const { return file_; }

    static SimpleException from_arguments(const std::string& file, long line, const char* format,
                                          va_list arguments) __attribute__((format(printf, 3, 0)));

  private:
    std::string message_;
    long line_ = 0;
    std::string file_;
};

// Ignores a printf-style call: debug printing is switched off.
void myprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Prints to standard output whatever `stream` is. Returns the result of vprintf.
int myfprintf(std::FILE* stream, const char* format, ...) __attribute__((format(printf, 2, 3)));

namespace kestrel {

// A log line of a level is written when sx_Debug is above the level's threshold.
struct LogLevel {
    int32_t threshold;
    const char* prefix;

    // The host may set the level at any time, from any thread.
    bool enabled() const {
        return std::atomic_ref(sx_Debug).load(std::memory_order_relaxed) > threshold;
    }
};

// Two of the four prefixes end in a blank.
inline constexpr LogLevel kError{1, "ERR: "};
inline constexpr LogLevel kWarning{2, "WARN:"};
inline constexpr LogLevel kDebug{3, "DBG: "};
inline constexpr LogLevel kVerbose{4, "DBG2:"};

// Limits the errors and warnings of one handle. While an object exists, the thread's lines of these
// levels, and those without a level, count in the handle's `written`. After kMaxRemarks lines, one
// line reports that the rest is left out. Debug lines, which a host switches on, are not limited.
class RemarkScope {
  public:
    static constexpr unsigned int kMaxRemarks = 100;

    explicit RemarkScope(unsigned int& written);
    RemarkScope(const RemarkScope&) = delete;
    RemarkScope& operator=(const RemarkScope&) = delete;
    ~RemarkScope();

  private:
    unsigned int* before_;  // of the scope around this one; null for none
};

// The place of a line: the source path in the line, and the line number.
struct LogSite {
    const char* file;
    long line;
};

// (The builtin and not std::source_location, which clang 14 does not have.)
inline LogSite at(const char* file, long line = __builtin_LINE()) {
    return {file, line};
}

// Writes a line if its level is enabled; else formats nothing. Never throws.
void log_line(const LogLevel& level, LogSite site, const char* format, ...) noexcept
    __attribute__((format(printf, 3, 4)));

// The same without prefix and level test, for the few lines that are always written.
void log_always(LogSite site, const char* format, ...) noexcept
    __attribute__((format(printf, 2, 3)));

// Logs an exception that was caught, if the level is enabled. Never throws.
void log_caught(const LogLevel& level, const SimpleException& caught) noexcept;

// The message of a foreign exception, for logging and rethrowing.
inline constexpr const char* kUnhandledLogged = "Unhandled exception caught\n";
inline constexpr const char* kUnhandledThrown = "Unhandled exception caught";

// Runs the body of a public function, which sets `status` before it throws. Logs what it throws; a
// status that is still KST_SUCCESS becomes KST_FAILURE. Returns whether the body completed.
template <class Status, class Body>
bool run_guarded(Status& status, LogSite site, Body body) {
    try {
        body();
        return true;
    } catch (const SimpleException& caught) {
        log_caught(kError, caught);
    } catch (...) {
        log_always(site, "%s", kUnhandledLogged);
    }
    if (status == KST_SUCCESS) status = KST_FAILURE;
    return false;
}

}  // namespace kestrel

#endif
