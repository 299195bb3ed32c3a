// SPDX-License-Identifier: Apache-2.0
#include "tools/judge/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <limits>
#include <new>

namespace tool {
namespace {

// Exit statuses of the child; the status of the work itself is kFailed.
constexpr int kFaultStatus = 3;
constexpr int kNoMemoryStatus = 4;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kLimitsMemory = false;  // the sanitizer reserves more than any limit
#elif defined(__has_feature)
constexpr bool kLimitsMemory = !__has_feature(address_sanitizer);
#else
constexpr bool kLimitsMemory = true;
#endif

// Blocks all signals while it exists, so that no handler of the parent runs in the child.
class BlockedSignals {
  public:
    BlockedSignals() {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, &before_);
    }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;
    ~BlockedSignals() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

  private:
    sigset_t before_{};
};

// Sets the default action for each signal with a handler and for those that the child needs, then
// unblocks all. Signals that the parent was started to ignore remain ignored.
void reset_signals() {
    constexpr int kRelied[] = {SIGCHLD, SIGPIPE, SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL};
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action {};
        if (sigaction(number, nullptr, &action) != 0) continue;
        const bool is_handled = (action.sa_flags & SA_SIGINFO) != 0 ||
                                (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN);
        const bool is_relied =
            std::find(std::begin(kRelied), std::end(kRelied), number) != std::end(kRelied);
        if (is_handled || is_relied) std::signal(number, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

void limit(decltype(RLIMIT_AS) resource, uint64_t most) {
    rlimit now{};
    if (getrlimit(resource, &now) != 0) return;
    const uint64_t bounded = std::min<uint64_t>(most, std::numeric_limits<rlim_t>::max());
    now.rlim_cur = std::min(now.rlim_max, static_cast<rlim_t>(bounded));
    setrlimit(resource, &now);
}

void silence(int stream) {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere < 0) return;
    dup2(nowhere, stream);
    if (nowhere != stream) close(nowhere);
}

// In destructors, where no handler gets the error.
[[noreturn]] void end_without_memory() {
    if (lacks_memory()) _exit(kNoMemoryStatus);
    std::abort();
}

bool write_all(int to, const std::string& text) {
    size_t at = 0;
    while (at < text.size()) {
        const ssize_t done = write(to, text.data() + at, text.size() - at);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return false;
        at += static_cast<size_t>(done);
    }
    return true;
}

}  // namespace

ChildProcess::ChildProcess(const ChildLimits& limits, const Work& work) : limits_(limits) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw NoProcess(system_error("pipe").what());
    std::fflush(nullptr);           // an exit in the child must not write it a second time
    std::signal(SIGCHLD, SIG_DFL);  // where it is ignored, no status is kept for waitpid
    const pid_t parent = getpid();
    {
        const BlockedSignals blocked;
        child_ = fork();
        if (child_ == 0) live(work, ends[1], parent);
    }
    const int reason = errno;
    close(ends[1]);
    from_ = ends[0];
    if (child_ > 0) return;
    close(from_);
    errno = reason;
    throw NoProcess(system_error("fork").what());
}

ChildProcess::~ChildProcess() {
    if (from_ >= 0) close(from_);
    if (child_ <= 0) return;
    kill(child_, SIGKILL);
    while (waitpid(child_, nullptr, 0) < 0 && errno == EINTR) {
    }
}

// Ends by _exit, or as the work does.
void ChildProcess::live(const Work& work, int to, pid_t parent) const {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(kFaultStatus);  // the parent ended before
    reset_signals();
    std::set_terminate(end_without_memory);
    limit(RLIMIT_CORE, 0);
    if (limits_.memory > 0 && kLimitsMemory) limit(RLIMIT_AS, limits_.memory);
    silence(STDOUT_FILENO);
    silence(STDERR_FILENO);
    try {
        _exit(write_all(to, work()) ? kDone : kFaultStatus);
    } catch (const std::bad_alloc&) {
        _exit(kNoMemoryStatus);
    } catch (...) {
        _exit(kFaultStatus);
    }
}

bool ChildProcess::take() {
    char piece[4096];
    const ssize_t got = read(from_, piece, sizeof piece);
    if (got > 0) report_.append(piece, static_cast<size_t>(got));
    ended_ = got == 0 || (got < 0 && errno != EINTR);
    return !ended_;
}

ChildResult ChildProcess::finish() {
    if (!ended_) kill(child_, SIGKILL);
    int how = 0;
    pid_t waited = 0;
    while ((waited = waitpid(child_, &how, 0)) < 0 && errno == EINTR) {
    }
    child_ = -1;
    using End = ChildResult::End;
    ChildResult result;
    if (!ended_) {
        result.end = End::kTimeout;
    } else if (waited < 0) {
        result.end = End::kFault;
    } else if (WIFSIGNALED(how)) {
        result.end = End::kSignal;
        result.signal = WTERMSIG(how);
    } else if (WEXITSTATUS(how) == kDone) {
        result.end = End::kReported;
        result.report = std::move(report_);
    } else if (WEXITSTATUS(how) == kFailed) {
        result.end = End::kExit;
    } else if (WEXITSTATUS(how) == kNoMemoryStatus) {
        result.end = End::kNoMemory;
    }
    return result;
}

int poll_timeout(Clock::time_point deadline) {
    if (deadline == Clock::time_point::max()) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, std::numeric_limits<int>::max()));
}

ChildResult run_apart(const ChildLimits& limits, const ChildProcess::Work& work) {
    constexpr auto kShownEvery = std::chrono::milliseconds(200);
    ChildProcess child(limits, work);
    Progress progress;
    for (;;) {
        pollfd ready{child.descriptor(), POLLIN, 0};
        const auto moment = std::min(limits.deadline, Clock::now() + kShownEvery);
        const int count = poll(&ready, 1, poll_timeout(moment));
        progress.show_time();
        if (count < 0 && errno == EINTR) continue;
        if (count == 0 && Clock::now() < limits.deadline) continue;
        if (count <= 0 || !child.take()) return child.finish();
    }
}

}  // namespace tool
