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
        const size_t extra_header = (payload[0] & 1) << 5 | payload[1] >> 3;
        const size_t headers = 2 + (redundancy ? 1 : 0) + extra_header;
        if (start_code) emit(std::span(kStartCode).first(2));
        if (headers <= payload.size()) emit(payload.subspan(headers));
    }
};

// RFC 2190: a header of 4, 8 or 12 bytes; a byte that two packets share is put together from both.
class Rfc2190 final : public Depacketiser {
  public:
    using Depacketiser::Depacketiser;

    void packet(std::span<const uint8_t> payload) override {
        if (payload.empty()) return;
        const bool f = (payload[0] & 0x80) != 0;
        const bool p = (payload[0] & 0x40) != 0;
        const size_t header = !f ? 4 : !p ? 8 : 12;
        if (payload.size() <= header) return;
        const unsigned start_bit = payload[0] >> 3 & 7;
        const unsigned bits_behind = payload[0] & 7;
        std::vector<uint8_t> bytes(payload.begin() + static_cast<long>(header), payload.end());
        bytes.front() &= static_cast<uint8_t>(0xFF >> start_bit);
        bytes.back() &= static_cast<uint8_t>(0xFF << bits_behind);
        // A picture may end inside a byte; the next one begins with a byte of its own.
        if (has_shared_ && start_bit == 0) emit({&shared_, 1});
        if (has_shared_ && start_bit != 0) bytes.front() |= shared_;
        has_shared_ = bits_behind != 0;
        if (has_shared_) {
            shared_ = bytes.back();
            bytes.pop_back();
        }
        emit(bytes);
    }

    void finish() override {
        if (has_shared_) emit({&shared_, 1});
    }

  private:
    bool has_shared_ = false;
    uint8_t shared_ = 0;
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
