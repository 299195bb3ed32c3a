// SPDX-License-Identifier: Apache-2.0
// RTP payloads back to the media stream that they were cut from.
#ifndef KESTREL_COMPANION_STREAM_DEPACKETISE_H
#define KESTREL_COMPANION_STREAM_DEPACKETISE_H

#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "companion/stream/native_walk.h"

namespace kestrel::stream {

// Takes the media stream. Bytes that a payload holds as they are come as a part of that payload.
struct MediaSink {
    std::function<void(std::span<const uint8_t>)> bytes;
    // Called before each NAL unit of H.264; where there is none, a start code goes to `bytes`.
    std::function<void()> begin_unit = {};
};

// Joins the payloads of one codec, given in order.
class Depacketiser {
  public:
    explicit Depacketiser(MediaSink sink) : sink_(std::move(sink)) {}
    Depacketiser(const Depacketiser&) = delete;
    Depacketiser& operator=(const Depacketiser&) = delete;
    virtual ~Depacketiser() = default;

    // Returns false for a payload that is malformed or of a kind that is not joined; it is left
    // out, or what is malformed of it.
    virtual bool packet(std::span<const uint8_t> payload) = 0;
    // Passes on what was held back for the next packet. More packets may follow.
    virtual void finish() {}

  protected:
    void emit(std::span<const uint8_t> bytes) const { sink_.bytes(bytes); }
    void begin_unit() const;

  private:
    MediaSink sink_;
};

// For a video medium; `config` is the decoder configuration that goes before MPEG-4.
std::unique_ptr<Depacketiser> make_depacketiser(Medium medium, std::span<const uint8_t> config,
                                                MediaSink sink);

}  // namespace kestrel::stream

#endif
