// SPDX-License-Identifier: Apache-2.0
#include <cstring>

#include "companion/stream/depacketise.h"
#include "tools/commands.h"
#include "tools/native_file.h"
#include "tools/whole_output.h"

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

    void speech_frame(std::span<const uint8_t> frame) override {
        output_.write(frame);
        made_any_ = true;
    }

    void video_packet(const stream::VideoPacket& packet) override {
        count_missing(packet.sequence);
        if (depacketiser_->packet(packet.payload)) {
            made_any_ = true;
        } else {
            ++malformed_;
        }
    }

    void finish() {
        if (depacketiser_ != nullptr) depacketiser_->finish();
    }

    bool made_any() const { return made_any_; }

    // What the medium lacks; empty for nothing.
    std::string lacks() const {
        std::string out;
        if (missing_ > 0) out = counted(missing_, "missing");
        if (malformed_ > 0) out += (out.empty() ? "" : ", ") + counted(malformed_, "malformed");
        return out;
    }

  private:
    static std::string counted(uint64_t packets, const char* what) {
        return std::to_string(packets) + (packets == 1 ? " packet is " : " packets are ") + what;
    }

    // Numbers that go back, or ahead by half of all there are, say nothing.
    void count_missing(uint16_t sequence) {
        constexpr uint16_t kHalf = 0x8000;
        const auto ahead = static_cast<uint16_t>(sequence - last_.value_or(sequence - 1));
        if (ahead > 1 && ahead < kHalf) missing_ += ahead - 1u;
        last_ = sequence;
    }

    void write_text(const char* text) {
        output_.write({reinterpret_cast<const uint8_t*>(text), std::strlen(text)});
    }

    Output& output_;
    std::unique_ptr<stream::Depacketiser> depacketiser_;
    bool made_any_ = false;
    std::optional<uint16_t> last_;  // sequence number
    uint64_t missing_ = 0;
    uint64_t malformed_ = 0;
};

void unpack(const Options& options) {
    WholeOutput output(options.output, options.input);
    MediaWriter media(output.output());
    const WalkedFile walked = walk_file(options.input, media);
    media.finish();
    if (!media.made_any()) {  // an output that was there stays
        if (walked.damage) throw damage_error(options.input, *walked.damage);
        throw file_error(options.input, "the stream has no frames");
    }
    output.finish();
    if (walked.damage) {
        const uint64_t lost = walked.bytes - walked.damage->offset;
        throw damage_error(options.input, *walked.damage,
                           "; kept what comes before, left out " + std::to_string(lost) +
                               (lost == 1 ? " byte" : " bytes"));
    }
    if (!media.lacks().empty()) throw file_error(options.input, media.lacks() + "; kept the rest");
}

}  // namespace

void add_unpack(CLI::App& app) {
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "unpack", "Rebuild the media file of a native stream: .amr, .h263, .m4v or .h264");
    command->add_option("STREAM", options->input, "Native stream; - is standard input")->required();
    command->add_option("-o,--output", options->output, "Where to write; - is standard output")
        ->required();
    command->callback([options] {
        refuse_terminal(options->output);
        unpack(*options);
    });
}

}  // namespace tool
