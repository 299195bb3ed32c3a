// SPDX-License-Identifier: Apache-2.0
// The output of a packetiser: packets back to back, in memory of the caller's size.
#ifndef KESTREL_NATIVE_PACKET_OUTPUT_H
#define KESTREL_NATIVE_PACKET_OUTPUT_H

#include <cstring>
#include <span>

#include "common/clock.h"
#include "kestrel/native.h"

namespace kestrel {

class PacketOutput {
  public:
    PacketOutput(void* out, int out_size)
        : out_(static_cast<uint8_t*>(out)),
          room_(out_size > 0 ? static_cast<size_t>(out_size) : 0) {}

    bool fits(size_t bytes) const { return bytes <= room_ - written_; }
    uint8_t* at() const { return out_ + written_; }
    void advance(size_t bytes) { written_ += bytes; }

    void append(std::span<const uint8_t> bytes) {
        if (bytes.empty()) return;
        std::memcpy(at(), bytes.data(), bytes.size());
        advance(bytes.size());
    }

    int written() const { return static_cast<int>(written_); }

  private:
    uint8_t* out_;
    size_t room_;
    size_t written_ = 0;
};

// All packets of a sample have the time of its beginning; the accumulator moves to its end.
template <typename State>
void begin_sample(State* state, double duration) {
    state->hdr.time = clock_to_timestamp(state->time_acc);
    state->time_acc = clock_after(state->time_acc, state->hdr.clock * duration);
}

}  // namespace kestrel

#endif
