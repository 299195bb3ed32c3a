// SPDX-License-Identifier: Apache-2.0
// Work in a separate process, which may exit, crash, hang or exceed the memory.
#ifndef KESTREL_TOOLS_JUDGE_CHILD_PROCESS_H
#define KESTREL_TOOLS_JUDGE_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "tools/support.h"

namespace tool {

using Clock = std::chrono::steady_clock;

struct ChildLimits {
    Clock::time_point deadline = Clock::time_point::max();
    uint64_t memory = 0;  // bytes of address space; 0 for no limit
};

struct ChildResult {
    enum class End {
        kReported,  // the work returned
        kExit,      // the work ended the process with status 1
        kSignal,    // it crashed
        kTimeout,   // it was killed at its deadline
        kNoMemory,  // it ran out of memory
        kFault      // it threw something else
    };
    End end = End::kFault;
    int signal = 0;      // of kSignal
    std::string report;  // what the work returned
};

// No process can be started.
struct NoProcess : Error {
    using Error::Error;
};

// A running child. It writes neither to standard output nor to standard error, has the default
// action for every signal that the parent handles, leaves no core file, and ends with its parent.
class ChildProcess {
  public:
    using Work = std::function<std::string()>;

    // Starts `work`, whose result is the report. Throws NoProcess.
    ChildProcess(const ChildLimits& limits, const Work& work);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    // Kills the child if it is running.
    ~ChildProcess();

    // Readable when take() has work.
    int descriptor() const { return from_; }
    Clock::time_point deadline() const { return limits_.deadline; }

    // Reads the available part of the report. Returns false after its end.
    bool take();
    // Ends the child if its report has not ended, which counts as kTimeout, and waits for it.
    ChildResult finish();

  private:
    [[noreturn]] void live(const Work& work, int to, pid_t parent) const;

    ChildLimits limits_;
    int from_ = -1;
    pid_t child_ = -1;
    bool ended_ = false;  // the report
    std::string report_;
};

// Runs one child to its end or its deadline.
ChildResult run_apart(const ChildLimits& limits, const ChildProcess::Work& work);

// Milliseconds until `deadline` for poll(): -1 where there is none, 0 when it has passed.
int poll_timeout(Clock::time_point deadline);

}  // namespace tool

#endif
