// SPDX-License-Identifier: Apache-2.0
#include "native/stream/depacketise.h"

#include <algorithm>

#include "common/byte_reader.h"
#include "native/codec/mpeg4_visual.h"
#include "native/codec/nal_unit.h"

namespace kestrel::stream {
namespace {

// RFC 4629: a header of two bytes and the fields that it announces. P replaces the two zero bytes
// of a start code.
class Rfc4629 final : public Depacketiser {
  public:
    using Depacketiser::Depacketiser;

    bool packet(std::span<const uint8_t> payload) override {
        if (payload.size() < 2) return false;
        const bool start_code = (payload[0] & 0x04) != 0;
        const bool redundancy = (payload[0] & 0x02) != 0;  // one byte of VRC
        const auto extra_header = static_cast<size_t>((payload[0] & 1) << 5 | payload[1] >> 3);
        const size_t headers = 2 + (redundancy ? 1 : 0) + extra_header;
        if (headers > payload.size()) return false;
        if (start_code) emit(std::span(kStartCode).first(2));
        emit(payload.subspan(headers));
        return true;
    }
};

// RFC 2190: a header of 4, 8 or 12 bytes. A byte that two packets share is joined from both, by the
// bits that their headers declare.
class Rfc2190 final : public Depacketiser {
  public:
    using Depacketiser::Depacketiser;

    bool packet(std::span<const uint8_t> payload) override {
        const Header header = parse(payload);
        if (payload.size() <= header.size) return false;
        const auto bytes = payload.subspan(header.size);
        uint8_t first = bytes.front();
        const bool joined = has_held_ && join_held(header, first);
        // The last byte may be shared: the next packet shows it.
        held_ = bytes.size() == 1 ? first : bytes.back();
        held_by_ = header;
        has_held_ = true;
        if (bytes.size() == 1) return true;
        if (joined) emit({&first, 1});
        emit(bytes.subspan(joined ? 1 : 0, bytes.size() - (joined ? 2 : 1)));
        return true;
    }

    void finish() override {
        if (has_held_) emit({&held_, 1});
        has_held_ = false;
    }

  private:
    struct Header {
        size_t size = 4;
        bool has_bits = true;
        unsigned start_bit = 0;   // of the first byte
        unsigned bits_after = 0;  // of the last byte, which are not this packet's
    };

    static Header parse(std::span<const uint8_t> payload) {
        if (payload.empty()) return {};
        if (is_spoilt_rfc2190(payload)) return {8, false, 0, 0};
        const bool f = (payload[0] & 0x80) != 0;
        const bool p = (payload[0] & 0x40) != 0;
        return {!f   ? size_t{4}
                : !p ? size_t{8}
                     : size_t{12},
                true, payload[0] >> 3 & 7u, payload[0] & 7u};
    }

    // Completes the byte that was kept, before a packet that begins with `first`. Returns true when
    // both are one byte, which is then in `first`.
    bool join_held(const Header& next, uint8_t& first) {
        const bool shared =
            held_by_.has_bits ? held_by_.bits_after != 0 && (!next.has_bits || next.start_bit != 0)
            : next.has_bits   ? next.start_bit != 0
                              : held_ == first;
        if (!shared) {
            emit({&held_, 1});
        } else if (held_by_.has_bits && next.has_bits) {
            const auto mine = static_cast<uint8_t>(0xFF << held_by_.bits_after);
            const auto its = static_cast<uint8_t>(0xFF >> next.start_bit);
            first = static_cast<uint8_t>((held_ & mine) | (first & its));
        }
        return shared;
    }

    bool has_held_ = false;
    uint8_t held_ = 0;
    Header held_by_;
};

// RFC 6416: the stream itself; or RFC 3640, where the AU headers and their length in bits go before
// it. The first packet shows which: only in the former it begins with a start code. The
// configuration goes first unless the stream has it.
class Mpeg4 final : public Depacketiser {
  public:
    Mpeg4(std::span<const uint8_t> config, MediaSink sink)
        : Depacketiser(std::move(sink)), config_(config.begin(), config.end()) {}

