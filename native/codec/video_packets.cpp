// SPDX-License-Identifier: Apache-2.0
#include "native/codec/video_packets.h"

namespace kestrel {

bool VideoPackets::begin(uint32_t& source_format) {
    if (kind_ != VideoPayload::kRfc2190 && kind_ != VideoPayload::kRfc2190Macroblocks) return true;
    picture_.source_format = source_format;
    const uint32_t found =
        h263_get_config(sample_.data(), static_cast<unsigned>(sample_.size()), &picture_);
    source_format = picture_.source_format;
    return found != 0xFFFFFFFF;
}

size_t VideoPackets::header_size() const {
    switch (kind_) {
        case VideoPayload::kPlain:
            return 0;
        case VideoPayload::kRfc4629:
            return kRfc4629Size;
        default:
            return mode_b_ ? kRfc2190ModeBSize : kRfc2190ModeASize;
    }
}

PayloadHeader VideoPackets::header_of(const VideoFragment& fragment, bool start_code) const {
    switch (kind_) {
        case VideoPayload::kPlain:
            return {};
        case VideoPayload::kRfc4629:
            return rfc4629(start_code);
        default:
            return mode_b_ ? put_rfc2190_B(macroblocks_.state().picture, fragment)
                           : rfc2190_mode_a(picture_.source_format, picture_.coding_type,
                                            fragment.end_bit);
    }
}

// In RFC 4629 the two zero bytes of a start code at the beginning of a packet are omitted.
bool VideoPackets::take_start_code() {
    const bool found = kind_ == VideoPayload::kRfc4629 && sample_.size() - at_ >= 2 &&
                       sample_[at_] == 0 && sample_[at_ + 1] == 0;
    if (found) at_ += 2;
    return found;
}

bool VideoPackets::next(VideoPacket& packet) {
    const bool start_code = take_start_code();
    const size_t headers = header_size();
    if (max_payload_ <= static_cast<int32_t>(headers)) return false;
    const size_t budget = static_cast<size_t>(max_payload_) - headers;
    packet.fragment = kind_ == VideoPayload::kRfc2190Macroblocks
                          ? macroblocks_.cut(at_, budget)
                          : cut_at_start_code(sample_, at_, budget);
    packet.header = header_of(packet.fragment, start_code);
    // After the first cut between macroblocks, a picture's packets are in mode B.
    if (packet.fragment.cut == CutAt::kMacroblock) mode_b_ = true;
    at_ = packet.fragment.next();
    return true;
}

}  // namespace kestrel
