#include <cstring>

#include "tools/commands.h"
#include "tools/native_walk.h"
#include "tools/support.h"

// A native stream back to the media file it came from.

namespace tool {
namespace {

// The first bytes of a speech file (RFC 4867, 5.1).
constexpr char kNarrowBandMagic[] = "#!AMR\n";
constexpr char kWideBandMagic[] = "#!AMR-WB\n";

struct Options {
    std::string input;
    std::string output;
};

class MediaSink final : public RecordSink {
  public:
    explicit MediaSink(Output& output) : output_(output) {}

    void medium(Medium medium) override {
        const char* magic = medium == Medium::kWideBandSpeech ? kWideBandMagic : kNarrowBandMagic;
        output_.write({reinterpret_cast<const uint8_t*>(magic), std::strlen(magic)});
    }

    void speech_frame(std::span<const uint8_t> frame) override { output_.write(frame); }

  private:
    Output& output_;
};

void unpack(const Options& options) {
    const std::vector<uint8_t> stream = read_whole(options.input);
    Output output(options.output, options.input);
    MediaSink sink(output);
    try {
        walk_native(stream, sink);
    } catch (const Damage& damage) {
        output.finish();
        throw Error(options.input + ": makes no sense from byte " + std::to_string(damage.offset) +
                    " on: " + damage.reason + "; kept what came before");
    }
    output.finish();
}

}  // namespace

void add_unpack(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("unpack", "Rebuild the media file of a native stream");
    command->add_option("STREAM", options->input, "Native stream; - is standard input")->required();
    command->add_option("-o,--output", options->output, "Where to write; - is standard output")
        ->required();
    command->callback([options] { unpack(*options); });
}

}  // namespace tool
