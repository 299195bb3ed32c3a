// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "boxes/sample_entries.h"
#include "boxes/sample_tables.h"
#include "boxes/track_boxes.h"
#include "common/ratio.h"
#include "interface/src/driver/driver.h"
#include "native/codec/amr_format.h"
#include "native/codec/payload_types.h"
#include "propfile/src/hint_sample_parser.h"

// The parameters of the media: codec, timescale, rates, start offsets.

using namespace kestrel;
using Qvox3gp::code;

namespace {

constexpr uint32_t kDefaultH263Level = 10;
constexpr int32_t kEmptyEdit = -1;  // media time

constexpr uint32_t kMsPerSecond = 1000;

uint32_t in_ms(uint32_t duration, uint32_t timescale) {
    return scaled(duration, kMsPerSecond, timescale);
}

const Qvox3gp::EditEntry* first_empty_edit(const Qvox3gp::ElstBox& elst) {
    const auto& edits = elst.GetEditEntries();
    const auto found = std::find_if(edits.begin(), edits.end(),
                                    [](const auto& edit) { return edit.media_time == kEmptyEdit; });
    return found != edits.end() ? &*found : nullptr;
}

// Converts movie ticks to ticks of `clock`; 0 when a scale is 0.
uint32_t rescaled(uint32_t ticks, uint32_t movie_timescale, uint32_t clock) {
    return scaled(ticks, clock, movie_timescale);
}

template <class T>
T* first_entry(const Qvox3gp::StblBox& stbl, uint32_t type) {
    if (stbl.GetStsd() == nullptr) return nullptr;
    for (Qvox3gp::SampleEntry* entry : stbl.GetStsd()->GetSampleEntries()) {
        if (entry->GetType() == type) return dynamic_cast<T*>(entry);
    }
    return nullptr;
}

}  // namespace

void C3gpInterface::Parse3gpBoxes() {
    m_pTimescale = &m_uMediaTimescale;
    if (m_uMedium == kAudio) {
        ParseAudioBoxes();
    } else {
        ParseVideoBoxes();
    }
}

void C3gpInterface::ParseAudioBoxes() {
    m_uMediaTimescale = m_AVBoxes.mdhd->GetTimescale();
    if (m_uMediaTimescale == 0) {
        fail(m_uStatus, KST_CORRUPT, here(), "Error: Undefined sound timescale in source file");
    }
    m_AudioParams.uFrameCount = m_uHintSamples;
    log_line(kDebug, here(), "Audio frame count: %d", m_AudioParams.uFrameCount);
    const auto* stsd = m_AVBoxes.stbl->GetStsd();
    if (stsd == nullptr || stsd->GetSampleEntries().empty()) {
        throw SimpleException(kDriverSource, __LINE__, "Audio codec information not found");
    }
    for (Qvox3gp::SampleEntry* entry : stsd->GetSampleEntries()) {
        const auto* amr = dynamic_cast<Qvox3gp::AMRSampleEntry*>(entry);
        if (amr == nullptr || amr->GetType() != code("samr")) continue;
        const auto* specific = amr->GetAMRSpecific();
        m_AudioParams.uBitRate = GetAMRBitRate(specific != nullptr ? specific->GetModeSet() : 0u);
        m_AudioParams.uCoder = kNarrowBand.native_coder;
    }
    if (m_AudioParams.uCoder == 0) {
        throw SimpleException(kDriverSource, __LINE__, "Unsupported audio coder type found");
    }
    m_AudioParams.uClockFreq = m_uMediaTimescale;
    log_line(kDebug, here(), "Audio timescale: %d  Audio bitrate: %d", m_uMediaTimescale,
             m_AudioParams.uBitRate);
    m_uMediaDuration = in_ms(m_AVBoxes.mdhd->GetDuration(), m_uMediaTimescale);
    m_AudioParams.uDuration = m_uMediaDuration;
}

uint32_t C3gpInterface::GetAMRBitRate(uint32_t modeSet) {
    return amr_bit_rate(modeSet);
}

