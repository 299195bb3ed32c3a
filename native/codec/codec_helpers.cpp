// SPDX-License-Identifier: Apache-2.0
#include "common/bytes.h"
#include "kestrel/codec.h"
#include "native/codec/mpeg4_visual.h"

namespace {

constexpr uint32_t kNotFound = 0xFFFFFFFF;
constexpr unsigned kShortestHeader = 6;

enum SourceFormat : uint32_t { kSubQcif = 1, kQcif = 2, kCif = 3, kExtended = 7 };

struct PictureSize {
    uint32_t width, height;
};

constexpr PictureSize kQcifSize{176, 144};

// Sizes of the formats that are reported; {0, 0} for any other format.
PictureSize size_of(uint32_t source_format) {
    switch (source_format) {
        case kSubQcif:
            return {128, 96};
        case kQcif:
            return kQcifSize;
        case kCif:
            return {352, 288};
        default:
            return {0, 0};
    }
}

bool is_picture_start(const unsigned char* p) {
    return p[0] == 0 && p[1] == 0 && (p[2] & 0xFC) == 0x80;
}

// Reads PLUSPTYPE (5.1.4) from the header at `p`, of which `left` bytes are present. Returns its
// size, {0, 0} for none that is reported.
PictureSize take_plusptype(const unsigned char* p, unsigned left, H263VCFG* cfg) {
    constexpr uint8_t kOptionalPart = 0x80;  // UFEP 001
    cfg->plusptype = 1;
    if (p[5] & kOptionalPart) {
        cfg->source_format = p[5] >> 4 & 7;
        cfg->coding_type = left > 7 ? p[7] >> 2 & 1 : 0;
        return size_of(cfg->source_format);
    }
    // The format is that of the previous picture, but this size is reported whatever it was.
    cfg->coding_type = p[5] >> 4 & 1;
    return kQcifSize;
}

PictureSize take_header(const unsigned char* p, unsigned left, H263VCFG* cfg) {
    cfg->temporal_reference = static_cast<uint32_t>((p[2] & 3) << 6 | p[3] >> 2);
    const uint32_t source_format = p[4] >> 2 & 7;
    if (source_format == kExtended) {
        return (p[4] & 3) == 0 ? take_plusptype(p, left, cfg) : PictureSize{0, 0};
    }
    cfg->plusptype = 0;
    cfg->source_format = source_format;
    cfg->coding_type = p[4] >> 1 & 1;
    return size_of(source_format);
}

}  // namespace

uint32_t h263_get_config(const unsigned char* buf, unsigned len, H263VCFG* cfg) {
    for (unsigned p = 0; len >= kShortestHeader && p <= len - kShortestHeader; ++p) {
        if (!is_picture_start(buf + p)) continue;
        const PictureSize size = take_header(buf + p, len - p, cfg);
        if (size.width == 0) continue;
        cfg->width = size.width;
        cfg->height = size.height;
        return p;
    }
    return kNotFound;
}

int h263_get_frame_type(const void* buf, int len) {
    H263VCFG cfg{};
    const auto* bytes = static_cast<const unsigned char*>(buf);
    const unsigned length = len > 0 ? static_cast<unsigned>(len) : 0;
    if (h263_get_config(bytes, length, &cfg) == kNotFound) return -1;
    return static_cast<int>(cfg.coding_type);
}

uint32_t h264_get_nal_size(const unsigned char* p, int n) {
    switch (n) {
        case 1:
            return p[0];
        case 2:
            return kestrel::load_be16(p);
        case 3:
            return kestrel::load_be24(p);
        default:
            return kestrel::load_be32(p);
    }
}

int FindStartCode(const unsigned char* buf, int len, unsigned char code) {
    // In a VOP header the top two bits of this byte are the coding type, 00 for intra. Other start
    // codes are tested in the same way.
    constexpr unsigned char kBelow = 64;
    for (int p = 0; p + 5 <= len; ++p) {
        const bool found = buf[p] == 0 && buf[p + 1] == 0 && buf[p + 2] == 1;
        if (found && buf[p + 3] == code && buf[p + 4] < kBelow) return p;
    }
    return -1;
}

int CheckForIFrame(const unsigned char* buf, int len) {
    return FindStartCode(buf, len, kestrel::kVop) >= 0 ? 1 : 0;
}
