// SPDX-License-Identifier: Apache-2.0
#include "tools/media_writer.h"

#include <cstring>

namespace tool {

namespace stream = kestrel::stream;

namespace {

// The first bytes of a speech file (RFC 4867, 5.1).
constexpr char kNarrowBandMagic[] = "#!AMR\n";
constexpr char kWideBandMagic[] = "#!AMR-WB\n";

std::string counted(uint64_t packets, const char* what) {
    return std::to_string(packets) + (packets == 1 ? " packet is " : " packets are ") + what;
}

}  // namespace

void MediaWriter::header(const stream::StreamHeader& header) {
    if (header.medium == stream::Medium::kNarrowBandSpeech) write_text(kNarrowBandMagic);
    if (header.medium == stream::Medium::kWideBandSpeech) write_text(kWideBandMagic);
    depacketiser_ = stream::make_depacketiser(header.medium, header.config,
                                              {[this](auto bytes) { output_.write(bytes); }});
}

void MediaWriter::speech_frame(std::span<const uint8_t> frame) {
    output_.write(frame);
    made_any_ = true;
}

void MediaWriter::video_packet(const stream::VideoPacket& packet) {
    count_missing(packet.sequence);
    if (depacketiser_->packet(packet.payload)) {
        made_any_ = true;
    } else {
        ++malformed_;
    }
}

void MediaWriter::finish() {
    if (depacketiser_ != nullptr) depacketiser_->finish();
}

std::string MediaWriter::lacks() const {
    std::string out;
    if (missing_ > 0) out = counted(missing_, "missing");
    if (malformed_ > 0) out += (out.empty() ? "" : ", ") + counted(malformed_, "malformed");
    return out;
}

// Numbers that go back, or ahead by half of all there are, say nothing.
void MediaWriter::count_missing(uint16_t sequence) {
    constexpr uint16_t kHalf = 0x8000;
    const auto ahead = static_cast<uint16_t>(sequence - last_.value_or(sequence - 1));
    if (ahead > 1 && ahead < kHalf) missing_ += ahead - 1u;
    last_ = sequence;
}

void MediaWriter::write_text(const char* text) {
    output_.write({reinterpret_cast<const uint8_t*>(text), std::strlen(text)});
}

}  // namespace tool
