#include "tools/frame_tally.h"

#include <algorithm>
#include <cstring>

#include "kestrel/native_records.h"

namespace tool {

using namespace kestrel;

namespace {

template <typename Record>
Record record_at(const std::vector<uint8_t>& head) {
    Record record;
    std::memcpy(&record, head.data(), sizeof record);
    return record;
}

uint64_t less(uint64_t from, uint64_t what) {
    return from > what ? from - what : 0;
}

}  // namespace

void FrameTally::take(std::span<const uint8_t> stream) {
    while (!stream.empty()) {
        if (skipped_ > 0) {
            const auto count = static_cast<size_t>(std::min<uint64_t>(skipped_, stream.size()));
            skipped_ -= count;
            stream = stream.subspan(count);
            continue;
        }
        const size_t whole = at_ == At::kHeaders      ? sizeof(PROP_Header_Info)
                             : at_ == At::kVideoFrame ? sizeof(VID_Frame_Record)
                                                      : sizeof(AUD_AudFrame_Native);
        const size_t count = std::min(whole - head_.size(), stream.size());
        head_.insert(head_.end(), stream.begin(), stream.begin() + static_cast<ptrdiff_t>(count));
        stream = stream.subspan(count);
        if (head_.size() < whole) return;
        take_head();
        head_.clear();
    }
}

void FrameTally::take_head() {
    switch (at_) {
        case At::kHeaders: {
            const auto first = record_at<PROP_Header_Info>(head_);
            const bool audio = std::memcmp(first.medium, kAudioMedium, sizeof first.medium) == 0;
            at_ = audio ? At::kSpeechFrame : At::kVideoFrame;
            skipped_ = less(first.header_length, sizeof first);
            return;
        }
        case At::kVideoFrame:
            take_video_frame();
            return;
        case At::kSpeechFrame:
            take_speech_frame();
            return;
    }
}

void FrameTally::take_video_frame() {
    const auto frame = record_at<VID_Frame_Record>(head_);
    ++frames_;
    skipped_ = less(frame.total_length, sizeof frame);
    bytes_ += less(skipped_, sizeof(VID_Frame_Words) + uint64_t{frame.padding} +
                                 uint64_t{frame.packet_count} * sizeof(TEL_Packet_Header));
}

void FrameTally::take_speech_frame() {
    constexpr uint32_t kZeroWord = 4;
    constexpr uint32_t kModeByte = 1;  // or the request in front of a payload
    const auto frame = record_at<AUD_AudFrame_Native>(head_);
    ++frames_;
    skipped_ = less(frame.frame_length, sizeof frame);
    bytes_ += less(skipped_, kZeroWord + kModeByte);
}

}  // namespace tool
