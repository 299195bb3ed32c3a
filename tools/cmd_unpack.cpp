#include <cstring>

#include "companion/stream/depacketise.h"
#include "companion/stream/native_walk.h"
#include "tools/commands.h"
#include "tools/support.h"

// A native stream back to the media file it came from.

namespace tool {
namespace {

namespace stream = kestrel::stream;

// The first bytes of a speech file (RFC 4867, 5.1).
constexpr char kNarrowBandMagic[] = "#!AMR\n";
constexpr char kWideBandMagic[] = "#!AMR-WB\n";

struct Options {
    std::string input;
    std::string output;
};

class MediaWriter final : public stream::RecordSink {
  public:
    explicit MediaWriter(Output& output) : output_(output) {}

    void header(const stream::StreamHeader& header) override {
        if (header.medium == stream::Medium::kNarrowBandSpeech) write_text(kNarrowBandMagic);
        if (header.medium == stream::Medium::kWideBandSpeech) write_text(kWideBandMagic);
        depacketiser_ = stream::make_depacketiser(header.medium, header.config,
                                                  {[this](auto bytes) { output_.write(bytes); }});
    }

    void speech_frame(std::span<const uint8_t> frame) override { output_.write(frame); }

    void video_packet(const stream::VideoPacket& packet) override {
        depacketiser_->packet(packet.payload);
    }

    void finish() {
        if (depacketiser_ != nullptr) depacketiser_->finish();
        output_.finish();
    }

  private:
    void write_text(const char* text) {
        output_.write({reinterpret_cast<const uint8_t*>(text), std::strlen(text)});
    }

    Output& output_;
    std::unique_ptr<stream::Depacketiser> depacketiser_;
};

void unpack(const Options& options) {
    std::optional<Output> output;
    std::optional<MediaWriter> media;
    std::optional<stream::NativeWalk> walk;
    const auto begin = [&] {  // only now, so that an input that cannot be read leaves no output
        if (walk) return;
        output.emplace(options.output, options.input);
        media.emplace(*output);
        walk.emplace(*media);
    };
    try {
        read_pieces(options.input, [&](auto piece) {
            begin();
            walk->feed(piece);
        });
        begin();
        walk->finish();
    } catch (const stream::Damage& damage) {
        media->finish();
        throw Error(options.input + ": damaged from byte " + std::to_string(damage.offset) +
                    " on: " + damage.reason + "; kept what came before");
    }
    media->finish();
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
