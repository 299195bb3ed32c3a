// SPDX-License-Identifier: Apache-2.0
#include "tools/media_writer.h"

#include <cstring>

#include "tools/native_file.h"

namespace tool {

namespace stream = kestrel::stream;

namespace {

// The first bytes of a speech file (RFC 4867, 5.1).
constexpr char kNarrowBandMagic[] = "#!AMR\n";
constexpr char kWideBandMagic[] = "#!AMR-WB\n";

}  // namespace

void MediaWriter::header(const stream::StreamHeader& header) {
    if (header.medium == stream::Medium::kNarrowBandSpeech) write_text(kNarrowBandMagic);
    if (header.medium == stream::Medium::kWideBandSpeech) write_text(kWideBandMagic);
    const bool has_packets = header.api == stream::Api::kClass || !is_speech(header.medium);
    unit_ = has_packets ? "packet" : "frame";
    depacketiser_ = stream::make_depacketiser(header.medium, header.config,
                                              {[this](auto bytes) { output_.write(bytes); }});
}

void MediaWriter::speech_frame(std::span<const uint8_t> frame) {
    output_.write(frame);
    made_any_ = true;
}

void MediaWriter::video_packet(const stream::VideoPacket& packet) {
    gaps_.add(packet.sequence);
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
    return lacks_text(gaps_.missing(), malformed_, unit_);
}

void MediaWriter::write_text(const char* text) {
    output_.write({reinterpret_cast<const uint8_t*>(text), std::strlen(text)});
}

}  // namespace tool
