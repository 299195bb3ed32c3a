// SPDX-License-Identifier: Apache-2.0
#include "tools/send/stop_signals.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace tool {

StopSignals::StopSignals() {
    sigemptyset(&held_);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action {};
        sigaction(signal, nullptr, &action);
        const bool is_ignored = (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_IGN;
        if (!is_ignored) sigaddset(&held_, signal);
    }
    sigprocmask(SIG_BLOCK, &held_, &before_);
}

StopSignals::~StopSignals() {
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

bool StopSignals::sleep_until(std::chrono::steady_clock::time_point moment) {
    using std::chrono::nanoseconds;
    constexpr auto kLongest = std::chrono::hours(1);
    while (received_ == 0) {
        const nanoseconds left = moment - std::chrono::steady_clock::now();
        const nanoseconds slept = std::clamp<nanoseconds>(left, nanoseconds(0), kLongest);
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(slept);
        timespec time{};
        time.tv_sec = static_cast<time_t>(seconds.count());
        time.tv_nsec = static_cast<long>((slept - seconds).count());
        const int signal = sigtimedwait(&held_, nullptr, &time);
        if (signal > 0) {
            received_ = signal;
        } else if (errno == EAGAIN && left <= nanoseconds(0)) {
            return true;
        }
    }
    return false;
}

}  // namespace tool
