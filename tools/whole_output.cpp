// SPDX-License-Identifier: Apache-2.0
#include "tools/whole_output.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <random>
#include <utility>

#include "tools/permissions.h"

namespace tool {
namespace {

// --- what a signal takes with it ---

constexpr size_t kTemporaryName = 32;  // bytes

// A temporary file; without a name there is none.
struct Unfinished {
    int folder = -1;
    std::array<char, kTemporaryName> name{};
};

// Changed only while signals are blocked.
std::array<Unfinished, 4> unfinished;

// Holds all signals back until the end of the scope.
class SignalsHeld {
  public:
    SignalsHeld() {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, &before_);
    }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;
    ~SignalsHeld() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

  private:
    sigset_t before_;
};

// Removes the files and ends the process by the signal, as it would have without a handler.
extern "C" void end_by_signal(int signal) {
    remove_unfinished();
    std::signal(signal, SIG_DFL);
    raise(signal);  // comes when the handler returns
}

bool ends_process(int signal) {
    switch (signal) {
        case SIGKILL:  // cannot be caught
        case SIGSTOP:
        case SIGTSTP:  // stop the process
        case SIGTTIN:
        case SIGTTOU:
        case SIGCHLD:  // are ignored
        case SIGCONT:
        case SIGURG:
        case SIGWINCH:
            return false;
        default:
            return true;
    }
}

// A signal that was ignored when the process started stays ignored.
void watch_signals() {
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        struct sigaction action {};
        if (!ends_process(signal) || sigaction(signal, nullptr, &action) != 0) continue;
        if (action.sa_handler != SIG_DFL) continue;
        action.sa_handler = end_by_signal;
        sigfillset(&action.sa_mask);
        sigaction(signal, &action, nullptr);  // fails for those of the C library
    }
}

void remember(int folder, const std::string& name) {
    for (Unfinished& file : unfinished) {
        if (file.name[0] != '\0') continue;
        file.folder = folder;
        std::copy_n(name.c_str(), name.size() + 1, file.name.begin());
        return;
    }
}

void forget(const std::string& name) {
    for (Unfinished& file : unfinished) {
        if (name == file.name.data()) file = {};
    }
}

std::string random_name() {
    static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::random_device chance;
    std::uniform_int_distribution<size_t> letter(0, sizeof kLetters - 2);
    std::string name = ".kestrel-";
    for (int i = 0; i < 12; ++i)
        name += kLetters[letter(chance)];
    return name;
}

}  // namespace

void remove_unfinished() {
    for (const Unfinished& file : unfinished) {
        if (file.name[0] != '\0') unlinkat(file.folder, file.name.data(), 0);
    }
}

// From the first line on the destructor runs for what throws here.
WholeOutput::WholeOutput(const std::string& path, const std::string& input) : WholeOutput() {
    path_ = path;
    if (path != "-") {
        refuse_input_as_output(path, input);
        place_ = find_output_place(path);
    }
    if (path == "-") {
        output_.emplace(path, input);
        return;
    }
    if (!place_.is_regular_or_new()) {
        output_.emplace(open_output(place_, path), path);
        return;
    }
    // A file that may not be written is not replaced either.
    if (place_.there &&
        faccessat(place_.folder.get(), place_.name.c_str(), W_OK, AT_EACCESS) != 0) {
        throw system_error(path_);
    }
    make_temporary();
}

WholeOutput::~WholeOutput() {
    output_.reset();
    if (temporary_.empty()) return;
    const SignalsHeld held;
    unlinkat(place_.folder.get(), temporary_.c_str(), 0);
    forget(temporary_);
}

void WholeOutput::make_temporary() {
    constexpr int kMaxTries = 100;
    Descriptor made;
    const SignalsHeld held;
    for (int left = kMaxTries; !made && left > 0; --left) {
        temporary_ = random_name();
        made = Descriptor(openat(place_.folder.get(), temporary_.c_str(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!made && errno != EEXIST) break;
    }
    if (!made) {
        const int reason = errno;
        temporary_.clear();
        throw Error(path_ + ": cannot make a file in its folder: " + std::strerror(reason));
    }
    remember(place_.folder.get(), temporary_);
    watch_signals();
    output_.emplace(std::move(made), path_);
}

void WholeOutput::finish() {
    if (temporary_.empty()) return output_->finish();
    output_->flush();
    const int folder = place_.folder.get();
    const SignalsHeld held;
    // Opened once: what has the name may be exchanged while its owner, mode and list are read.
    const Descriptor replaced(openat(folder, place_.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!copy_permissions(output_->descriptor(), replaced.get()))
        set_new_permissions(output_->descriptor(), folder);
    output_->finish();
    if (renameat(folder, temporary_.c_str(), folder, place_.name.c_str()) != 0) {
        throw system_error(path_);
    }
    forget(temporary_);
    temporary_.clear();
}

}  // namespace tool
