// RTP payloads back to the media stream that they were cut from.
#ifndef KESTREL_TOOLS_DEPACKETISE_H
#define KESTREL_TOOLS_DEPACKETISE_H

#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "tools/native_walk.h"

namespace tool {

using ByteSink = std::function<void(std::span<const uint8_t>)>;

// Joins the payloads of one codec, given in order.
class Depacketiser {
  public:
    explicit Depacketiser(ByteSink sink) : sink_(std::move(sink)) {}
    Depacketiser(const Depacketiser&) = delete;
    Depacketiser& operator=(const Depacketiser&) = delete;
    virtual ~Depacketiser() = default;

    virtual void packet(std::span<const uint8_t> payload) = 0;
    virtual void finish() {}

  protected:
    void emit(std::span<const uint8_t> bytes) const { sink_(bytes); }

  private:
    ByteSink sink_;
};

// For a video medium; `config` is the decoder configuration that goes in front of MPEG-4.
std::unique_ptr<Depacketiser> make_depacketiser(Medium medium, std::span<const uint8_t> config,
                                                ByteSink sink);

}  // namespace tool

#endif
