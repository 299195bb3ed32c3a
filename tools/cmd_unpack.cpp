#include <cstring>

#include "tools/commands.h"
#include "tools/depacketise.h"
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

    void medium(Medium medium, std::span<const uint8_t> config) override {
        if (medium == Medium::kNarrowBandSpeech) write_text(kNarrowBandMagic);
        if (medium == Medium::kWideBandSpeech) write_text(kWideBandMagic);
        depacketiser_ =
            make_depacketiser(medium, config, [this](auto bytes) { output_.write(bytes); });
    }

    void speech_frame(std::span<const uint8_t> frame) override { output_.write(frame); }

    void video_packet(std::span<const uint8_t> payload) override { depacketiser_->packet(payload); }

    void finish() {
        if (depacketiser_ != nullptr) depacketiser_->finish();
        output_.finish();
    }

  private:
    void write_text(const char* text) {
        output_.write({reinterpret_cast<const uint8_t*>(text), std::strlen(text)});
    }

    Output& output_;
    std::unique_ptr<Depacketiser> depacketiser_;
};

void unpack(const Options& options) {
    const std::vector<uint8_t> stream = read_whole(options.input);
    Output output(options.output, options.input);
    MediaSink sink(output);
    try {
        walk_native(stream, sink);
    } catch (const Damage& damage) {
        sink.finish();
        throw Error(options.input + ": makes no sense from byte " + std::to_string(damage.offset) +
                    " on: " + damage.reason + "; kept what came before");
    }
    sink.finish();
}

}  // namespace

void add_unpack(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "unpack", "Rebuild the media file of a native stream: .amr, .h263, .m4v or .h264");
    command->add_option("STREAM", options->input, "Native stream; - is standard input")->required();
    command->add_option("-o,--output", options->output, "Where to write; - is standard output")
        ->required();
    command->callback([options] { unpack(*options); });
}

}  // namespace tool
