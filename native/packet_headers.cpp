// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <cstring>

#include "kestrel/native.h"
#include "kestrel/native_records.h"
#include "native/codec/rtp_header.h"

// The headers of single packets, in both formats and from RTP.

using namespace kestrel;

namespace {

constexpr int kMarkerShift = 23;
constexpr int kTypeShift = 16;
constexpr uint32_t kLastSequence = 65535;
constexpr uint32_t kNoPrevious = 0xFFFFFFFE;

// Offsets in the `orb` header, which is big-endian.
struct OrbLayout {
    static constexpr int kReserved = 0, kSize = 2, kMagic = 4, kMarkerAndType = 5, kSequence = 6,
                         kTime = 8;
};

uint32_t rtp_word(uint32_t marker, uint32_t type, uint32_t seq) {
    return kRtpVersion2 | marker << kMarkerShift | type << kTypeShift | seq;
}

void put_tel(void* out, uint32_t payload, uint32_t time, uint32_t word) {
    const TEL_Packet_Header header{payload + tel_header_size, time, word, time, 0};
    std::memcpy(out, &header, sizeof header);
}

}  // namespace

int tel_put_header(void* out, TEL_RTP* hdr, int payload_type) {
    // Requires a type below 128 and a marker of 0 or 1; neither is masked.
    put_tel(out, hdr->size, hdr->time,
            rtp_word(hdr->marker, static_cast<uint32_t>(payload_type), hdr->seq));
    hdr->seq = hdr->seq >= kLastSequence ? 0 : hdr->seq + 1;
    return tel_header_size;
}

void tel_put_header_orb2tel(const unsigned char* orb_hdr, void* out, int payload_type) {
    const uint32_t marker = orb_hdr[OrbLayout::kMarkerAndType] >> 7;
    put_tel(out, load_be16(orb_hdr + OrbLayout::kSize), load_be32(orb_hdr + OrbLayout::kTime),
            rtp_word(marker, static_cast<uint32_t>(payload_type) & kRtpPayloadType,
                     load_be16(orb_hdr + OrbLayout::kSequence)));
}

int orb_put_header(void* out, ORB_RTP* hdr) {
    if (hdr->flags & native_verbose) print_orb_header(hdr);
    auto* raw = static_cast<uint8_t*>(out);
    store_be16(raw + OrbLayout::kReserved, 0);
    store_be16(raw + OrbLayout::kSize, static_cast<uint16_t>(hdr->size));
    raw[OrbLayout::kMagic] = native_magic;
    raw[OrbLayout::kMarkerAndType] =
        static_cast<uint8_t>(hdr->marker << 7 | (hdr->type & kRtpPayloadType));
    store_be16(raw + OrbLayout::kSequence, static_cast<uint16_t>(hdr->seq));
    store_be32(raw + OrbLayout::kTime, hdr->time);
    // A number that is out of range stays so; only the 16 bits in the stream wrap.
    hdr->seq = hdr->seq == kLastSequence ? 0 : hdr->seq + 1;
    return orb_header_size;
}

int orb_get_header(mfileio* f, ORB_RTP* hdr) {
    uint8_t raw[orb_header_size];
    if (f->read(raw, 1, sizeof raw, f->handle) < sizeof raw) return 0;
    const uint32_t last = hdr->seq == kLastSequence ? uint32_t{0xFFFFFFFF} : hdr->seq;
    hdr->reserved = load_be16(raw + OrbLayout::kReserved);
    hdr->size = load_be16(raw + OrbLayout::kSize);
    hdr->magic = raw[OrbLayout::kMagic];
    hdr->marker = raw[OrbLayout::kMarkerAndType] >> 7;
    hdr->type = raw[OrbLayout::kMarkerAndType] & kRtpPayloadType;
    hdr->seq = load_be16(raw + OrbLayout::kSequence);
    hdr->time = load_be32(raw + OrbLayout::kTime);
    hdr->flags &= ~orb_header_printed;

    const bool printing = (hdr->flags & (orb_check_and_print | native_verbose)) != 0;
    const bool in_sequence = hdr->seq == last + 1;
    if ((hdr->magic == native_magic && in_sequence) || last == kNoPrevious || !printing) return 1;
    if (hdr->magic != native_magic) std::fputs("Bad magic number\n", stderr);
    if (!in_sequence) {
        std::fprintf(stderr, "Packet out of sequence, last seq # = %d\n", static_cast<int>(last));
    }
    if (!(hdr->flags & native_verbose)) print_orb_header(hdr);
    return 1;
}

void print_orb_header(ORB_RTP* hdr) {
    if (hdr->flags & orb_header_printed) {
        hdr->flags &= ~orb_header_printed;
        return;
    }
    std::fprintf(stderr, "seq %5d, size %5d, time %10u, marker %1d, type %3d, magic %3d\n",
                 static_cast<int>(hdr->seq), static_cast<int>(hdr->size), hdr->time,
                 static_cast<int>(hdr->marker), static_cast<int>(hdr->type),
                 static_cast<int>(hdr->magic));
}

void rtp2orb(unsigned char* pkt, unsigned len, int payload_type, int) {
    const uint8_t marker = pkt[RtpLayout::kMarkerAndType] & kRtpMarker;
    const uint16_t sequence = load_be16(pkt + RtpLayout::kSequence);
    const uint32_t time = load_be32(pkt + RtpLayout::kTime);
    store_be16(pkt + OrbLayout::kReserved, 0);
    store_be16(pkt + OrbLayout::kSize, static_cast<uint16_t>(len - orb_header_size));
    pkt[OrbLayout::kMagic] = native_magic;
    pkt[OrbLayout::kMarkerAndType] =
        static_cast<uint8_t>((payload_type & kRtpPayloadType) | marker);
    store_be16(pkt + OrbLayout::kSequence, sequence);
    store_be32(pkt + OrbLayout::kTime, time);
}
