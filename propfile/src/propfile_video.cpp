// SPDX-License-Identifier: Apache-2.0
#include "propfile/src/propfile_video.h"

#include <algorithm>
#include <cmath>

#include "common/clock.h"
#include "common/frame_limit.h"
#include "common/log_sources.h"
#include "kestrel/native.h"
#include "native/codec/payload_types.h"

using namespace kestrel;

namespace {

constexpr double kClockPerMs = kVideoClock / 1000.0;
// The size that the tables declare is trusted up to this limit; the buffer grows with the bytes
// received. No picture of a format in 3GP files is near the limit.
constexpr uint32_t kSmallestBuffer = 2048;
constexpr uint32_t kLargestFirstBuffer = 65536;

}  // namespace

PropFileVideo::PropFileVideo(MediaSource media, const VideoFormat& format)
    : PropFile(std::move(media), kVideoWriterSource, sizeof(TEL_Packet_Header)), m_Format(format) {}

PropFileVideo::~PropFileVideo() = default;

void PropFileVideo::FillOffsetTable() {
    m_uFrameRecord = 0;
    m_uFrameWords = m_uFrameRecord + sizeof(VID_Frame_Record);
    m_uPackets = m_uFrameWords + sizeof(VID_Frame_Words);
}

void PropFileVideo::AllocBuffers() {
    log_line(kDebug, at(kVideoWriterSource), "Allocating %d bytes for video frame", m_uFirstSize);
    AllocateFrame(m_uFirstSize, kMaxFrameBytes, "Video");
}

uint32_t PropFileVideo::GetCodecHeaderSize() const {
    return static_cast<uint32_t>(sizeof(VID_Header_CodecInfo)) + m_Format.config_record;
}

bool PropFileVideo::Open(const _TAG_VIDEO_OPEN_PARAMS* params) {
    m_uFirstSize = std::clamp(params->uLargestSample, kSmallestBuffer, kLargestFirstBuffer);
    FillOffsetTable();
    AllocBuffers();
    PROP_Header_Info prop = video_prop(m_Format, truncate_to_u32(params->fFrameRate));
    prop.padding = GetPadding(prop.header_length);
    prop.header_length += prop.padding;
    Put(prop);
    Put(VID_Header_NTSInfo{params->uVideoStart, params->uAudioStart});
    Put(VID_Header_IndxInfo{{To1616(params->fFrameRate), 0}});
    SetupCodecHeaders(*params);
    VID_FileInfo info = file_info(0.0);
    info.duration_ms = params->uDuration;
    Put(info);
    return true;
}

void PropFileVideo::Close() {
    FreeBuffers();
}

void PropFileVideo::PacketizeFrame(const unsigned char* hint, double time) {
    GuardFrame(
        hint, [&] { BuildFrame(hint, time); }, [] {});
}

void PropFileVideo::BuildFrame(const unsigned char* hint, double time) {
    const unsigned char* cursor = hint;
    StartFrame();
    _TAG_RTPsample3gp sample{};
    GetRTPsample3gp(&sample, &cursor);
    Put(VID_Frame_Record{});
    Put(kFrameWords);
    for (unsigned int i = 1; i <= sample.packetcount; ++i) {
        log_line(kVerbose, at(kVideoWriterSource), "---Packet %d---\n", i);
        ProcessPacket(&cursor, time);
    }
    const VID_Frame_Record record = frame_record(fill() - m_uPackets, sample.packetcount);
    Patch(m_uFrameRecord, &record, sizeof record);
    static constexpr uint8_t kZeros[4] = {};
    Append(kZeros, record.padding);
    log_line(kVerbose, at(kVideoWriterSource),
             "Parsed %d bytes from the hint track.  Video Framesize: %d\n",
             static_cast<int>(cursor - hint), record.total_length);
}

unsigned int PropFileVideo::ProcessPacket(const unsigned char** cursor, double time) {
    const uint32_t start = fill();
    _TAG_RTPpacket3gp packet{};
    GetRTPpacket3gp(&packet, cursor);
    Put(TEL_Packet_Header{});
    TEL_RTP header{};
    header.size = ProcessConstructors(cursor, packet.entrycount);
    header.time = truncate_to_u32(kClockPerMs * std::floor(time * 1000 + 0.5));
    header.marker = packet.marker() ? 1 : 0;
    header.seq = packet.sequence_seed;
    const uint32_t bytes = header.size;
    uint8_t raw[tel_header_size];
    tel_put_header(raw, &header, packet.payload_type());
    Patch(start, raw, sizeof raw);
    log_line(kVerbose, at(kVideoWriterSource), "Packet contains %d bytes", bytes);
    return bytes;
}

PropFileVideoH263::~PropFileVideoH263() = default;

void PropFileVideoH263::SetupCodecHeaders(const _TAG_VIDEO_OPEN_PARAMS& params) {
    Put(video_codec(format(), params.uAvgBitRate, params.uWidth, params.uHeight));
    Put(VID_Header_H263CodecConfig{params.uProfile, params.uLevel});
}

PropFileVideoH263_1998::~PropFileVideoH263_1998() = default;

PropFileVideoMPEG4::~PropFileVideoMPEG4() = default;

void PropFileVideoMPEG4::SetupCodecHeaders(const _TAG_VIDEO_OPEN_PARAMS& params) {
    Put(video_codec(format(), params.uAvgBitRate, params.uWidth, params.uHeight));
    Put(mpeg4_config({params.pConfig, params.pConfig != nullptr ? params.uConfigLength : 0}));
}