void C3gpInterface::ParseVideoBoxes() {
    ParseGenericVideoBoxes();
    ParseCodecSpecificBoxes();
    ParseEditBoxes();
}

void C3gpInterface::ParseGenericVideoBoxes() {
    m_uMediaTimescale = m_AVBoxes.mdhd->GetTimescale();
    if (m_uMediaTimescale == 0) {
        fail(m_uStatus, KST_CORRUPT, here(), "Undefined video timescale in source file");
    }
    log_line(kDebug, here(), "Video timescale: %d", m_uMediaTimescale);
    m_uMediaDuration = in_ms(m_AVBoxes.mdhd->GetDuration(), m_uMediaTimescale);
    log_line(kDebug, here(), "Video duration: %d MS", m_uMediaDuration);
}

unsigned int C3gpInterface::FindVideoCodec() {
    const auto* stsd = m_AVBoxes.stbl->GetStsd();
    if (stsd == nullptr) return kNoCodec;
    for (const Qvox3gp::SampleEntry* entry : stsd->GetSampleEntries()) {
        if (entry->GetType() == code("s263")) return PeekH263Track();
        if (entry->GetType() == code("mp4v")) {
            log_line(kDebug, here(), "MPEG4 Video codec found");
            return kMpeg4;
        }
    }
    return kNoCodec;
}

void C3gpInterface::ParseCodecSpecificBoxes() {
    m_uVideoCodec = kNoCodec;
    m_uVideoCodec = FindVideoCodec();
    _TAG_VIDEO_OPEN_PARAMS& params = m_VideoParams;
    params.uCodec = m_uVideoCodec;
    params.uDuration = m_uMediaDuration;
    params.uFrameCount = m_uMediaSamples;
    log_line(kDebug, here(), "Video frame count: %d", params.uFrameCount);
    // One division, so that a whole rate stays whole.
    params.fFrameRate =
        m_uMediaDuration != 0 ? params.uFrameCount * double{kMsPerSecond} / m_uMediaDuration : 0.0;
    params.uAvgBitRate = CalcAvgBitRate(m_AVBoxes.stsz, m_uMediaDuration);
    for (const _TAG_SAMPLEINFO& sample : m_SampleInfo)
        params.uLargestSample = std::max(params.uLargestSample, sample.uSize);
    log_line(kDebug, here(), "Video FPS: %f  Duration: %d  Bitrate: %d", params.fFrameRate,
             params.uDuration, params.uAvgBitRate);
    switch (m_uVideoCodec) {
        case kH263:
            return ParseH263Boxes();
        case kH263_1998:
            return ParseH263_1998Boxes();
        case kMpeg4:
            return ParseMPEG4Boxes();
        default:
            fail(m_uStatus, KST_UNKNOWN_CODER, here(), "Unknown / unsuppoorted video codec found");
    }
}

unsigned int C3gpInterface::PeekH263Track() {
    if (m_uHintSamples == 0 || m_ChunkOffsets.empty()) {
        fail(m_uStatus, KST_CORRUPT, here(), "Hint track has no samples");
    }
    GetCurrentHintSample();
    _TAG_RTPsample3gp sample{};
    _TAG_RTPpacket3gp packet{};
    const unsigned char* cursor = m_HintSample.data();
    const HintSampleParser parser(m_HintSample.data() + m_HintSample.size());
    try {
        parser.GetRTPsample3gp(&sample, &cursor);
        parser.GetRTPpacket3gp(&packet, &cursor);
    } catch (unsigned int) {
        fail(m_uStatus, KST_CORRUPT, here(), "First hint sample is malformed");
    }
    const bool rfc2190 = packet.payload_type() == kRfc2190PayloadType;
    log_line(kDebug, here(), "%s Video codec found", rfc2190 ? "H263" : "H263_1998");
    return rfc2190 ? kH263 : kH263_1998;
}

