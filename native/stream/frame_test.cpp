// SPDX-License-Identifier: Apache-2.0
#include "native/stream/frame_test.h"

#include <algorithm>

#include "native/stream/plausible.h"

namespace kestrel::stream {

void FrameTest::set_header(const StreamHeader& header) {
    medium_ = header.medium;
    configuration_ = ConfigurationTest(header);
}

void FrameTest::begin_frame() {
    configuration_.begin_picture();
    ++frames_;
    plausible_ = true;
    has_units_ = has_part_ = false;
    got_ = 0;
}

void FrameTest::take(std::span<const uint8_t> bytes) {
    const size_t count = std::min(bytes.size(), first_.size() - got_);
    std::copy_n(bytes.begin(), count, first_.begin() + static_cast<ptrdiff_t>(got_));
    got_ += count;
    if (medium_ == Medium::kMpeg4) configuration_.take(bytes);
}

bool FrameTest::end_unit() {
    if (got_ == 0) return false;
    const auto unit = std::span(first_).first(got_);
    plausible_ = plausible_ && is_nal_unit(unit);
    has_units_ = true;
    configuration_.take_unit(unit);
    has_part_ = has_part_ || is_picture_part(unit);
    got_ = 0;
    return true;
}

void FrameTest::take_speech(std::span<const uint8_t> frame) {
    plausible_ = plausible_ && is_speech_frame(frame[0], band_of(medium_));
}

void FrameTest::end_frame() {
    if (medium_ == Medium::kH264) {
        end_unit();
        plausible_ = plausible_ && has_part_ == has_units_;
    } else if (!is_speech(medium_)) {
        const auto first = std::span(first_).first(got_);
        plausible_ = medium_ == Medium::kMpeg4 ? is_mpeg4_picture(first) : is_h263_picture(first);
    }
    if (!plausible_) fail();
}

void FrameTest::fail() {
    if (implausible_++ == 0) first_implausible_ = std::max<uint64_t>(frames_, 1);
}

}  // namespace kestrel::stream
