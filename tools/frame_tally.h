// Counting the frames of a native stream as it comes, whatever its length.
#ifndef KESTREL_TOOLS_FRAME_TALLY_H
#define KESTREL_TOOLS_FRAME_TALLY_H

#include <cstdint>
#include <span>
#include <vector>

namespace tool {

// Looks at no more than the heads of records; walk_native looks whether a stream makes sense.
class FrameTally {
  public:
    void take(std::span<const uint8_t> stream);

    uint64_t frames() const { return frames_; }
    // Of media: payloads of video packets, or speech.
    uint64_t bytes() const { return bytes_; }

  private:
    void take_head();
    void take_video_frame();
    void take_speech_frame();

    enum class At { kHeaders, kVideoFrame, kSpeechFrame };
    At at_ = At::kHeaders;
    std::vector<uint8_t> head_;  // what has come of a record's head
    uint64_t skipped_ = 0;       // bytes that come before the next head
    uint64_t frames_ = 0;
    uint64_t bytes_ = 0;
};

}  // namespace tool

#endif
