// SPDX-License-Identifier: Apache-2.0
#include "tools/support.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <typeinfo>
#include <utility>

#include "tools/descriptor.h"
#include "tools/output_place.h"

namespace tool {

bool lacks_memory() {
    const std::type_info* type = abi::__cxa_current_exception_type();
    return type == nullptr || *type == typeid(std::bad_alloc);  // null: not enough for an exception
}

std::string input_name(const std::string& path) {
    return path == "-" ? "standard input" : path;
}

std::string output_name(const std::string& path) {
    return path == "-" ? "standard output" : path;
}

Error file_error(const std::string& file, const std::string& text, ExitCode code) {
    return Error(input_name(file) + ": " + text, code);
}

Error system_error(const std::string& file) {
    return file_error(file, std::strerror(errno));
}

Error input_error(const std::string& file) {
    if (errno != EFBIG) return system_error(file);
    return file_error(file, "Has 4 GiB or more, beyond the 32-bit offsets of the format");
}

Error status_error(const std::string& file, int32_t status, const std::string& more) {
    return file_error(
        file, std::string(kst_StatusString(status)) + " (" + std::to_string(status) + ")" + more,
        status == KST_BAD_MODE ? kWrongUsage : kFailed);
}

Host open_host(const std::string& path, std::optional<uint32_t> arriving) {
    Host host;
    struct stat about {};
    if (path == "-") {
        host.reset(kst_host_from_pipe(STDIN_FILENO));
    } else if (stat(path.c_str(), &about) == 0 && S_ISFIFO(about.st_mode)) {
        // Opening it would wait for a writer.
        throw file_error(path, "Is a pipe; give it as standard input, -");
    } else if (arriving) {
        host.reset(kst_host_from_growing_file(path.c_str(), *arriving));
    } else {
        host.reset(kst_host_from_file(path.c_str()));
    }
    if (host == nullptr) throw input_error(path);
    set_remark_file(input_name(path));
    return host;
}

void refuse_failed(const kst_host* host) {
    errno = kst_host_failed(host);
    if (errno != 0) throw input_error(remark_file());
}

Handle open_track(kst_host* host, const std::string& mode, int32_t& status) {
    Progress progress;
    for (;;) {
        const bool complete = kst_host_is_complete(host) != 0;
        mm_Interface* handle = nullptr;
        status = kst_Open(&handle, kst_host_callbacks(host), mode.c_str());
        if (status == KST_SUCCESS) return Handle(handle);
        // The missing data may still arrive.
        refuse_failed(host);
        if (status != KST_FAILURE || complete) return nullptr;
        progress.await(host, "the movie box");
        if (kst_host_wait_to_open(host) == KST_HOST_FAULT) throw input_error("-");
    }
}

ClassObject open_object(kst_host* host, const std::string& mode, int32_t& status) {
    auto object = std::make_unique<C3gpInterface>();
    Progress progress;
    for (;;) {
        const bool complete = kst_host_is_complete(host) != 0;
        status = static_cast<int32_t>(object->Open(kst_host_callbacks(host), mode.c_str()));
        if (status == KST_SUCCESS) return object;
        // What is missing may be the part of the file that has not arrived.
        refuse_failed(host);
        if (status == KST_BAD_MODE || complete) return nullptr;
        progress.await(host, "the movie box");
        if (kst_host_wait_to_open(host) == KST_HOST_FAULT) throw input_error("-");
    }
}

void wait_for_all(kst_host* host) {
    Progress progress;
    int waited = KST_HOST_MORE;
    if (kst_host_is_complete(host) == 0) progress.await_input();
    while (waited == KST_HOST_MORE) {
        waited = kst_host_wait(host);
        progress.show_bytes(kst_host_bytes_available(host), "read");
    }
    if (waited == KST_HOST_FAULT) throw input_error("-");  // no other waits
}

IsoFile open_iso(kst_host* host, KST_IOSTREAM_CALLBACK_INTERFACE*& callbacks) {
    wait_for_all(host);
    callbacks = kst_host_callbacks(host);
    IsoFile file(isoFFopen(callbacks, "r", nullptr));
    if (file == nullptr) throw std::bad_alloc();
    return file;
}

namespace {

bool is_same_file(const std::string& path, const std::string& input) {
    struct stat out {
    }, in{};
    const int found = input == "-" ? fstat(STDIN_FILENO, &in) : stat(input.c_str(), &in);
    return found == 0 && S_ISREG(in.st_mode) && stat(path.c_str(), &out) == 0 &&
           in.st_dev == out.st_dev && in.st_ino == out.st_ino;
}

}  // namespace

void refuse_input_as_output(const std::string& path, const std::string& input) {
    if (!is_same_file(path, input)) return;
    throw file_error(path, "is the input; choose another output", kWrongUsage);
}

void refuse_terminal(const std::string& path) {
    if (path != "-" || isatty(STDOUT_FILENO) == 0) return;
    throw Error("what comes out is no text for a terminal; write it to a file with -o OUT",
                kWrongUsage);
}

Output::Output(const std::string& path, const std::string& input)
    : path_(output_name(path)), buffer_(kBufferSize), file_(stdout) {
    if (path == "-") return;
    refuse_input_as_output(path, input);
    file_ = fdopen(open_output(find_output_place(path), path).release(), "wb");
    keep_buffer();
}

Output::Output(Descriptor descriptor, const std::string& path)
    : path_(path), buffer_(kBufferSize), file_(fdopen(descriptor.release(), "wb")) {
    keep_buffer();
}

void Output::keep_buffer() {
    if (file_ == nullptr) throw system_error(path_);
    std::setvbuf(file_, buffer_.data(), _IOFBF, buffer_.size());
}

Output::~Output() {
    if (file_ != stdout && file_ != nullptr) std::fclose(file_);
}

void Output::write(std::span<const uint8_t> bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size())
        throw system_error(path_);
    written_ += bytes.size();
}

