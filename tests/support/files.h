// SPDX-License-Identifier: Apache-2.0
// Sample files, and small files that a test makes box by box.
#ifndef KESTREL_TESTS_FILES_H
#define KESTREL_TESTS_FILES_H

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<uint8_t>;

// A file below samples/.
Bytes read_sample(const std::string& name);

// Names of the files in samples/ that begin with one of the prefixes; all for an empty list.
std::vector<std::string> sample_names(std::initializer_list<const char*> prefixes = {});

// Names of the files in samples/wild/, as read_sample() takes them; and all of both folders.
std::vector<std::string> wild_names();
std::vector<std::string> all_names();

// The pictures of a raw H.263 stream; each begins with a picture start code.
std::vector<Bytes> h263_pictures(const Bytes& stream);

// The lines of a file below tests/golden/. With KESTREL_RENEW_GOLDEN=1 in the environment, writes
// `now` there, after the comment at the head of the file, and returns it.
std::vector<std::string> golden_lines(const std::string& name, const std::vector<std::string>& now);

// FNV-1a.
uint64_t digest(const void* bytes, size_t size, uint64_t before = 0xCBF29CE484222325);

// A record of native streams at a place; zeros past the end.
template <typename Record>
Record record_at(const Bytes& stream, size_t at) {
    Record record{};
    if (at + sizeof record <= stream.size()) std::memcpy(&record, &stream[at], sizeof record);
    return record;
}

// Little-endian and big-endian pieces of a file.
Bytes le16(uint32_t value);
Bytes le32(uint32_t value);
Bytes be16(uint32_t value);
Bytes be32(uint32_t value);
Bytes words(std::initializer_list<uint32_t> values);
Bytes text(std::string_view characters);
Bytes zeros(size_t count);
Bytes join(std::initializer_list<Bytes> parts);

// A box of the type around its parts.
Bytes box(const std::string& type, std::initializer_list<Bytes> parts);

// Where the type of the box is that so many of its type come before; the end where none is.
size_t find_box(const Bytes& file, std::string_view type, int before = 0);

// Puts bytes at a place of the body of that box, whose type is at -4.
Bytes with(Bytes file, std::string_view type, std::ptrdiff_t at, const Bytes& bytes,
           int before = 0);

// The parts of a track, as far as a test wants to bend them.
struct TrackSpec {
    uint32_t id = 1;
    std::string handler = "soun";
    uint32_t timescale = 8000;
    uint32_t duration = 8000;
    Bytes entry = {};      // sample entry with its header
    uint32_t entries = 1;  // how many of them there are
    Bytes tables = {};     // the children of `stbl` after `stsd`
    Bytes extra = {};      // further children of `trak`
};

Bytes track(const TrackSpec& about);
Bytes movie(std::initializer_list<Bytes> tracks);
Bytes ftyp();

// A `samr` entry with its `damr`, and an `rtp ` entry.
Bytes samr_entry(uint8_t frames_per_sample = 1);
Bytes rtp_entry(uint32_t max_packet, uint32_t timescale = 8000, const Bytes& more = {});

// A video entry of 176 by 144, with further boxes.
Bytes visual_entry(const char* type, const Bytes& more);

// Sample tables: one time entry, the given sizes, all samples in one chunk at `offset`.
Bytes one_chunk_tables(const std::vector<uint32_t>& sizes, uint32_t delta, uint32_t offset);

#endif
