// SPDX-License-Identifier: Apache-2.0
// The packets of a picture: where it is cut, and the payload header of each fragment. The
// packetisers and the hint track writer write them.
#ifndef KESTREL_NATIVE_VIDEO_PACKETS_H
#define KESTREL_NATIVE_VIDEO_PACKETS_H

#include "kestrel/codec.h"
#include "native/codec/h263_payload.h"
#include "native/codec/video_fragment.h"

namespace kestrel {

enum class VideoPayload { kPlain, kRfc2190, kRfc2190Macroblocks, kRfc4629 };

struct VideoPacket {
    PayloadHeader header;
    VideoFragment fragment;
};

// The packets of one H.263 or MPEG-4 picture, in order.
class VideoPackets {
  public:
    // `max_payload` bytes hold the payload header and the fragment after it.
    VideoPackets(VideoPayload kind, std::span<const uint8_t> sample, int32_t max_payload)
        : kind_(kind), sample_(sample), max_payload_(max_payload), macroblocks_(sample) {}

    // Reads the picture header if the payload headers repeat it. Returns false when there is none.
    // `source_format` is kept between pictures.
    bool begin(uint32_t& source_format);

    bool at_end() const { return at_ >= sample_.size(); }

    // Returns the next packet; false when the payload header is longer than a packet.
    bool next(VideoPacket& packet);

  private:
    size_t header_size() const;
    PayloadHeader header_of(const VideoFragment& fragment, bool start_code) const;
    bool take_start_code();

    VideoPayload kind_;
    std::span<const uint8_t> sample_;
    int32_t max_payload_;
    H263VCFG picture_{};
    MacroblockCutter macroblocks_;
    bool mode_b_ = false;
    size_t at_ = 0;
};

}  // namespace kestrel

#endif
