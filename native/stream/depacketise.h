// SPDX-License-Identifier: Apache-2.0
// Rebuilds a media stream from RTP payloads.
#ifndef KESTREL_NATIVE_STREAM_DEPACKETISE_H
#define KESTREL_NATIVE_STREAM_DEPACKETISE_H

#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "native/stream/native_walk.h"

namespace kestrel::stream {

// Receives the media stream. Bytes that are unchanged from a payload are passed as a part of that
// payload.
struct MediaSink {
    std::function<void(std::span<const uint8_t>)> bytes;
    // Called before each NAL unit of H.264. The default passes a start code to `bytes`.
    std::function<void()> begin_unit = {};
};

// Joins the payloads of one codec, given in order.
class Depacketiser {
  public:
    explicit Depacketiser(MediaSink sink) : sink_(std::move(sink)) {}
    Depacketiser(const Depacketiser&) = delete;
    Depacketiser& operator=(const Depacketiser&) = delete;
    virtual ~Depacketiser() = default;

    // Returns false for a payload that is malformed or of an unsupported kind. The malformed part
    // is dropped.
    virtual bool packet(std::span<const uint8_t> payload) = 0;
    // Passes on bytes that were kept for the next packet. More packets may follow.
    virtual void finish() {}

  protected:
    void emit(std::span<const uint8_t> bytes) const { sink_.bytes(bytes); }
    void begin_unit() const;

  private:
    MediaSink sink_;
};

// Returns the rest of a payload of RFC 3640 after its AU headers; nothing if these are cut.
std::span<const uint8_t> after_au_headers(std::span<const uint8_t> payload);

// Whether the header of an RFC 2190 payload is damaged. Some writers do so to mode B headers with
// negative vectors: all bits before them are ones. No receiver can decode the packet.
bool is_spoilt_rfc2190(std::span<const uint8_t> payload);

// For a video medium. `config` is the decoder configuration before MPEG-4.
std::unique_ptr<Depacketiser> make_depacketiser(Medium medium, std::span<const uint8_t> config,
                                                MediaSink sink);

}  // namespace kestrel::stream

#endif
