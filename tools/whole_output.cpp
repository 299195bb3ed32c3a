#include "tools/whole_output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace tool {
namespace {

namespace fs = std::filesystem;

// --- what a signal takes with it ---

constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP};

// The one temporary file; empty when there is none. Changed only while the signals are blocked.
char unfinished[PATH_MAX];

sigset_t ending_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : kEndingSignals)
        sigaddset(&set, signal);
    return set;
}

// Holds the ending signals back until the end of the scope.
class SignalsHeld {
  public:
    SignalsHeld() {
        const sigset_t set = ending_signals();
        sigprocmask(SIG_BLOCK, &set, &before_);
    }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;
    ~SignalsHeld() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

  private:
    sigset_t before_;
};

// Removes the file and ends the process by the signal, as it would have without a handler.
extern "C" void remove_unfinished(int signal) {
    if (unfinished[0] != '\0') unlink(unfinished);
    std::signal(signal, SIG_DFL);
    raise(signal);  // comes when the handler returns
}

// A signal that whoever started the process has it ignore stays ignored.
void watch_signals() {
    for (const int signal : kEndingSignals) {
        struct sigaction action {};
        sigaction(signal, nullptr, &action);
        if (action.sa_handler != SIG_DFL) continue;
        action.sa_handler = remove_unfinished;
        action.sa_mask = ending_signals();
        sigaction(signal, &action, nullptr);
    }
    // A file that grows beyond the process's limit is a failed write.
    std::signal(SIGXFSZ, SIG_IGN);
}

// --- names and rights ---

// Where a chain of symbolic links leads, whether there is something or not.
fs::path behind_links(fs::path path) {
    constexpr int kMostLinks = 40;
    std::error_code failed;
    for (int left = kMostLinks; left > 0 && fs::is_symlink(path, failed); --left) {
        const fs::path next = fs::read_symlink(path, failed);
        if (failed) break;
        path = next.is_absolute() ? next : path.parent_path() / next;
    }
    return path;
}

// The rights that a file which is opened for writing gets: its own, or those of a new one.
mode_t rights_of(const std::string& path) {
    struct stat about {};
    if (stat(path.c_str(), &about) == 0) return about.st_mode & 07777;
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

bool is_written_as_it_is(const std::string& path) {
    struct stat about {};
    if (path == "-") return true;
    return stat(path.c_str(), &about) == 0 && !S_ISREG(about.st_mode);
}

}  // namespace

WholeOutput::WholeOutput(const std::string& path, const std::string& input) : path_(path) {
    if (is_written_as_it_is(path)) {
        output_.emplace(path, input);
        return;
    }
    refuse_input_as_output(path, input);
    target_ = behind_links(path).string();
    // A file that may not be written is not replaced either.
    if (access(target_.c_str(), W_OK) != 0 && errno != ENOENT) throw system_error(path_);
    make_temporary();
}

WholeOutput::~WholeOutput() {
    output_.reset();
    const SignalsHeld held;
    if (!temporary_.empty()) unlink(temporary_.c_str());
    unfinished[0] = '\0';
}

void WholeOutput::make_temporary() {
    std::string name = (fs::path(target_).parent_path() / ".kestrel-XXXXXX").string();
    if (name.size() >= sizeof unfinished) throw Error(path_ + ": " + std::strerror(ENAMETOOLONG));
    int descriptor = -1;
    {
        const SignalsHeld held;
        descriptor = mkstemp(name.data());
        if (descriptor < 0) throw system_error(path_);
        temporary_ = name;
        std::memcpy(unfinished, name.c_str(), name.size() + 1);
        watch_signals();
    }
    fchmod(descriptor, rights_of(target_));  // where it cannot be, the file is the user's alone
    output_.emplace(descriptor, path_);
}

void WholeOutput::write(std::span<const uint8_t> bytes) {
    output_->write(bytes);
}

void WholeOutput::finish() {
    output_->finish();
    if (temporary_.empty()) return;
    const SignalsHeld held;
    if (std::rename(temporary_.c_str(), target_.c_str()) != 0) throw system_error(path_);
    temporary_.clear();
    unfinished[0] = '\0';
}

}  // namespace tool
