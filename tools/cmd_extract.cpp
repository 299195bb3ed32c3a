#include "tools/commands.h"
#include "tools/support.h"

namespace tool {
namespace {

struct Options {
    std::string input;
    std::string mode;
    std::string output = "-";
    std::optional<uint32_t> arriving;
};

// Delivers every chunk; returns the status that ended the stream.
int32_t deliver(mm_Interface* handle, kst_host* host, const std::string& input, Output& output) {
    std::vector<uint8_t> buffer(KST_LARGEST_CHUNK);
    Progress progress;
    for (;;) {
        auto size = static_cast<uint32_t>(buffer.size());
        const bool arriving = kst_host_is_arriving(host) != 0;
        const int32_t status = kst_ReadChunk(handle, buffer.data(), &size, arriving);
        output.write({buffer.data(), size});
        progress.show(host, output.written());
        if (status == KST_SUCCESS) continue;
        // Data that has not arrived is not-yet, but a failure where it is missing for the first
        // frame.
        const bool may_arrive = status == KST_NOT_YET || (status == KST_FAILURE && size == 0);
        if (!may_arrive || kst_host_is_complete(host)) return status;
        output.finish();  // whoever reads the stream need not wait with us
        if (kst_host_wait(host) == KST_HOST_FAULT) throw system_error(input);
    }
}

void extract(const Options& options) {
    Host host = open_host(options.input, options.arriving);
    int32_t status = KST_SUCCESS;
    Handle handle = open_track(host.get(), options.mode, status);
    if (handle == nullptr) {
        const bool may_explain = status == KST_FAILURE && options.input != "-";
        throw status_error(options.input, status,
                           may_explain ? "; 'kestrel info' shows what the file has" : "");
    }
    // Made only now, so that a file that cannot be opened leaves no output behind.
    Output output(options.output, options.input);
    status = deliver(handle.get(), host.get(), options.input, output);
    output.finish();
    if (status != KST_END_OF_FILE) {
        throw status_error(
            options.input, status,
            "; kept " + std::to_string(output.written()) + " bytes that were delivered before");
    }
}

}  // namespace

void add_extract(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command =
        app.add_subcommand("extract", "Write one track of a 3GP file as a native stream");
    command
        ->add_option("FILE", options->input,
                     "3GP file; - reads standard input as it arrives, without waiting for its end")
        ->required();
    command
        ->add_option("MODE", options->mode,
                     "Letters in any order: a (audio) or v (video), and r (read); for example ar")
        ->required();
    command->add_option("-o,--output", options->output, "Where to write; - is standard output")
        ->capture_default_str();
    command
        ->add_option("--arriving", options->arriving,
                     "Serve FILE as if N more bytes arrived before each retry")
        ->type_name("N")
        ->check(CLI::Range(uint32_t{1}, UINT32_MAX));
    command->callback([options] {
        if (options->arriving && options->input == "-") {
            throw Error("--arriving needs a FILE; standard input arrives by itself", kWrongUsage);
        }
        extract(*options);
    });
}

}  // namespace tool
