// SPDX-License-Identifier: Apache-2.0
#include "kestrel/hinter.h"
#include "tools/commands.h"
#include "tools/judge/fix.h"
#include "tools/output_stream.h"
#include "tools/support.h"

// Copies a file and adds an RTP hint track for each medium with a payload format, through the
// companion library.

namespace tool {
namespace {

struct Options {
    std::string input;
    std::string output;
    uint32_t max_packet = KST_HINT_DEFAULT_PACKET;
    bool rfc2190 = false;
    bool replace = false;
    bool drop_others = false;
    bool salvage = false;

    uint32_t flags() const {
        uint32_t all = 0;
        if (rfc2190) all |= KST_HINT_RFC2190;
        if (replace) all |= KST_HINT_REPLACE;
        if (drop_others) all |= KST_HINT_DROP_OTHERS;
        if (salvage) all |= KST_HINT_SALVAGE;
        return all;
    }
};

[[noreturn]] void refuse(kst_host* host, const Options& options, int result,
                         const std::string& error) {
    switch (result) {
        case KST_HINT_NO_MEMORY:
            throw std::bad_alloc();
        case KST_HINT_HAS_HINTS:
            throw file_error(options.input, error + "; --replace makes new ones");
        case KST_HINT_TOO_LARGE:
        case KST_HINT_DESTINATION_FAILED:
            throw file_error(output_name(options.output), error);
        default:
            if (options.salvage) throw file_error(options.input, error);
            throw hint_error(host, options.input, error, "--salvage", options.flags());
    }
}

void hint(const Options& options) {
    Host host = open_host(options.input);
    wait_for_all(host.get());
    // Nothing is written before the last packet was planned, so a refused file leaves no output.
    OutputStream stream(options.output, options.input);
    Progress progress;
    kst_hint_options how = {};
    how.struct_size = sizeof how;
    how.flags = options.flags();
    how.max_packet = options.max_packet;
    how.progress = Progress::show_hinting;
    how.progress_context = &progress;
    kst_hint_report report = {};
    report.struct_size = sizeof report;
    const int result = kst_hint(kst_host_callbacks(host.get()), stream.table(), &how, &report);
    progress.clear();
    stream.rethrow_failure();  // the system's error of a write
    if (result != KST_HINT_DONE) refuse(host.get(), options, result, report.error);
    stream.finish();
    if (report.left_out[0] != '\0') say(input_name(options.input) + ": " + report.left_out);
}

}  // namespace

void add_hint(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("hint", "Copy a 3GP file and add RTP hint tracks to it");
    add_input(command, "FILE", options->input, "3GP file; - is standard input");
    add_output(command, "-o,--output", options->output, "Where to write; - is standard output")
        ->required();
    command
        ->add_option(
            "--mtu", options->max_packet,
            "Longest packet in bytes, RTP header included; the function API uses up to 1400")
        ->check(CLI::Range(uint32_t{KST_HINT_SHORTEST_PACKET}, uint32_t{KST_HINT_LONGEST_PACKET}))
        ->transform(as_decimal)
        ->capture_default_str();
    command->add_flag("--rfc2190", options->rfc2190,
                      "Pack H.263 by RFC 2190 (payload type 34), not by RFC 4629");
    command->add_flag("--replace", options->replace,
                      "Replace the hint tracks of FILE, instead of refusing it");
    command->add_flag("--drop-others", options->drop_others,
                      "Leave out tracks that get no hint track");
    command->add_flag("--salvage", options->salvage,
                      "Keep the complete samples of a truncated file");
    command->footer("Not copied: user data, metadata and other boxes (udta, meta, uuid).");
    command->callback([options] { hint(*options); });
}

}  // namespace tool
