// SPDX-License-Identifier: Apache-2.0
// Tests whether the frames of a native stream can be what their codec writes.
#ifndef KESTREL_NATIVE_STREAM_FRAME_TEST_H
#define KESTREL_NATIVE_STREAM_FRAME_TEST_H

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

#include "native/stream/configuration.h"
#include "native/stream/native_walk.h"

namespace kestrel::stream {

// Takes frames one by one, each as the bytes of its picture or as speech frames. A frame of speech
// is plausible when its frame types are of the codec, a picture as plausible.h has it; one that is
// empty always.
class FrameTest {
  public:
    void set_header(const StreamHeader& header);

    void begin_frame();
    // Takes the next bytes of the picture, or of the current NAL unit.
    void take(std::span<const uint8_t> bytes);
    // Of H.264: before each unit. Returns whether a unit with bytes ended.
    bool end_unit();
    // Takes a speech frame in storage format.
    void take_speech(std::span<const uint8_t> frame);
    void end_frame();
    // Counts the current frame as implausible; before the first one, counts it as the first.
    void fail();

    uint64_t frames() const { return frames_; }
    // Whether the header records and the frames have what a decoder needs; it is there without any.
    ConfigurationFault configuration_fault() const {
        return frames_ == 0 ? ConfigurationFault::kNone : configuration_.fault();
    }
    uint64_t implausible() const { return implausible_; }
    uint64_t first_implausible() const { return first_implausible_; }  // from 1; 0 for none

  private:
    Medium medium_ = Medium::kNarrowBandSpeech;
    std::array<uint8_t, 12> first_{};  // of the picture or of the current NAL unit
    size_t got_ = 0;
    // The current frame, so far.
    bool plausible_ = true;
    bool has_units_ = false;  // of H.264
    bool has_part_ = false;
    ConfigurationTest configuration_;
    uint64_t frames_ = 0;
    uint64_t implausible_ = 0;
    uint64_t first_implausible_ = 0;
};

}  // namespace kestrel::stream

#endif
