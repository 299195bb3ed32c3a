#include "tools/depacketise.h"

#include <algorithm>

#include "common/bytes.h"

namespace tool {
namespace {

constexpr uint8_t kStartCode[] = {0, 0, 0, 1};

// RFC 4629: a header of two bytes and what it announces; P stands for the two zero bytes of a start
// code.
class Rfc4629 final : public Depacketiser {
  public:
    using Depacketiser::Depacketiser;

    void packet(std::span<const uint8_t> payload) override {
        if (payload.size() < 2) return;
        const bool start_code = (payload[0] & 0x04) != 0;
        const bool redundancy = (payload[0] & 0x02) != 0;  // one byte of VRC
        const auto extra_header = static_cast<size_t>((payload[0] & 1) << 5 | payload[1] >> 3);
        const size_t headers = 2 + (redundancy ? 1 : 0) + extra_header;
        if (start_code) emit(std::span(kStartCode).first(2));
        if (headers <= payload.size()) emit(payload.subspan(headers));
    }
};

// RFC 2190: a header of 4, 8 or 12 bytes. A byte that two packets share is put together from both,
// by the bits that their headers tell.
class Rfc2190 final : public Depacketiser {
  public:
    using Depacketiser::Depacketiser;

    void packet(std::span<const uint8_t> payload) override {
        const Header header = parse(payload);
        if (payload.size() <= header.size) return;
        std::vector<uint8_t> bytes(payload.begin() + static_cast<long>(header.size), payload.end());
        if (has_held_) join_held(header, bytes.front());
        // The last byte may be shared, which only the next packet settles.
        held_ = bytes.back();
        held_by_ = header;
        has_held_ = true;
        bytes.pop_back();
        emit(bytes);
    }

    void finish() override {
        if (has_held_) emit({&held_, 1});
    }

  private:
    struct Header {
        size_t size = 4;
        bool tells_bits = true;
        unsigned start_bit = 0;    // of the first byte
        unsigned bits_behind = 0;  // of the last byte, which are not this packet's
    };

    // Some writers spoil mode B headers with negative vectors: ones all the way to the front.
    static bool is_spoilt(std::span<const uint8_t> payload) {
        return payload.size() >= 4 &&
               std::all_of(payload.begin(), payload.begin() + 4, [](auto b) { return b == 0xFF; });
    }

    static Header parse(std::span<const uint8_t> payload) {
        if (payload.empty()) return {};
        if (is_spoilt(payload)) return {8, false, 0, 0};
        const bool f = (payload[0] & 0x80) != 0;
        const bool p = (payload[0] & 0x40) != 0;
        return {!f   ? size_t{4}
                : !p ? size_t{8}
                     : size_t{12},
                true, payload[0] >> 3 & 7u, payload[0] & 7u};
    }

    // Settles the byte held back, in front of a packet that begins with `first`.
    void join_held(const Header& next, uint8_t& first) {
        const bool shared = held_by_.tells_bits ? held_by_.bits_behind != 0 &&
                                                      (!next.tells_bits || next.start_bit != 0)
                            : next.tells_bits ? next.start_bit != 0
                                              : held_ == first;
        if (!shared) {
            emit({&held_, 1});
        } else if (held_by_.tells_bits && next.tells_bits) {
            const auto mine = static_cast<uint8_t>(0xFF << held_by_.bits_behind);
            const auto its = static_cast<uint8_t>(0xFF >> next.start_bit);
            first = static_cast<uint8_t>((held_ & mine) | (first & its));
        }
    }

    bool has_held_ = false;
    uint8_t held_ = 0;
    Header held_by_;
};

// RFC 6416: the stream itself; or RFC 3640, where the AU headers and their length in bits go in
// front of it. The first packet tells which: only in the former it begins with a start code. The
// configuration goes in front unless the stream has it.
class Mpeg4 final : public Depacketiser {
  public:
    Mpeg4(std::span<const uint8_t> config, ByteSink sink)
        : Depacketiser(std::move(sink)), config_(config.begin(), config.end()) {}

    void packet(std::span<const uint8_t> payload) override {
        if (!begun_) has_au_headers_ = !begins_with(payload, kStartCodePrefix);
        if (has_au_headers_) payload = behind_au_headers(payload);
        if (!begun_ && !begins_with(payload, kVisualObjectSequence)) emit(config_);
        begun_ = true;
        emit(payload);
    }

  private:
    static constexpr uint8_t kStartCodePrefix[] = {0, 0, 1};
    static constexpr uint8_t kVisualObjectSequence[] = {0, 0, 1, 0xB0};

    static bool begins_with(std::span<const uint8_t> payload, std::span<const uint8_t> code) {
        return payload.size() >= code.size() &&
               std::equal(code.begin(), code.end(), payload.begin());
    }

    static std::span<const uint8_t> behind_au_headers(std::span<const uint8_t> payload) {
        if (payload.size() < 2) return {};
        const size_t headers = 2 + (size_t{kestrel::load_be16(payload.data())} + 7) / 8;
        return headers <= payload.size() ? payload.subspan(headers) : std::span<const uint8_t>();
    }

    bool has_au_headers_ = false;
    std::vector<uint8_t> config_;
    bool begun_ = false;
};

// RFC 6184: single NAL units, aggregates (STAP-A) and fragments (FU-A), each behind a start code.
class H264 final : public Depacketiser {
  public:
    using Depacketiser::Depacketiser;

    void packet(std::span<const uint8_t> payload) override {
        constexpr uint8_t kStapA = 24, kFuA = 28;
        if (payload.empty()) return;
        const uint8_t type = payload[0] & 0x1F;
        if (type == kStapA) {
            aggregate(payload.subspan(1));
        } else if (type == kFuA) {
            fragment(payload);
        } else {
            unit(payload);
        }
    }

  private:
    void unit(std::span<const uint8_t> nal) const {
        emit(kStartCode);
        emit(nal);
    }

    void aggregate(std::span<const uint8_t> units) const {
        kestrel::ByteReader reader(units);
        while (reader.remaining() > 2) {
            const auto nal = reader.take(reader.be16());
            if (reader.ok()) unit(nal);
        }
    }

    void fragment(std::span<const uint8_t> payload) const {
        constexpr uint8_t kStart = 0x80;
        if (payload.size() < 2) return;
        if (payload[1] & kStart) {
            const uint8_t header = static_cast<uint8_t>((payload[0] & 0xE0) | (payload[1] & 0x1F));
            emit(kStartCode);
            emit({&header, 1});
        }
        emit(payload.subspan(2));
    }
};

}  // namespace

std::unique_ptr<Depacketiser> make_depacketiser(Medium medium, std::span<const uint8_t> config,
                                                ByteSink sink) {
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

}  // namespace tool
