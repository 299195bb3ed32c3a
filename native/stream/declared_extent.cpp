// SPDX-License-Identifier: Apache-2.0
#include "native/stream/declared_extent.h"

#include <algorithm>
#include <string>

#include "native/stream/plausible.h"

namespace kestrel::stream {
namespace {

constexpr uint64_t kMilliseconds = 1000;      // in a second
constexpr uint64_t kFrameDuration = 20;       // milliseconds of a speech frame
constexpr uint32_t kMaxFramesPerSample = 15;  // 3GPP TS 26.244, 6.7

uint64_t divide_up(uint64_t value, uint64_t by) {
    return (value + by - 1) / by;
}

// The number of speech frames that a whole stream may have less than `declared`: of the samples,
// which have the same number of frames each, the last may have fewer.
uint32_t most_not_filled(uint32_t declared) {
    for (uint32_t in_sample = kMaxFramesPerSample; in_sample > 1; --in_sample)
        if (declared % in_sample == 0) return in_sample - 1;
    return 0;
}

std::string counted_frames(uint64_t count) {
    return std::to_string(count) + (count == 1 ? " frame" : " frames");
}

const char* name_of(Medium medium) {
    switch (medium) {
        case Medium::kNarrowBandSpeech:
            return "AMR-NB";
        case Medium::kWideBandSpeech:
            return "AMR-WB";
        case Medium::kMpeg4:
            return "MPEG-4 Visual";
        case Medium::kH264:
            return "H.264";
        default:
            return "H.263";
    }
}

std::string lacking(const std::string& declared, uint64_t has) {
    return "its header records declare " + declared + ", it has " + std::to_string(has);
}

// A sample description has a byte for each (3GPP TS 26.244, 6.8; ITU-T H.264, 7.3.2.1.1).
std::string profile_fault(const StreamHeader& header) {
    if (std::max({header.profile, header.constraints, header.level}) <= UINT8_MAX) return "";
    const std::string constraints =
        header.constraints > UINT8_MAX ? ", constraints " + std::to_string(header.constraints) : "";
    return "its header records declare profile " + std::to_string(header.profile) + constraints +
           " and level " + std::to_string(header.level) + ", which take a byte each";
}

// A duration of less than a millisecond, which is truncated to 0, has a thousand pictures a second
// or more.
std::string duration_fault(const StreamHeader& header) {
    const bool has_rate = header.bit_rate > 0 || header.pictures_per_second > 0;
    const bool is_truncated = header.pictures_per_second >= kMilliseconds;
    if (header.duration_ms > 0 || !has_rate || is_truncated) return "";
    return "its header records declare a bit rate or frame rate without a duration";
}

}  // namespace

std::string picture_size_fault(const StreamHeader& header) {
    constexpr uint32_t kMostPixels = UINT16_MAX;
    const auto fits = [](uint32_t pixels) { return pixels >= 1 && pixels <= kMostPixels; };
    if (fits(header.width) && fits(header.height)) return "";
    return "its header records declare pictures of " + std::to_string(header.width) + " x " +
           std::to_string(header.height) + " pixels";
}

void DeclaredExtent::header(const StreamHeader& header) {
    has_header_ = true;
    header_ = header;
    test_.set_header(header);
    header_.config.clear();
    // The configuration is no part of the samples, whose bytes are declared.
    MediaSink count{[this](std::span<const uint8_t> bytes) {
                        bytes_ += bytes.size();
                        test_.take(bytes);
                    },
                    [this] {
                        constexpr uint32_t kStartCode = 4;
                        bytes_ += kStartCode;
                        test_.end_unit();
                    }};
    depacketiser_ = make_depacketiser(header.medium, {}, std::move(count));
    to_.header(header);
}

void DeclaredExtent::begin_frame() {
    test_.begin_frame();
    speech_frames_ = 0;
    has_packets_ = false;
    beginning_before_ = std::exchange(beginning_, {});
    to_.begin_frame();
}

void DeclaredExtent::end_frame() {
    if (depacketiser_ != nullptr) depacketiser_->finish();
    test_.end_frame();
    empty_ += has_packets_ ? 0 : 1;
    if (beginning_ && beginning_ == beginning_before_) ++repeated_;
    to_.end_frame();
}

void DeclaredExtent::take_time(uint32_t time) {
    if (!has_time_) first_time_ = time;
    has_time_ = true;
    have_one_time_ = have_one_time_ && time == first_time_;
    last_time_ = time;
}

void DeclaredExtent::take_sequence(uint16_t sequence) {
    gaps_.add(sequence);
    if (!beginning_) beginning_.emplace(last_time_, sequence);
}

void DeclaredExtent::video_packet(const VideoPacket& packet) {
    take_time(packet.time);
    take_sequence(packet.sequence);
    has_markers_ |= packet.marker;
    ends_with_marker_ = packet.marker;
    has_packets_ = true;
    if (!depacketiser_->packet(packet.payload)) ++malformed_;
    to_.video_packet(packet);
}

void DeclaredExtent::speech_sequence(uint16_t sequence) {
    take_sequence(sequence);
    to_.speech_sequence(sequence);
}

void DeclaredExtent::speech_time(uint32_t time) {
    take_time(time);
    to_.speech_time(time);
}

void DeclaredExtent::speech_frame(std::span<const uint8_t> frame) {
    ++speech_frames_;
    has_packets_ = true;
    test_.take_speech(frame);
    to_.speech_frame(frame);
}

// Frames before the first one that is there: the function API numbers them from 0.
uint64_t DeclaredExtent::missing_first() const {
    return numbers_frames() ? gaps_.first() : 0;
}

// Frames that are missing before the end show by their sequence numbers. Of a class API stream the
// last frame has a time of its own.
bool DeclaredExtent::lacks_speech() const {
    const uint64_t numbered = missing_first() + test_.frames() + gaps_.missing();
    if (numbered >= header_.frames) return false;
    const uint64_t declared = header_.duration_ms;
    if (header_.api == Api::kClass) {
        const uint64_t rate = band_of(header_.medium).samples_per_frame * kMilliseconds;
        return last_time_ * kFrameDuration * kMilliseconds / rate +
                   speech_frames_ * kFrameDuration <
               declared;
    }
    const uint64_t most = numbered + most_not_filled(header_.frames);
    return most < header_.frames && (declared == 0 || most * kFrameDuration < declared);
}

// The pictures that are declared at least: rates are truncated, that of the class API is rounded to
// hundredths.
uint64_t DeclaredExtent::least_pictures() const {
    constexpr uint64_t kHundredths = 100, kHalf = 2;
    const uint64_t duration = header_.duration_ms;
    const uint64_t by_value = divide_up(header_.pictures_per_second * duration, kMilliseconds);
    if (header_.frame_rate == 0) return by_value;
    return std::max(by_value, divide_up((kHalf * header_.frame_rate - 1) * duration,
                                        kHalf * kHundredths * kMilliseconds));
}

// The bytes of samples that are declared at least.
uint64_t DeclaredExtent::least_bytes() const {
    constexpr uint64_t kBits = 8;
    return uint64_t{header_.bit_rate} * header_.duration_ms / (kBits * kMilliseconds);
}

// Whether there is time for another picture before the declared end: the last one that is there has
// half a mean duration more than the mean.
bool DeclaredExtent::ends_early() const {
    constexpr uint64_t kTicks = 90;  // a millisecond
    const uint64_t frames = test_.frames();
    if (frames < 2) return true;
    const uint64_t passed = last_time_ - first_time_;
    return passed + passed * 3 / (2 * (frames - 1)) <= header_.duration_ms * kTicks;
}

// A whole stream may lack either, but not bytes and frames that are there empty: packets leave
// empty NAL units of H.264 out, and hint tracks empty samples. Packets that are missing before the
// end show by their sequence numbers. Times of the class API may have another unit than the
// durations. The last packet of a picture has a marker.
bool DeclaredExtent::lacks_video() const {
    const bool lacks_bytes = bytes_ < least_bytes();
    if (header_.api == Api::kClass) return lacks_bytes && gaps_.missing() == 0;
    const bool ends_inside = has_markers_ && !ends_with_marker_;
    if (lacks_bytes && (ends_inside || empty_ > 0)) return true;
    return (lacks_bytes || test_.frames() < least_pictures()) && ends_early();
}

// The samples of a track may have more frames than it declares, but they do not last longer; the
// last sample may be filled more.
bool DeclaredExtent::has_too_much_speech() const {
    constexpr uint64_t kMostInSample = kMaxFramesPerSample * kFrameDuration;
    const uint64_t frames = test_.frames();
    return header_.api == Api::kFunction && header_.duration_ms > 0 && frames > header_.frames &&
           frames * kFrameDuration > header_.duration_ms + kMostInSample;
}

std::string DeclaredExtent::extent_fault() const {
    const uint64_t frames = test_.frames();
    // A stream that begins later was made after a seek.
    const bool from_the_start = header_.api == Api::kFunction || first_time_ == 0;
    if (!has_header_ || !from_the_start) return "";
    if (is_speech()) {
        const bool differs = lacks_speech() || has_too_much_speech();
        return differs ? lacking(counted_frames(header_.frames), frames) : "";
    }
    if (!lacks_video()) return "";
    if (frames < least_pictures())
        return lacking("at least " + counted_frames(least_pictures()), frames);
    return lacking("at least " + std::to_string(least_bytes()) + " bytes of pictures", bytes_);
}

// What a file of a video stream with pictures could not declare.
std::string DeclaredExtent::config_fault() const {
    if (is_speech() || test_.frames() == 0) return "";
    const ConfigurationFault fault = test_.configuration_fault();
    if (fault != ConfigurationFault::kNone) return text_of(fault);
    if (std::string text = profile_fault(header_); !text.empty()) return text;
    if (std::string text = duration_fault(header_); !text.empty()) return text;
    return picture_size_fault(header_);
}

std::string DeclaredExtent::fault() const {
    std::string all = extent_fault();
    const auto add = [&](const std::string& text) { all += (all.empty() ? "" : "; ") + text; };
    if (const std::string text = config_fault(); !text.empty()) add(text);
    if (const uint64_t first = missing_first(); first > 0) {
        const bool is_one = first == 1;
        add("its first " + (is_one ? "frame" : counted_frames(first)) +
            (is_one ? " is missing" : " are missing"));
    }
    if (test_.implausible() > 0) {
        add(std::to_string(test_.implausible()) + " of " + counted_frames(test_.frames()) +
            " cannot be " + name_of(header_.medium) + ", the first is number " +
            std::to_string(test_.first_implausible()));
    }
    if (repeated_ > 0)
        add(counted_frames(repeated_) + (repeated_ == 1 ? " is" : " are") + " repeated");
    return all;
}

// A function API stream without its last frames has them as not filled. Of a class API stream the
// declared duration may not show that the last frame is missing.
std::string DeclaredExtent::doubt() const {
    const uint64_t frames = test_.frames();
    if (empty_ > 0) return empty_text(empty_, frames, "frame", is_speech());
    if (!is_speech() && have_one_time_ && frames > 1)
        return "all pictures have the time " + std::to_string(first_time_);
    if (!is_speech() || gaps_.missing() > 0 || frames >= header_.frames) return "";
    const bool is_class = header_.api == Api::kClass;
    const bool agrees = header_.duration_ms > 0 && header_.duration_ms <= frames * kFrameDuration;
    if (is_class ? first_time_ != 0 : agrees) return "";
    return lacking(counted_frames(header_.frames), frames) + ": it is cut, or " +
           (is_class ? "hint samples of its track have no frame"
                     : "the last sample of its track is not full");
}

}  // namespace kestrel::stream
