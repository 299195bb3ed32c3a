// SPDX-License-Identifier: Apache-2.0
// The payloads of the packets of one hint sample, and what a receiver gets of its sample from them.
#ifndef KESTREL_TOOLS_JUDGE_PAYLOADS_H
#define KESTREL_TOOLS_JUDGE_PAYLOADS_H

#include <cstdint>
#include <span>
#include <vector>

#include "kestrel/isoff.h"

namespace tool {

// Whether the bytes that a packet has besides those of samples are at most a payload header, so
// that they hold no media. False for an unknown codec. `taken` is the number of its sample
// constructors.
bool are_payload_header(int32_t codec, std::span<const uint8_t> own, size_t taken);

class Payloads {
  public:
    void clear();
    // Begins the payload of the next packet.
    void begin(int payload_type) {
        begins_.push_back(bytes_.size());
        payload_type_ = payload_type;
    }
    void append(std::span<const uint8_t> bytes) {
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    }
    size_t size() const { return bytes_.size(); }  // of all

    // Whether a receiver that joins the payloads lacks media of the sample, or gets other media in
    // its place. False where it cannot be said: the codec is unknown, or the sample or a header of
    // RFC 2190 is malformed.
    bool lack_media_of(const iso_track* media, std::span<const uint8_t> sample) const;
    // Whether each payload of speech ends with its last frame.
    bool end_with_frames(bool is_wide) const;

  private:
    using Bytes = std::span<const uint8_t>;

    template <typename See>
    void for_each(See see) const;
    bool lack_picture(Bytes picture) const;
    bool lack_vops(Bytes sample) const;
    bool lack_slices(Bytes sample, int length_size) const;
    bool lack_frames(Bytes sample, bool is_wide) const;

    std::vector<uint8_t> bytes_;
    std::vector<size_t> begins_;
    int payload_type_ = 0;  // of the last packet
};

}  // namespace tool

#endif