void Output::flush() {
    if (std::fflush(file_) != 0) throw system_error(path_);
}

void Output::finish() {
    flush();
    if (file_ != stdout && std::fclose(std::exchange(file_, nullptr)) != 0)
        throw system_error(path_);
}

void hold_standard_streams() {
    // Opened the wrong way round. The lowest free number is given out, so each gets its own.
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) >= 0) continue;
        open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
}

void finish_standard_output() {
    if (std::fflush(stdout) != 0) throw system_error("standard output");
    // An earlier piece failed; its reason is lost.
    if (std::ferror(stdout) != 0) throw Error("standard output: not all of it could be written");
}

void read_pieces(const std::string& path,
                 const std::function<void(std::span<const uint8_t>)>& take) {
    constexpr size_t kPiece = 256 << 10;
    const Descriptor opened(path == "-" ? -1 : open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const int descriptor = path == "-" ? STDIN_FILENO : opened.get();
    if (descriptor < 0) throw system_error(path);
    std::vector<uint8_t> piece(kPiece);
    for (;;) {
        pollfd ready{descriptor, POLLIN, 0};
        static_cast<void>(poll(&ready, 1, -1));  // waits for a non-blocking pipe too
        const ssize_t got = read(descriptor, piece.data(), piece.size());
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (got < 0) throw system_error(path);
        if (got == 0) return;
        take(std::span(piece).first(static_cast<size_t>(got)));
    }
}

namespace {

constexpr auto kFirstShown = std::chrono::milliseconds(500);
constexpr auto kShownEvery = std::chrono::milliseconds(200);

double megabytes(uint64_t bytes) {
    return static_cast<double>(bytes) / 1e6;
}

bool is_silent = false;

}  // namespace

// Whether a read of standard input would wait.
bool Progress::is_idle() {
    pollfd ready{STDIN_FILENO, POLLIN, 0};
    return poll(&ready, 1, 0) == 0;
}

void Progress::silence() {
    is_silent = true;
}

Progress::Progress(Beside beside)
    : may_wait_(!is_silent && isatty(STDERR_FILENO) != 0),
      on_terminal_(may_wait_ && (beside == Beside::kNothing || isatty(STDOUT_FILENO) == 0)),
      begun_(Clock::now()),
      next_(begun_ + kFirstShown) {}

Progress::~Progress() {
    clear();
}

void Progress::clear() {
    if (shown_) std::fputs("\r\033[K", error_stream());
    shown_ = false;
}

bool Progress::is_due() {
    if (!on_terminal_ || Clock::now() < next_) return false;
    next_ = Clock::now() + kShownEvery;
    return shown_ = true;
}

void Progress::await_input() {
    if (!may_wait_ || !is_idle()) return;
    shown_ = true;
    std::fputs("\rwaiting for standard input\033[K", error_stream());
    std::fflush(error_stream());
}

void Progress::await(const kst_host* host, const char* what) {
    if (!on_terminal_) return;
    shown_ = true;
    std::fprintf(error_stream(), "\rwaiting for %s, %.1f MB read\033[K", what,
                 megabytes(kst_host_bytes_available(host)));
    std::fflush(error_stream());
}

void Progress::show_waiting(const kst_host* host, uint64_t written) {
    if (on_terminal_ && is_idle()) next_ = Clock::time_point::min();
    show(host, written);
}

void Progress::show(const kst_host* host, uint64_t written) {
    if (!is_due()) return;
    std::fprintf(error_stream(), "\r%.1f of %.1f MB read, %.1f MB written\033[K",
                 megabytes(kst_host_bytes_used(host)), megabytes(kst_host_bytes_available(host)),
                 megabytes(written));
    std::fflush(error_stream());
}

void Progress::show_bytes(uint64_t bytes, const char* what) {
    if (!is_due()) return;
    std::fprintf(error_stream(), "\r%.1f MB %s\033[K", megabytes(bytes), what);
    std::fflush(error_stream());
}

void Progress::show_count(uint64_t done, const char* what) {
    if (!is_due()) return;
    std::fprintf(error_stream(), "\r%llu %s\033[K", static_cast<unsigned long long>(done), what);
    std::fflush(error_stream());
}

void Progress::show_count(size_t done, size_t of, const char* what) {
    if (!is_due()) return;
    std::fprintf(error_stream(), "\r%zu of %zu %s\033[K", done, of, what);
    std::fflush(error_stream());
}

void Progress::show_seconds(double done, double of, const char* what) {
    if (!is_due()) return;
    std::fprintf(error_stream(), "\r%.1f of %.1f s %s\033[K", done, of, what);
    std::fflush(error_stream());
}

void Progress::show_time() {
    if (!is_due()) return;
    const std::chrono::duration<double> passed = Clock::now() - begun_;
    std::fprintf(error_stream(), "\r%.1f s\033[K", passed.count());
    std::fflush(error_stream());
}

int Progress::show_hinting(void* progress, uint64_t done, uint64_t all) {
    constexpr uint64_t kMegabyte = 1000000;
    static_cast<Progress*>(progress)->show_count(static_cast<size_t>(done / kMegabyte),
                                                 static_cast<size_t>(all / kMegabyte), "MB done");
    return 0;
}

std::string hex(std::span<const uint8_t> bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (const uint8_t byte : bytes) {
        out += kDigits[byte >> 4];
        out += kDigits[byte & 15];
    }
    return out;
}

}  // namespace tool
