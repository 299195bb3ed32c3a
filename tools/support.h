// SPDX-License-Identifier: Apache-2.0
// Shared by the commands of the tool: hosts, handles and outputs that close themselves, and errors.
#ifndef KESTREL_TOOLS_SUPPORT_H
#define KESTREL_TOOLS_SUPPORT_H

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "companion/probe/file_facts.h"
#include "kestrel/c3gpinterface.h"
#include "kestrel/hosts.h"
#include "kestrel/isoff.h"
#include "kestrel/kestrel.h"
#include "tools/descriptor.h"
#include "tools/messages.h"
#include "tools/text.h"

namespace tool {

using namespace kestrel::probe;

enum ExitCode { kDone = 0, kFailed = 1, kWrongUsage = 2 };

// Ends a command: main prints the text as one line and exits with the code.
struct Error : std::runtime_error {
    explicit Error(const std::string& text, ExitCode code = kFailed)
        : std::runtime_error(text), exit_code(code) {}
    ExitCode exit_code;
};

// Whether the exception that ends the process is a lack of memory. Allocates nothing.
bool lacks_memory();

// The name of a path in messages: "standard input" for "-".
std::string input_name(const std::string& path);

// The same of an output: "standard output" for "-".
std::string output_name(const std::string& path);

// "FILE: TEXT".
Error file_error(const std::string& file, const std::string& text, ExitCode code = kFailed);

// "FILE: TEXT", with the reason that the system left in errno.
Error system_error(const std::string& file);

// Like file_error, for a file that is read through a host, which has a limit of 4 GiB - 1.
Error input_error(const std::string& file);

// "FILE: TEXT (NUMBER)" of a library status.
Error status_error(const std::string& file, int32_t status, const std::string& more = "");

struct HostCloser {
    void operator()(kst_host* host) const { kst_host_close(host); }
};
using Host = std::unique_ptr<kst_host, HostCloser>;

// Makes a host for a path ("-" is standard input, as it arrives), or for a file that grows by
// `arriving` bytes at each retry.
Host open_host(const std::string& path, std::optional<uint32_t> arriving = std::nullopt);

struct HandleCloser {
    void operator()(mm_Interface* handle) const { kst_Close(&handle); }
};
using Handle = std::unique_ptr<mm_Interface, HandleCloser>;

// Throws the system's error after a permanent failure of the host, which was opened last.
void refuse_failed(const kst_host* host);

// Opens a track; waits for a file that is still arriving. Returns null when it cannot be opened,
// with the reason in `status`.
Handle open_track(kst_host* host, const std::string& mode, int32_t& status);

using ClassObject = std::unique_ptr<C3gpInterface>;

// The same with the class API.
ClassObject open_object(kst_host* host, const std::string& mode, int32_t& status);

// Waits until the whole file has arrived.
void wait_for_all(kst_host* host);

// Waits for the whole file and reads its boxes. `callbacks` must outlive the record.
IsoFile open_iso(kst_host* host, KST_IOSTREAM_CALLBACK_INTERFACE*& callbacks);

// Refuses an output that is the file `input`.
void refuse_input_as_output(const std::string& path, const std::string& input);

// Refuses "-" as an output for bytes if standard output is a terminal.
void refuse_terminal(const std::string& path);

// A file that is written, or standard output for "-". Output that was written remains when the
// command fails.
class Output {
  public:
    // Refuses to overwrite `input`. Symbolic links: see find_output_place.
    Output(const std::string& path, const std::string& input);
    // Writes to a descriptor, which it closes; errors name `path`.
    Output(Descriptor descriptor, const std::string& path);
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    ~Output();

    void write(std::span<const uint8_t> bytes);
    // Passes on what was written so far.
    void flush();
    // Flushes and closes the output, but for standard output. A full disk, or a network that takes
    // no more, is reported here at the latest. Nothing may be written after it.
    void finish();
    uint64_t written() const { return written_; }
    int descriptor() const { return fileno(file_); }

  private:
    static constexpr size_t kBufferSize = 256 << 10;

    void keep_buffer();

    std::string path_;
    std::vector<char> buffer_;  // of a file, so that it is written in large pieces
    std::FILE* file_;
    uint64_t written_ = 0;
};

// Opens a descriptor for each closed standard stream, so that no file gets its number. All reads
// and writes of these descriptors fail.
void hold_standard_streams();

// Flushes standard output. Throws when not all of it could be written.
void finish_standard_output();

// Passes the bytes of a file, or of standard input for "-", to `take` in pieces as they arrive.
void read_pieces(const std::string& path,
                 const std::function<void(std::span<const uint8_t>)>& take);

// A progress line on a terminal for long work; nothing elsewhere.
class Progress {
  public:
    // What the command writes to standard output meanwhile. Lines show by themselves that it goes
    // on, where standard output is a terminal as well.
    enum class Beside { kNothing, kLines };

    explicit Progress(Beside beside = Beside::kNothing);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    // Ends the line.
    static void silence();

    void show(const kst_host* host, uint64_t written);
    // The same before a wait, at once where it may be long.
    void show_waiting(const kst_host* host, uint64_t written);
    void show_bytes(uint64_t bytes, const char* what);
    void show_count(uint64_t done, const char* what);
    void show_count(size_t done, size_t of, const char* what);
    void show_seconds(double done, double of, const char* what);
    void show_time();  // since this object was made
    // Shows at once that nothing has come yet on standard input, also beside lines.
    void await_input();
    // Shows at once what is waited for, and how much has come.
    void await(const kst_host* host, const char* what);
    // Removes the line before other output.
    void clear();

    // A kst_hint_progress; its context is an object of this class.
    static int show_hinting(void* progress, uint64_t done, uint64_t all);

  private:
    bool is_due();
    static bool is_idle();

    using Clock = std::chrono::steady_clock;
    bool may_wait_;     // standard error is a terminal
    bool on_terminal_;  // nothing else comes on it meanwhile
    bool shown_ = false;
    Clock::time_point begun_;
    Clock::time_point next_;
};

// Two lower-case digits per byte.
std::string hex(std::span<const uint8_t> bytes);

}  // namespace tool

#endif
