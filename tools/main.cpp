#include <cstdio>
#include <new>

#include "tools/commands.h"
#include "tools/support.h"

// The command-line tool: parses the command line and turns errors into one line and an exit code.

namespace {

int report(const char* text, int exit_code) {
    std::fprintf(stderr, "kestrel: %s\n", text);
    return exit_code;
}

int parse_and_run(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);  // runs the command that was named
        tool::finish_standard_output();
        return tool::kDone;
    } catch (const CLI::Success& asked_for) {
        const int code = app.exit(asked_for);  // --help and --version
        tool::finish_standard_output();
        return code;
    } catch (const CLI::ParseError& wrong) {
        return report((std::string(wrong.what()) + " (try --help)").c_str(), tool::kWrongUsage);
    }
}

}  // namespace

int main(int argc, char** argv) {
    tool::hold_standard_streams();
    CLI::App app("Gets media out of 3GP files as the platform's native streams.", "kestrel");
    app.require_subcommand(1);
    app.set_version_flag("--version", "kestrel " KESTREL_VERSION);
    app.failure_message(CLI::FailureMessage::simple);
    app.footer("Exit status: 0 done, 1 failed, 2 wrong usage.");
    tool::add_extract(app);
    tool::add_info(app);
    tool::add_inspect(app);
    tool::add_unpack(app);
    tool::add_packets(app);
    tool::add_boxes(app);
    tool::add_hint(app);
    tool::add_report(app);
    tool::add_check(app);
    try {
        return parse_and_run(app, argc, argv);
    } catch (const tool::Error& error) {
        return report(error.what(), error.exit_code);
    } catch (const std::bad_alloc&) {
        return report("out of memory", tool::kFailed);
    }
}
