// SPDX-License-Identifier: Apache-2.0
// The signals that stop a command between two steps of its work.
#ifndef KESTREL_TOOLS_SEND_STOP_SIGNALS_H
#define KESTREL_TOOLS_SEND_STOP_SIGNALS_H

#include <csignal>

#include <chrono>

namespace tool {

// Blocks SIGINT, SIGTERM and SIGHUP while it exists, except ignored ones.
class StopSignals {
  public:
    StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;
    ~StopSignals();

    // Sleeps until a time. Returns false when a signal arrived, which received() returns.
    bool sleep_until(std::chrono::steady_clock::time_point moment);
    int received() const { return received_; }

  private:
    sigset_t held_{}, before_{};
    int received_ = 0;
};

}  // namespace tool

#endif
