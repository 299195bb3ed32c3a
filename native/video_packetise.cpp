#include <cstdio>

#include "kestrel/codec.h"
#include "kestrel/isoff.h"
#include "native/h263_payload.h"
#include "native/orb_native.h"
#include "native/packet_output.h"
#include "native/video_fragment.h"

// H.263 and MPEG-4 pictures into packets of both formats.

namespace kestrel {
namespace {

std::span<const uint8_t> sample_of(const void* in, int in_len) {
    return {static_cast<const uint8_t*>(in), in_len > 0 ? static_cast<size_t>(in_len) : 0};
}

void tell_cut(uint32_t flags, size_t remaining, const VideoFragment& fragment) {
    if (!(flags & native_verbose) || fragment.is_last()) return;
    std::fprintf(stderr, "Fragmenting payload: old_len=%d new_len=%d", static_cast<int>(remaining),
                 static_cast<int>(fragment.length));
    switch (fragment.cut) {
        case CutAt::kMacroblock:
            std::fprintf(stderr, ", at MB boundary, ebit=%d\n",
                         static_cast<int>((8 - fragment.end_bit) & 7));
            break;
        case CutAt::kStartCode:
            std::fputs(", at start code\n", stderr);
            break;
        default:
            std::fputs(", at arbitrary position\n", stderr);
    }
}

// One sample on its way into `tel` packets.
class TelVideo {
  public:
    TelVideo(tel_native* state, std::span<const uint8_t> sample, PacketOutput& output)
        : state_(state), sample_(sample), output_(output), macroblocks_(sample) {}

    int run();

  private:
    enum class Payload { kPlain, kRfc2190, kRfc2190Macroblocks, kRfc4629 };

    Payload payload_kind() const;
    bool parse_picture_header();
    size_t header_size() const;
    VideoFragment next_fragment(size_t budget);
    PayloadHeader header_of(const VideoFragment& fragment, bool start_code) const;
    bool take_start_code();
    bool write(const VideoFragment& fragment, bool start_code);

    tel_native* state_;
    std::span<const uint8_t> sample_;
    PacketOutput& output_;
    Payload kind_ = Payload::kPlain;
    H263VCFG picture_{};
    MacroblockCutter macroblocks_;
    bool mode_b_ = false;
    size_t at_ = 0;
};

TelVideo::Payload TelVideo::payload_kind() const {
    if (state_->codec != ISO_CODEC_S263) return Payload::kPlain;
    switch (static_cast<int32_t>(state_->hdr.mode)) {
        case NATIVE_MODE_RFC2429:
            return Payload::kRfc4629;
        case NATIVE_MODE_RFC2190:
            return Payload::kRfc2190;
        case NATIVE_MODE_RFC2190_MB:
            return Payload::kRfc2190Macroblocks;
        default:
            return Payload::kPlain;
    }
}

bool TelVideo::parse_picture_header() {
    picture_.source_format = state_->h263_src;
    const uint32_t found =
        h263_get_config(sample_.data(), static_cast<unsigned>(sample_.size()), &picture_);
    state_->h263_src = picture_.source_format;
    return found != 0xFFFFFFFF;
}

size_t TelVideo::header_size() const {
    switch (kind_) {
        case Payload::kPlain:
            return 0;
        case Payload::kRfc4629:
            return kRfc4629Size;
        default:
            return mode_b_ ? kRfc2190ModeBSize : kRfc2190ModeASize;
    }
}

VideoFragment TelVideo::next_fragment(size_t budget) {
    return kind_ == Payload::kRfc2190Macroblocks ? macroblocks_.cut(at_, budget)
                                                 : cut_at_start_code(sample_, at_, budget);
}

PayloadHeader TelVideo::header_of(const VideoFragment& fragment, bool start_code) const {
    switch (kind_) {
        case Payload::kPlain:
            return {};
        case Payload::kRfc4629:
            return rfc4629(start_code);
        default:
            return mode_b_ ? put_rfc2190_B(macroblocks_.state().picture, fragment)
                           : rfc2190_mode_a(picture_.source_format, picture_.coding_type,
                                            fragment.end_bit);
    }
}

// In RFC 4629 the two zero bytes of a start code that begins a packet are left out.
bool TelVideo::take_start_code() {
    const bool found = kind_ == Payload::kRfc4629 && sample_.size() - at_ >= 2 &&
                       sample_[at_] == 0 && sample_[at_ + 1] == 0;
    if (found) at_ += 2;
    return found;
}

bool TelVideo::write(const VideoFragment& fragment, bool start_code) {
    const PayloadHeader header = header_of(fragment, start_code);
    if (!output_.fits(header.size + fragment.length + tel_header_size)) return false;
    TEL_RTP& hdr = state_->hdr;
    hdr.marker = fragment.is_last() ? 1 : 0;
    hdr.size = static_cast<uint32_t>(header.size + fragment.length);
    state_->count++;
    const bool is_h263 = state_->codec == ISO_CODEC_S263;
    tel_put_header(output_.at(), &hdr, is_h263 ? kH263PayloadType : kMpeg4PayloadType);
    output_.advance(tel_header_size);
    output_.append(std::span(header.bytes).first(header.size));
    output_.append(sample_.subspan(fragment.begin, fragment.length));
    return true;
}

int TelVideo::run() {
    kind_ = payload_kind();
    const bool needs_picture = kind_ == Payload::kRfc2190 || kind_ == Payload::kRfc2190Macroblocks;
    if (needs_picture && !parse_picture_header()) return -2;
    while (at_ < sample_.size()) {
        const bool start_code = take_start_code();
        const size_t headers = header_size();
        if (state_->max_payload <= static_cast<int32_t>(headers)) return -1;
        const VideoFragment fragment =
            next_fragment(static_cast<size_t>(state_->max_payload) - headers);
        tell_cut(state_->hdr.flags, sample_.size() - at_, fragment);
        if (!write(fragment, start_code)) return -1;
        // From the first cut between macroblocks on, a picture's packets are in mode B.
        if (fragment.cut == CutAt::kMacroblock) mode_b_ = true;
        at_ = fragment.next();
    }
    return output_.written();
}

}  // namespace

int tel_video_packet(void* out, int out_size, void* in, int in_len, double duration,
                     tel_native* state) {
    begin_sample(state, duration);
    PacketOutput output(out, out_size);
    return TelVideo(state, sample_of(in, in_len), output).run();
}

int orb_video_packet(void* out, int out_size, void* in, int in_len, double duration,
                     orb_native* state) {
    begin_sample(state, duration);
    if (state->max_payload < 1) return -1;
    const auto sample = sample_of(in, in_len);
    PacketOutput output(out, out_size);
    for (size_t at = 0; at < sample.size();) {
        const VideoFragment fragment =
            cut_at_start_code(sample, at, static_cast<size_t>(state->max_payload));
        tell_cut(state->hdr.flags, sample.size() - at, fragment);
        if (!output.fits(fragment.length + orb_header_size)) return -1;
        state->hdr.marker = fragment.is_last() ? 1 : 0;
        state->hdr.size = static_cast<uint32_t>(fragment.length);
        orb_put_header(output.at(), &state->hdr);
        output.advance(orb_header_size);
        output.append(sample.subspan(at, fragment.length));
        at = fragment.next();
    }
    return output.written();
}

}  // namespace kestrel
