// SPDX-License-Identifier: Apache-2.0
#include "tools/commands.h"
#include "tools/report/data.h"
#include "tools/report/page.h"
#include "tools/support.h"
#include "tools/whole_output.h"

// A page that shows a file at a glance.

namespace tool {
namespace {

struct Options {
    std::string input;
    std::string output;
    TimeLimit time;
};

void report(const Options& options) {
    const auto deadline = options.time.deadline();
    const Host host = open_host(options.input);
    const ReportData data = gather(host.get(), options.input, deadline);
    const std::string page = render_page(data);
    WholeOutput output(options.output, options.input);  // a good page stays until this one is whole
    output.write({reinterpret_cast<const uint8_t*>(page.data()), page.size()});
    output.finish();
    if (!data.facts.scan.is_3gp()) throw no_media_file(options.input, data.facts.scan.file_size);
}

}  // namespace

void add_report(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("report", "Draw a 3GP file on one page: map, rates, packets, verdicts");
    add_input(command, "FILE", options->input, "3GP file; - is standard input");
    add_output(command, "-o,--output", options->output, "Page to write; - is standard output")
        ->required();
    add_timeout(command, options->time);
    command->footer(
        "The page is one HTML file without script; it loads no other file. The page of a damaged\n"
        "file lists what is wrong; that of a file that is no 3GP file says so, and the command\n"
        "fails.");
    command->callback([options] { report(*options); });
}

}  // namespace tool
