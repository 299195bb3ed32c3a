// SPDX-License-Identifier: Apache-2.0
#include "tools/commands.h"
#include "tools/media_writer.h"
#include "tools/native_file.h"
#include "tools/whole_output.h"

// A native stream back to the media file it came from.

namespace tool {
namespace {

struct Options {
    std::string input;
    std::string output;
};

void unpack(const Options& options) {
    WholeOutput output(options.output, options.input);
    MediaWriter media(output.output());
    const WalkedFile walked = walk_file(options.input, media);
    media.finish();
    if (!media.made_any()) {  // an output that was there stays
        if (walked.damage) throw damage_error(options.input, walked);
        throw file_error(options.input, "the stream has no frames");
    }
    output.finish();
    if (walked.damage) {
        const uint64_t lost = walked.bytes - walked.damage->offset;
        const std::string left_out = lost == 0 ? "" : ", left out " + counted(lost, "byte");
        const char* kept = walked.is_fault ? "; kept what it has" : "; kept what comes before";
        throw damage_error(options.input, walked, kept + left_out);
    }
    if (!media.lacks().empty()) throw file_error(options.input, media.lacks() + "; kept the rest");
}

}  // namespace

void add_unpack(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "unpack", "Rebuild the media file of a native stream: .amr, .h263, .m4v or .h264");
    add_input(command, "STREAM", options->input, "Native stream; - is standard input");
    add_output(command, "-o,--output", options->output, "Where to write; - is standard output")
        ->required();
    command->callback([options] {
        refuse_terminal(options->output);
        unpack(*options);
    });
}

}  // namespace tool