    bool packet(std::span<const uint8_t> payload) override {
        if (!begun_) has_au_headers_ = !begins_with(payload, kStartCodePrefix);
        if (has_au_headers_) payload = after_au_headers(payload);
        if (!begun_ && !begins_with(payload, kSequenceStart)) emit(config_);
        begun_ = true;
        emit(payload);
        return !payload.empty();
    }

  private:
    static constexpr uint8_t kStartCodePrefix[] = {0, 0, 1};
    static constexpr uint8_t kSequenceStart[] = {0, 0, 1, kVisualObjectSequence};

    static bool begins_with(std::span<const uint8_t> payload, std::span<const uint8_t> code) {
        return payload.size() >= code.size() &&
               std::equal(code.begin(), code.end(), payload.begin());
    }

    bool has_au_headers_ = false;
    std::vector<uint8_t> config_;
    bool begun_ = false;
};

// RFC 6184: single NAL units, aggregates (STAP-A) and fragments (FU-A).
class H264 final : public Depacketiser {
  public:
    using Depacketiser::Depacketiser;

    bool packet(std::span<const uint8_t> payload) override {
        if (payload.empty()) return false;
        const uint8_t type = nal_type(payload);
        if (type == kFuA) return fragment(payload);
        in_fragments_ = false;
        if (type == kStapA) return aggregate(payload.subspan(1));
        if (type > kStapA) return false;  // of interleaved mode, or reserved
        unit(payload);
        return true;
    }

    void finish() override { in_fragments_ = false; }

  private:
    void unit(std::span<const uint8_t> nal) const {
        begin_unit();
        emit(nal);
    }

    bool aggregate(std::span<const uint8_t> units) const {
        ByteReader reader(units);
        while (reader.remaining() > 2) {
            const auto nal = reader.take(reader.u16());
            if (reader.ok()) unit(nal);
        }
        return reader.ok() && reader.remaining() == 0;
    }

    // A unit without its first fragment begins with the fragment that is present.
    bool fragment(std::span<const uint8_t> payload) {
        constexpr uint8_t kStart = 0x80, kEnd = 0x40;
        if (payload.size() < 2) return false;
        if ((payload[1] & kStart) != 0 || !in_fragments_) {
            const auto header =
                static_cast<uint8_t>((payload[0] & 0xE0) | (payload[1] & kNalTypeBits));
            begin_unit();
            emit({&header, 1});
        }
        in_fragments_ = (payload[1] & kEnd) == 0;
        emit(payload.subspan(2));
        return true;
    }

    bool in_fragments_ = false;  // the next fragment goes on with the same unit
};

}  // namespace

std::span<const uint8_t> after_au_headers(std::span<const uint8_t> payload) {
    if (payload.size() < 2) return {};
    const size_t headers = 2 + (size_t{load_be16(payload.data())} + 7) / 8;
    return headers <= payload.size() ? payload.subspan(headers) : std::span<const uint8_t>();
}

bool is_spoilt_rfc2190(std::span<const uint8_t> payload) {
    return payload.size() >= 4 &&
           std::all_of(payload.begin(), payload.begin() + 4, [](auto b) { return b == 0xFF; });
}

void Depacketiser::begin_unit() const {
    if (sink_.begin_unit) {
        sink_.begin_unit();
    } else {
        sink_.bytes(kStartCode);
    }
}

std::unique_ptr<Depacketiser> make_depacketiser(Medium medium, std::span<const uint8_t> config,
                                                MediaSink sink) {
    switch (medium) {
        case Medium::kH263Rfc2190:
            return std::make_unique<Rfc2190>(std::move(sink));
        case Medium::kH263Rfc4629:
            return std::make_unique<Rfc4629>(std::move(sink));
        case Medium::kMpeg4:
            return std::make_unique<Mpeg4>(config, std::move(sink));
        case Medium::kH264:
            return std::make_unique<H264>(std::move(sink));
        default:
            return nullptr;
    }
}

}  // namespace kestrel::stream