void C3gpInterface::ParseH263Boxes() {
    m_VideoParams.uProfile = 0;
    m_VideoParams.uLevel = kDefaultH263Level;
    const auto* entry = first_entry<Qvox3gp::H263SampleEntry>(*m_AVBoxes.stbl, code("s263"));
    if (entry == nullptr) return;
    m_VideoParams.uWidth = entry->GetWidth();
    m_VideoParams.uHeight = entry->GetHeight();
    if (entry->GetH263Specific() == nullptr) return;
    m_VideoParams.uProfile = entry->GetH263Specific()->GetProfile();
    m_VideoParams.uLevel = entry->GetH263Specific()->GetLevel();
}

void C3gpInterface::ParseH263_1998Boxes() {
    ParseH263Boxes();
}

void C3gpInterface::ParseMPEG4Boxes() {
    const auto* entry = first_entry<Qvox3gp::MP4VisualSampleEntry>(*m_AVBoxes.stbl, code("mp4v"));
    if (entry == nullptr) return;
    m_VideoParams.uWidth = entry->GetWidth();
    m_VideoParams.uHeight = entry->GetHeight();
    if (entry->GetESDBox() == nullptr) return;
    const auto& config = entry->GetESDBox()->GetESDInfo().decoder_specific;
    m_VideoParams.pConfig = config.data();
    m_VideoParams.uConfigLength = static_cast<uint32_t>(config.size());
}

uint32_t C3gpInterface::CalcAvgBitRate(const Qvox3gp::StszBox* stsz, uint32_t duration) const {
    constexpr uint32_t kBitsPerByte = 8;
    uint64_t bytes = uint64_t{stsz->GetSampleSize()} * stsz->GetSampleCount();
    if (stsz->GetSampleSize() == 0) {
        for (const uint32_t size : stsz->GetChunkSizes())
            bytes += size;
    }
    return scaled(bytes, kBitsPerByte * kMsPerSecond, duration);
}

void C3gpInterface::ParseEditBoxes() {
    uint32_t video = VideoStart();
    uint32_t audio = AudioStart();
    // At most one medium starts late.
    const uint32_t both = std::min(video, audio);
    m_VideoParams.uVideoStart = video - both;
    m_VideoParams.uAudioStart = audio - both;
}

uint32_t C3gpInterface::VideoStart() const {
    const auto* edit = m_AVBoxes.elst != nullptr ? first_empty_edit(*m_AVBoxes.elst) : nullptr;
    if (edit == nullptr) return 0;
    const uint32_t start = rescaled(edit->segment_duration, m_uMovieTimescale, kVideoClock);
    log_line(kDebug, here(), "VideoNTS: %d  In 3gp file: %d  timescale_mvhd: %d  ClockFreq: %d",
             start, edit->segment_duration, m_uMovieTimescale, kVideoClock);
    return start;
}

uint32_t C3gpInterface::AudioStart() {
    const auto with_edits =
        std::find_if(m_AudioTracks.begin(), m_AudioTracks.end(),
                     [](const auto& track) { return track.second->GetEdts() != nullptr; });
    if (with_edits == m_AudioTracks.end()) return 0;
    const Qvox3gp::TrakBox& trak = *with_edits->second;
    const auto require = [this](const auto* box, const char* name, long line) {
        if (box == nullptr) {
            fail(m_uStatus, KST_CORRUPT, here(line), "Could not find %s box", name);
        }
        return box;
    };
    const auto* elst = require(trak.GetEdts()->GetElst(), "elst", __LINE__);
    const auto* mdia = require(trak.GetMdia(), "mdia", __LINE__);
    const auto* mdhd = require(mdia->GetMdhd(), "mdhd", __LINE__);
    const auto* edit = first_empty_edit(*elst);
    if (edit == nullptr) return 0;
    const uint32_t clock = mdhd->GetTimescale();
    const uint32_t start = rescaled(edit->segment_duration, m_uMovieTimescale, clock);
    log_line(kDebug, here(), "AudioNTS: %d  In 3gp file: %d  timescale_mvhd: %d  ClockFreq: %d",
             start, edit->segment_duration, m_uMovieTimescale, clock);
    return start;
}
