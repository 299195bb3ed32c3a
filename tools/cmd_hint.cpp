#include "tools/commands.h"
#include "tools/hinter.h"
#include "tools/output_stream.h"
#include "tools/support.h"

// Copies a file and adds an RTP hint track for each medium that has a payload format.

namespace tool {
namespace {

constexpr uint32_t kLongestPacket = 65535;
constexpr uint32_t kShortestPacket = 64;

struct Options : HintOptions {
    std::string output;
};

void hint(const Options& options) {
    Host host = open_host(options.input);
    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks = nullptr;
    const IsoFile from = open_iso(host.get(), callbacks);
    // Nothing goes to the output before the last sample was taken, so a file that is refused leaves
    // none behind.
    OutputStream stream(options.output, options.input);
    KST_IOSTREAM_CALLBACK_INTERFACE* table = stream.table();
    IsoFile to(isoFFopen(table, "w", nullptr));
    if (to == nullptr) throw std::bad_alloc();
    try {
        copy_with_hints(options, from.get(), to.get());
    } catch (...) {
        stream.refuse();
        throw;
    }
    const int closed = isoFFclose(to.release());
    stream.tell_failure();  // what the system said of a write
    if (closed == -2) throw std::bad_alloc();
    if (closed == -6) throw Error(options.output + ": the file would be too large");
    if (closed != 0) throw system_error("temporary file");
    stream.finish();
}

}  // namespace

void add_hint(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("hint", "Copy a 3GP file and add RTP hint tracks to it");
    const auto is_name = [](const std::string& name) {
        return name.empty() ? std::string("the name of a file is empty") : std::string();
    };
    command->add_option("FILE", options->input, "3GP file; - is standard input")
        ->required()
        ->check(is_name);
    command->add_option("-o,--output", options->output, "Where to write; - is standard output")
        ->required()
        ->check(is_name);
    command
        ->add_option("--mtu", options->mtu,
                     "Longest packet in bytes, RTP header included; players accept up to 1400")
        ->check(CLI::Range(kShortestPacket, kLongestPacket))
        ->capture_default_str();
    command->add_flag("--rfc2190", options->rfc2190,
                      "Pack H.263 by RFC 2190 (payload type 34), not by RFC 4629");
    command->add_flag("--replace", options->replace,
                      "Leave out the hint tracks that FILE has, instead of refusing it");
    command->callback([options] { hint(*options); });
}

}  // namespace tool
