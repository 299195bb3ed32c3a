// SPDX-License-Identifier: Apache-2.0
// Any bytes as a native stream: the walk lists records that lie in order inside it, and ends with
// the stream or at the damage, the same however the stream is cut into pieces.
#include <algorithm>
#include <string>
#include <utility>

#include "fuzz/support/support.h"
#include "native/stream/depacketise.h"
#include "native/stream/native_walk.h"

namespace {

using namespace fuzz;

namespace stream = kestrel::stream;

// Looks at all that it is given, and joins the video as `unpack` does.
class Reader final : public stream::RecordSink {
  public:
    explicit Reader(size_t stream_bytes) : stream_bytes_(stream_bytes) {}

    void record(const stream::StreamRecord& record) override {
        check(record.offset >= after_ && record.offset < stream_bytes_);
        after_ = record.offset + 1;
        look_at(record.payload);
        for (const stream::Field& field : record.fields) {
            check(!field.name.empty());
            if (const auto* bytes = std::get_if<View>(&field.value)) look_at(*bytes);
        }
    }
    void header(const stream::StreamHeader& header) override {
        check(!joiner_);
        look_at(header.config);
        joiner_ = stream::make_depacketiser(header.medium, header.config, {[this](View bytes) {
                                                look_at(bytes);
                                                joined_ += bytes.size();
                                            }});
    }
    void begin_frame() override { check(!std::exchange(in_frame_, true)); }
    void end_frame() override { check(std::exchange(in_frame_, false)); }
    void speech_frame(View frame) override {
        check(in_frame_ && !frame.empty() && frame.size() <= 62);
        look_at(frame);
    }
    void video_packet(const stream::VideoPacket& packet) override {
        look_at(packet.payload);
        check(in_frame_ && joiner_ != nullptr);
        joiner_->packet(packet.payload);
        packets_++;
    }

    void finish() {
        check(!in_frame_);
        if (joiner_) joiner_->finish();
        // A packet becomes no longer than it was but for start codes, and the configuration.
        check(joined_ <= 3 * stream_bytes_ + 5 * packets_);
    }

    // Of all that was looked at.
    uint64_t digest() const { return digest_; }

  private:
    void look_at(View bytes) {
        for (const uint8_t byte : bytes)
            digest_ = (digest_ ^ byte) * 0x100000001B3;  // FNV-1a
    }

    size_t stream_bytes_;
    uint64_t after_ = 0;
    bool in_frame_ = false;
    std::unique_ptr<stream::Depacketiser> joiner_;
    size_t joined_ = 0;
    size_t packets_ = 0;
    uint64_t digest_ = 0xCBF29CE484222325;
};

struct Outcome {
    uint64_t digest;
    uint64_t damage;
    std::string reason;
    bool operator==(const Outcome&) const = default;
};

Outcome walk_in_pieces(View bytes, size_t most, uint32_t salt) {
    Reader reader(bytes.size());
    stream::NativeWalk walk(reader);
    Numbers numbers(salt);
    try {
        for (View rest = bytes; !rest.empty();) {
            const size_t piece =
                std::min<size_t>(rest.size(), 1 + numbers.below(static_cast<uint32_t>(most)));
            walk.feed(rest.first(piece));
            rest = rest.subspan(piece);
        }
        walk.finish();
        reader.finish();
    } catch (const stream::Damage& damage) {
        check(damage.offset <= bytes.size() && !damage.reason.empty());
        return {reader.digest(), damage.offset, damage.reason};
    }
    return {reader.digest(), bytes.size(), ""};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const View bytes(data, size);
    const Outcome whole = walk_in_pieces(bytes, size + 1, 0);
    for (const size_t most : {size_t{3}, size_t{300}})
        check(walk_in_pieces(bytes, most, static_cast<uint32_t>(size)) == whole);
    return 0;
}
