// SPDX-License-Identifier: Apache-2.0
#include "tests/support/files.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

void append(Bytes& to, const Bytes& more) {
    to.insert(to.end(), more.begin(), more.end());
}

}  // namespace

Bytes read_sample(const std::string& name) {
    std::ifstream in(std::string(KESTREL_SAMPLES) + "/" + name, std::ios::binary);
    if (!in) throw std::runtime_error("no sample " + name);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> sample_names(std::initializer_list<const char*> prefixes) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(KESTREL_SAMPLES)) {
        const std::string name = entry.path().filename();
        const bool wanted = prefixes.size() == 0 ||
                            std::any_of(prefixes.begin(), prefixes.end(),
                                        [&](auto prefix) { return name.starts_with(prefix); });
        if (wanted && entry.path().extension() == ".3gp") names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> wild_names() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(KESTREL_SAMPLES "/wild")) {
        if (entry.path().extension() != ".frames")
            names.push_back("wild/" + entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> all_names() {
    std::vector<std::string> names = sample_names();
    for (const std::string& name : wild_names())
        names.push_back(name);
    return names;
}

std::vector<Bytes> h263_pictures(const Bytes& stream) {
    std::vector<Bytes> pictures;
    for (size_t i = 0; i < stream.size(); ++i) {
        const bool starts = i + 3 < stream.size() && stream[i] == 0 && stream[i + 1] == 0 &&
                            (stream[i + 2] & 0xfc) == 0x80;
        if (starts) pictures.emplace_back();
        if (!pictures.empty()) pictures.back().push_back(stream[i]);
    }
    return pictures;
}

std::vector<std::string> golden_lines(const std::string& name,
                                      const std::vector<std::string>& now) {
    const std::string path = KESTREL_TEST_DATA "/golden/" + name;
    std::vector<std::string> comment, golden;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
        (line.starts_with('#') ? comment : golden).push_back(line);
    if (std::getenv("KESTREL_RENEW_GOLDEN") == nullptr) return golden;
    std::ofstream out(path);
    for (const std::string& line : comment)
        out << line << '\n';
    for (const std::string& line : now)
        out << line << '\n';
    return now;
}

uint64_t digest(const void* bytes, size_t size, uint64_t before) {
    for (const auto* at = static_cast<const uint8_t*>(bytes); size-- > 0; ++at)
        before = (before ^ *at) * 0x100000001B3;
    return before;
}

Bytes le16(uint32_t value) {
    return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
}

Bytes le32(uint32_t value) {
    return join({le16(value), le16(value >> 16)});
}

Bytes be16(uint32_t value) {
    return {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

Bytes be32(uint32_t value) {
    return join({be16(value >> 16), be16(value)});
}

Bytes words(std::initializer_list<uint32_t> values) {
    Bytes out;
    for (const uint32_t value : values)
        append(out, be32(value));
    return out;
}

Bytes text(std::string_view characters) {
    return Bytes(characters.begin(), characters.end());
}

Bytes zeros(size_t count) {
    return Bytes(count);
}

Bytes join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts)
        append(out, part);
    return out;
}

Bytes box(const std::string& type, std::initializer_list<Bytes> parts) {
    const Bytes body = join(parts);
    return join({be32(static_cast<uint32_t>(body.size() + 8)), text(type), body});
}

size_t find_box(const Bytes& file, std::string_view type, int before) {
    auto found = file.begin();
    for (int i = 0; i <= before; ++i)
        found = std::search(found + (i > 0 && found != file.end()), file.end(), type.begin(),
                            type.end());
    return static_cast<size_t>(found - file.begin());
}

Bytes with(Bytes file, std::string_view type, std::ptrdiff_t at, const Bytes& bytes, int before) {
    const size_t found = find_box(file, type, before);
    if (found == file.size()) throw std::runtime_error("no box " + std::string(type));
    std::copy(bytes.begin(), bytes.end(),
              file.begin() + static_cast<std::ptrdiff_t>(found) + 4 + at);
    return file;
}

Bytes track(const TrackSpec& about) {
    const Bytes tkhd = box("tkhd", {words({0, 0, 0, about.id, 0, about.duration, 0, 0}), be16(0),
                                    be16(0), be16(0x100), be16(0), zeros(36), words({0, 0})});
    const Bytes mdhd = box("mdhd", {words({0, 0, 0, about.timescale, about.duration, 0})});
    const Bytes hdlr = box("hdlr", {words({0, 0}), text(about.handler), zeros(13)});
    const Bytes stsd = box("stsd", {words({0, about.entries}), about.entry});
    const Bytes mdia = box("mdia", {mdhd, hdlr, box("minf", {box("stbl", {stsd, about.tables})})});
    return box("trak", {tkhd, mdia, about.extra});
}

Bytes movie(std::initializer_list<Bytes> tracks) {
    const Bytes mvhd = box("mvhd", {words({0, 0, 0, 1000, 1000}), zeros(76), be32(9)});
    return box("moov", {mvhd, join(tracks)});
}

Bytes ftyp() {
    return box("ftyp", {text("3gp5"), be32(0), text("3gp5isom")});
}

Bytes samr_entry(uint8_t frames_per_sample) {
    const Bytes damr = box("damr", {text("test"), {1}, be16(0x81FF), {0, frames_per_sample}});
    return box("samr", {zeros(8), zeros(8), be16(2), be16(16), zeros(8), damr});
}

Bytes rtp_entry(uint32_t max_packet, uint32_t timescale, const Bytes& more) {
    const Bytes tims = box("tims", {be32(timescale)});
    return box("rtp ", {zeros(8), be16(1), be16(1), be32(max_packet), tims, more});
}

Bytes visual_entry(const char* type, const Bytes& more) {
    return box(type, {zeros(24), be16(176), be16(144), zeros(8), zeros(42), more});
}

Bytes one_chunk_tables(const std::vector<uint32_t>& sizes, uint32_t delta, uint32_t offset) {
    const auto count = static_cast<uint32_t>(sizes.size());
    Bytes size_list;
    for (const uint32_t size : sizes)
        append(size_list, be32(size));
    return join(
        {box("stts", {words({0, 1, count, delta})}), box("stsc", {words({0, 1, 1, count, 1})}),
         box("stsz", {words({0, 0, count}), size_list}), box("stco", {words({0, 1, offset})})});
}
