// SPDX-License-Identifier: Apache-2.0
#include "tools/session_description.h"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <string_view>

#include "tools/text.h"

namespace tool {
namespace {

// Of the lines that a media description may have, those of a file that hold: its addresses and
// ports are ours.
bool is_media_attribute(std::string_view line) {
    constexpr std::string_view kTypes = "iba";
    return line.size() > 2 && line[1] == '=' && kTypes.find(line[0]) != std::string_view::npos &&
           !line.starts_with("a=control");
}

// "m=video 5004 RTP/AVP 96" with another port; empty for another line.
std::string with_port(const std::string& line, uint16_t port) {
    std::istringstream words(line);
    std::string kind, number, rest;
    const bool is_media =
        line.starts_with("m=") && words >> kind >> number && std::getline(words, rest);
    return is_media ? kind + " " + std::to_string(port) + rest : "";
}

// The file's own text is used where there is one.
std::string describe_media(const HintPackets& track, uint16_t port) {
    const char* text = track.track()->sdp_text;
    std::istringstream lines(text != nullptr ? text : "");
    std::string media, attributes;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (media.empty()) media = with_port(line, port);
        if (is_media_attribute(line)) attributes += printable(line) + "\r\n";
    }
    if (!media.empty()) return printable(media) + "\r\n" + attributes;
    const bool audio = track.media() != nullptr && std::string(track.media()->handler) == "soun";
    return std::string(audio ? "m=audio " : "m=video ") + std::to_string(port) + " RTP/AVP 96\r\n";
}

// The payload type of an `m=` line, or -1.
int payload_type_of(const std::string& line) {
    std::istringstream words(line);
    std::string kind, port, profile;
    int type = -1;
    return line.starts_with("m=") && words >> kind >> port >> profile >> type ? type : -1;
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

}  // namespace

std::string describe_session(const std::string& name, const SessionAddress& address,
                             const std::vector<std::unique_ptr<HintPackets>>& tracks) {
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
    constexpr int kFirstDynamic = 96;
    std::istringstream lines(hint->sdp_text != nullptr ? hint->sdp_text : "");
    bool is_video = false, has_parameters = false;
    int type = -1;
    std::string encoding;
    for (std::string line; std::getline(lines, line);) {
        if (type < 0) type = payload_type_of(line);
        is_video = is_video || line.starts_with("m=video");
        has_parameters = has_parameters || line.starts_with("a=fmtp:");
        if (line.starts_with("a=rtpmap:" + std::to_string(type) + " "))
            encoding = encoding_of(line);
    }
    if (type < 0) return false;
    if (encoding.empty()) return type < kFirstDynamic;
    // Decoders of these need a configuration; few read MPEG-4 Visual in payloads of RFC 3640.
    if (encoding == "H264" || encoding == "MP4V-ES") return has_parameters;
    return !(is_video && encoding == "MPEG4-GENERIC");
}

}  // namespace tool
