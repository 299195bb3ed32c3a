// SPDX-License-Identifier: Apache-2.0
#include "tests/support/hint_file.h"

void HintFile::add_hint(const Bytes& hint_sample) {
    hint_samples = join({hint_samples, hint_sample});
    hint_sizes.push_back(static_cast<uint32_t>(hint_sample.size()));
}

Bytes HintFile::build() const {
    return assemble(static_cast<uint32_t>(assemble(0).size() - media.size() - hint_samples.size()));
}

Bytes HintFile::assemble(uint32_t at) const {
    TrackSpec about = media_track;
    about.tables = one_chunk_tables(media_sizes, delta, at);
    return join(
        {ftyp(),
         movie({track(about), hint_track(at + static_cast<uint32_t>(media.size())), more_tracks}),
         box("mdat", {media, hint_samples})});
}

Bytes HintFile::hint_track(uint32_t at) const {
    const Bytes tables = hint_tables ? hint_tables(at) : one_chunk_tables(hint_sizes, delta, at);
    return track({.id = 2,
                  .handler = "hint",
                  .entry = rtp_entry(max_packet, 8000, more_entry),
                  .tables = join({tables, more_hint_tables}),
                  .extra = box("tref", {box("hint", {be32(media_track.id)})})});
}

Bytes hint_sample(uint16_t packets, std::initializer_list<Bytes> parts) {
    return join({be16(packets), be16(0), join(parts)});
}

Bytes packet_entry(uint8_t marker_type, uint16_t sequence, uint16_t constructors, uint8_t flags) {
    return join({be32(0), {0x30, marker_type}, be16(sequence), {0, flags}, be16(constructors)});
}

Bytes immediate(const std::string& payload, uint8_t count) {
    Bytes out = join({{1, count}, text(payload)});
    out.resize(16);
    return out;
}

Bytes immediate(const Bytes& payload) {
    return immediate(std::string(payload.begin(), payload.end()),
                     static_cast<uint8_t>(payload.size()));
}

Bytes from_sample(uint8_t type, uint8_t reference, uint16_t length, uint32_t number,
                  uint32_t offset) {
    return join({{type, reference}, be16(length), words({number, offset, 0})});
}
