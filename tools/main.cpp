// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

#include "tools/command_line.h"
#include "tools/commands.h"
#include "tools/support.h"
#include "tools/whole_output.h"

// The command-line tool: parses the command line and turns errors into one line and an exit code.

namespace {

int report(std::string_view text, int exit_code) {
    tool::say(text);
    return exit_code;
}

// No handler gets the error of memory that runs out again while objects are destroyed.
[[noreturn]] void end_without_memory() {
    static constexpr char kText[] = "kestrel: out of memory\n";
    if (!tool::lacks_memory()) std::abort();
    tool::remove_unfinished();
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, kText, sizeof kText - 1);
    std::_Exit(tool::kFailed);
}

// Returns the exit code.
int run(int argc, char** argv) {
    CLI::App app("Gets media out of 3GP files as the platform's native streams.", "kestrel");
    app.require_subcommand(1);
    app.set_version_flag("--version", "kestrel " KESTREL_VERSION);
    app.failure_message(CLI::FailureMessage::simple);
    const std::string exit_status = "Exit status: 0 done, 1 failed, 2 wrong usage.";
    app.footer(exit_status);  // of the commands, too
    tool::add_extract(app);
    tool::add_info(app);
    tool::add_inspect(app);
    tool::add_unpack(app);
    tool::add_pack(app);
    tool::add_packets(app);
    tool::add_send(app);
    tool::add_boxes(app);
    tool::add_hint(app);
    tool::add_report(app);
    tool::add_check(app);
    for (CLI::App* command : app.get_subcommands({})) {
        command->add_flag_callback("--verbose", tool::show_remarks,
                                   "Print the library's own lines on the file");
        command->add_flag_callback("--quiet", tool::Progress::silence,
                                   "Show no progress on a terminal");
        const std::string footer = command->get_footer();
        if (footer.find("Exit status") == std::string::npos)
            command->footer(footer + "\n" + exit_status);
    }
    app.footer("'kestrel help COMMAND' explains a command, 'kestrel version' shows the version.\n" +
               exit_status);
    tool::format_help(app);
    return tool::run_command_line(app, argc, argv);
}

}  // namespace

int main(int argc, char** argv) {
    int code = tool::kFailed;
    tool::hold_standard_streams();
    std::set_terminate(end_without_memory);
    std::signal(SIGXFSZ, SIG_IGN);  // a file beyond the process's limit is a write that fails
    try {
        tool::take_over_remarks();
        code = run(argc, argv);
    } catch (const tool::Error& error) {
        code = report(error.what(), error.exit_code);
    } catch (const std::bad_alloc&) {
        code = report("out of memory", tool::kFailed);
    } catch (const std::length_error&) {  // of a container: more than the address space holds
        code = report("out of memory", tool::kFailed);
    } catch (const std::exception& error) {
        code = report(error.what(), tool::kFailed);
    }
    tool::expect_exit();
    return code;
}
