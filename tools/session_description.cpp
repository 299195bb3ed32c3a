// SPDX-License-Identifier: Apache-2.0
#include "tools/session_description.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string_view>

#include "native/codec/payload_types.h"
#include "tools/text.h"

namespace tool {
namespace {

// What a media line declares: "m=video 5004 RTP/AVP 96".
struct MediaLine {
    std::string kind, profile;
    std::vector<int> types;  // of payloads; at least one
};

// Empty for another line, also for one of another medium, transport or form.
std::optional<MediaLine> parse_media_line(const std::string& line) {
    constexpr int kMaxType = 127;
    std::istringstream words(line);
    MediaLine media;
    std::string port;
    words >> media.kind >> port >> media.profile;
    for (int type; words >> type && type >= 0 && type <= kMaxType;)
        media.types.push_back(type);
    const bool is_known = (media.kind == "m=audio" || media.kind == "m=video") &&
                          (media.profile == "RTP/AVP" || media.profile == "RTP/SAVP");
    if (!is_known || !words.eof() || media.types.empty()) return std::nullopt;
    return media;
}

// Whether a line of the file's text is passed on: those that describe the payload are. Others could
// have a receiver send to somebody else, or expect of the sender what it does not do.
bool describes_payload(std::string_view line) {
    constexpr std::string_view kLines[] = {"a=rtpmap:", "a=fmtp:", "a=framesize:", "a=cliprect:"};
    return std::any_of(std::begin(kLines), std::end(kLines),
                       [&](std::string_view known) { return line.starts_with(known); });
}

// The file's own text is used where there is one.
std::string describe_media(const HintPackets& track, uint16_t port) {
    const char* text = track.track()->sdp_text;
    std::istringstream lines(text != nullptr ? text : "");
    std::optional<MediaLine> media;
    std::string attributes;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!media) media = parse_media_line(line);
        if (describes_payload(line)) attributes += printable(line) + "\r\n";
    }
    if (!media) {
        const bool audio =
            track.media() != nullptr && std::string_view(track.media()->handler) == "soun";
        media = {audio ? "m=audio" : "m=video", "RTP/AVP", {kestrel::kFirstDynamicPayloadType}};
        attributes.clear();
    }
    std::string line = media->kind + " " + std::to_string(port) + " " + media->profile;
    for (const int type : media->types)
        line += " " + std::to_string(type);
    return line + "\r\n" + attributes;
}

// "H264" of "a=rtpmap:96 H264/90000".
std::string encoding_of(std::string_view rtpmap) {
    const size_t begin = std::min(rtpmap.find(' '), rtpmap.size());
    std::string name(rtpmap.substr(begin, rtpmap.find('/', begin) - begin));
    std::string upper;
    for (const char c : name) {
        if (c != ' ') upper += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return upper;
}

// 90000 of "a=rtpmap:96 H264/90000"; 0 for none.
uint32_t clock_of(std::string_view rtpmap) {
    const std::string_view after = rtpmap.substr(std::min(rtpmap.find('/'), rtpmap.size()));
    return static_cast<uint32_t>(
        std::strtoul(std::string(after.substr(!after.empty())).c_str(), nullptr, 10));
}

// What the file's own text says of the packets of a hint track.
struct Description {
    MediaLine media;
    std::string encoding;  // of the first type of payload; empty for none
    uint32_t clock = 0;    // of the same
    bool has_parameters = false;

    // Whether the type is mapped to an encoding, or stands for one.
    bool has_format() const {
        return !encoding.empty() || media.types[0] < kestrel::kFirstDynamicPayloadType;
    }
};

// Nothing without a media line.
std::optional<Description> read_description(const iso_track* hint) {
    std::istringstream lines(hint->sdp_text != nullptr ? hint->sdp_text : "");
    std::optional<MediaLine> media;
    Description out;
    for (std::string line; std::getline(lines, line);) {
        if (!media) media = parse_media_line(line);
        out.has_parameters = out.has_parameters || line.starts_with("a=fmtp:");
        if (media && line.starts_with("a=rtpmap:" + std::to_string(media->types[0]) + " ")) {
            out.encoding = encoding_of(line);
            out.clock = clock_of(line);
        }
    }
    if (!media) return std::nullopt;
    out.media = *media;
    return out;
}

}  // namespace

std::string describe_session(const std::string& name, const SessionAddress& address,
                             const HintTracks& tracks) {
    const std::string id = std::to_string(address.id);
    std::string text = "v=0\r\no=- " + id + " " + id + " " + address.origin +
                       "\r\ns=" + printable(name) + "\r\nc=" + address.connection + "\r\nt=0 0\r\n";
    constexpr size_t kPortsOfTrack = 2;
    for (size_t track = 0; track < tracks.size(); ++track) {
        text += describe_media(*tracks[track],
                               static_cast<uint16_t>(address.first_port + kPortsOfTrack * track));
    }
    return text;
}

bool is_described(const iso_track* hint) {
    const std::optional<Description> read = read_description(hint);
    if (!read || !read->has_format()) return false;
    if (read->encoding.empty()) return true;
    // Decoders of these need a configuration; few read MPEG-4 Visual in payloads of RFC 3640.
    if (read->encoding == "H264" || read->encoding == "MP4V-ES") return read->has_parameters;
    return !(read->media.kind == "m=video" && read->encoding == "MPEG4-GENERIC");
}

bool has_described_clock(const iso_track* hint) {
    const std::optional<Description> read = read_description(hint);
    return !read || read->clock == 0 || read->clock == hint->rtp_timescale;
}

bool says_encoding(const iso_track* hint) {
    const std::optional<Description> read = read_description(hint);
    return read && read->has_format();
}

}  // namespace tool
