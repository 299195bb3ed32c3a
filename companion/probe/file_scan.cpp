// SPDX-License-Identifier: Apache-2.0
#include "companion/probe/file_scan.h"

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <span>

#include "common/box_header.h"
#include "companion/importer/sample_entry.h"

namespace kestrel::probe {
namespace {

struct Header {
    uint64_t size;  // of the whole box, as declared
    uint32_t length;
    uint32_t form;  // the 32-bit size field
    uint32_t code;  // the type, as a number
    std::string type;
};

// A box whose body is a list of boxes, and the boxes that it requires. "a|b" is one of two.
struct Container {
    std::string_view type;
    std::vector<std::string_view> needs;
};

const Container* container(std::string_view type) {
    static const std::array<Container, 5> kContainers = {
        {{"moov", {"mvhd", "trak"}},
         {"trak", {"tkhd", "mdia"}},
         {"mdia", {"mdhd", "hdlr", "minf"}},
         {"minf", {"stbl"}},
         {"stbl", {"stsd", "stts", "stsc", "stsz|stz2", "stco|co64"}}}};
    const auto* found = std::find_if(kContainers.begin(), kContainers.end(),
                                     [&](const Container& one) { return one.type == type; });
    return found == kContainers.end() ? nullptr : found;
}

// Returns the type of a box, with bytes other than ASCII as \\xNN.
std::string type_text(uint32_t type) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (const char c : code_text(type)) {
        const auto byte = static_cast<uint8_t>(c);
        if (byte >= ' ' && byte <= '~') {
            out += c;
        } else {
            out += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
        }
    }
    return out;
}

bool contains(const std::vector<std::string>& all, std::string_view one) {
    return std::find(all.begin(), all.end(), one) != all.end();
}

class Scanner {
  public:
    explicit Scanner(KST_IOSTREAM_CALLBACK_INTERFACE* stream) : stream_(stream) {
        stream->GetStreamSize(stream->Context, &scan_.file_size);
    }

    FileScan run() {
        uint64_t at = 0;
        while (at < scan_.file_size && seen_ < kMaxBoxes)
            at = take_top_box(at);
        if (at < scan_.file_size) {
            report("There are more than " + std::to_string(kMaxBoxes) +
                   " boxes; the rest was not looked at.");
        }
        report_what_is_missing();
        return std::move(scan_);
    }

  private:
    static std::string place(const std::string& type, uint64_t offset) {
        return "Box '" + type + "' at byte " + std::to_string(offset);
    }

    void report(const std::string& sentence) {
        if (scan_.damage.size() < kMaxDamage) {
            scan_.damage.push_back(sentence);
        } else {
            ++scan_.more_damage;
        }
    }

    bool read(std::span<uint8_t> to, uint64_t offset) {
        if (offset + to.size() > scan_.file_size) return false;
        const auto count = static_cast<uint32_t>(to.size());
        uint32_t got = 0;
        const uint32_t status = stream_->IndexRead(stream_->Context, to.data(),
                                                   static_cast<uint32_t>(offset), count, &got);
        return status == 0 && got == count;
    }

    // Reads the header at `offset`, where `left` bytes are available.
    std::optional<Header> header_at(uint64_t offset, uint64_t left) {
        std::array<uint8_t, kLargeBoxHeader> raw{};
        if (left < kBoxHeader || !read(std::span(raw).first(kBoxHeader), offset))
            return std::nullopt;
        ++seen_;
        const BoxHeader fields = load_box_header(raw.data());
        Header header{fields.size, kBoxHeader, fields.size, fields.type, type_text(fields.type)};
        if (fields.size == kSizeIs64Bits) {
            if (left < kLargeBoxHeader ||
                !read(std::span(raw).subspan(kBoxHeader), offset + kBoxHeader))
                return std::nullopt;
            header.size = load_be64(&raw[kBoxHeader]);
            header.length = kLargeBoxHeader;
            scan_.has_large_sizes = true;
        }
        return header;
    }

    uint64_t take_top_box(uint64_t at) {
        const uint64_t left = scan_.file_size - at;
        std::optional<Header> header = header_at(at, left);
        if (header && header->form == kSizeToEnd) {
            header->size = left;
            scan_.has_open_sizes = true;
        }
        if (!header || header->size < header->length) {
            report("The " + std::to_string(left) + " bytes from byte " + std::to_string(at) +
                   " to the end are " + (header ? "no box." : "too few for a box."));
            keep({"?", at, left, false, true});
            return scan_.file_size;
        }
        const bool cut = header->size > left;
        keep({header->type, at, header->size, cut, false});
        if (cut) {
            scan_.cut_box = TopBox{header->type, at, header->size, true, false};
            report_cut(*header, at);
        }
        const uint64_t size = std::min(header->size, left);
        scan_.has_file_type = scan_.has_file_type || header->type == "ftyp";
        scan_.announces_fragments |= header->type == "sidx" || header->type == "mfra";
        if (header->type == "moof") {
            ++scan_.fragments;
            scan_.movie_bytes += size;
        } else if (header->type == "moov") {
            scan_.has_movie = true;
            scan_.movie_is_cut = scan_.movie_is_cut || cut;
            scan_.movie_bytes += size;
            walk(*container("moov"), "moov", at + header->length, at + size);
        }
        return at + size;
    }

    void keep(const TopBox& box) {
        if (scan_.boxes.size() < kMaxTopBoxes) {
            scan_.boxes.push_back(box);
        } else {
            ++scan_.more_boxes;
        }
    }

    void report_cut(const Header& header, uint64_t at) {
        const uint64_t missing = header.size - (scan_.file_size - at);
        report(place(header.type, at) + " declares " + std::to_string(header.size) +
               " bytes, but the file ends " + std::to_string(missing) + " bytes before that.");
    }

    // The nesting of containers is fixed, which limits the recursion.
    void walk(const Container& parent, const std::string& name, uint64_t from, uint64_t end) {
        std::set<std::string, std::less<>> seen;
        int tracks = 0;
        while (end - from >= kBoxHeader && seen_ < kMaxBoxes) {
            const uint64_t left = end - from;
            const std::optional<Header> header = header_at(from, left);
            if (!header) break;
            if (header->size < header->length || header->size > left) {
                report(place(header->type, from) + " in " + name + " declares " +
                       std::to_string(header->size) + " bytes where " + std::to_string(left) +
                       " are left.");
                scan_.movie_is_cut = scan_.movie_is_cut || parent.type == "moov";
                if (header->size < header->length) return;
            }
            const uint64_t size = std::min(header->size, left);
            seen.insert(header->type);
            note(parent, *header, from, from + size);
            const bool fits =
                parent.type == "moov" ? header->type == "trak" : is_needed(parent, header->type);
            const Container* child = fits ? container(header->type) : nullptr;
            if (child != nullptr) {
                std::string number;
                if (child->type == "trak") number.append(1, ' ').append(std::to_string(++tracks));
                walk(*child, name + " / " + header->type + number, from + header->length,
                     from + size);
            }
            from += size;
        }
        for (const std::string_view needed : parent.needs) {
            if (seen_ < kMaxBoxes && !has_needed(seen, needed)) {
                report("There is no '" + std::string(needed.substr(0, 4)) + "' box in " + name +
                       ".");
            }
        }
    }

    // Stores facts of the movie's and its tracks' boxes.
    void note(const Container& parent, const Header& header, uint64_t at, uint64_t end) {
        scan_.announces_fragments |= parent.type == "moov" && header.type == "mvex";
        if (parent.type == "moov" && header.type == "trak") {
            // Further tracks are read into one that is not kept.
            if (scan_.tracks.size() < kMaxScannedTracks) {
                scan_.tracks.emplace_back();
                track_ = &scan_.tracks.back();
                track_->offset = at;
            } else {
                spare_ = {};
                track_ = &spare_;
            }
        }
        if (track_ == nullptr) return;
        const uint64_t body = at + header.length;
        if (header.type == "tkhd" || header.type == "mdhd") {
            note_header(header, body, end);
        } else if (parent.type == "stbl") {
            if (track_->tables.size() < kMaxKept) track_->tables.push_back(header.type);
            if (header.type == "stsd") note_entries(body, end);
        }
    }

    void note_header(const Header& header, uint64_t body, uint64_t end) {
        constexpr uint32_t kIdAfter32 = 12, kIdAfter64 = 20;  // bytes of version, flags and times
        std::array<uint8_t, 4> raw{};
        if (end - body < raw.size() || !read(raw, body)) return;
        const bool large = raw[0] == 1;
        if (large) track_->version1.push_back(header.type);
        const uint64_t id_at = body + (large ? kIdAfter64 : kIdAfter32);
        if (header.type == "tkhd" && id_at + raw.size() <= end && read(raw, id_at))
            track_->id = load_be32(raw.data());
    }

    void note_entries(uint64_t body, uint64_t end) {
        constexpr uint32_t kVersionAndCount = 8;
        uint64_t at = body + kVersionAndCount;
        while (at + kBoxHeader <= end && track_->entries.size() < kMaxKept && seen_ < kMaxBoxes) {
            const std::optional<Header> entry = header_at(at, end - at);
            if (!entry || entry->size < entry->length) return;
            track_->entries.push_back(entry->type);
            track_->is_rewritten |= kestrel::importer::is_rewritten_type(entry->code);
            track_->is_encrypted =
                track_->is_encrypted || kestrel::importer::is_protected_type(entry->code) ||
                has_protection(at + entry->length, std::min(end, at + entry->size));
            at += entry->size;
        }
    }

    // Whether a sample entry holds a `sinf` among its boxes, which begin where those of sound or of
    // pictures do.
    bool has_protection(uint64_t body, uint64_t end) {
        // Sound of QuickTime versions 0, 1 and 2, and pictures.
        constexpr std::array<uint64_t, 4> kBoxes = {28, 44, 64, 78};
        return std::any_of(kBoxes.begin(), kBoxes.end(),
                           [&](uint64_t boxes) { return has_box("sinf", body + boxes, end); });
    }

    // Whether there are boxes up to `end`, of which one has the type.
    bool has_box(std::string_view type, uint64_t at, uint64_t end) {
        bool found = false;
        std::array<uint8_t, kBoxHeader> raw{};
        while (at < end && end - at >= kBoxHeader && seen_ < kMaxBoxes && read(raw, at)) {
            ++seen_;
            const uint32_t size = kestrel::load_be32(raw.data());
            if (size < kBoxHeader || size > end - at) return false;
            found = found || std::equal(type.begin(), type.end(), &raw[4]);
            at += size;
        }
        return found;
    }

    static bool has_needed(const std::set<std::string, std::less<>>& seen,
                           std::string_view needed) {
        constexpr size_t kType = 4;
        for (size_t at = 0; at < needed.size(); at += kType + 1) {
            if (seen.contains(needed.substr(at, kType))) return true;
        }
        return false;
    }

    static bool is_needed(const Container& parent, std::string_view type) {
        return std::find(parent.needs.begin(), parent.needs.end(), type) != parent.needs.end();
    }

    void report_what_is_missing() {
        if (scan_.file_size == 0) return report("The file is empty.");
        if (!scan_.is_3gp())
            return report("There is no file type box and no movie box: this is no 3GP file.");
        if (!scan_.has_movie) {
            report("There is no movie box ('moov'): without it nothing of the media can be found.");
        }
    }

    static constexpr size_t kMaxKept = 32;  // types of a track

    KST_IOSTREAM_CALLBACK_INTERFACE* stream_;
    FileScan scan_;
    TrackBoxes* track_ = nullptr;
    TrackBoxes spare_;
    uint32_t seen_ = 0;
};

}  // namespace

bool TrackBoxes::has_table(std::string_view type) const {
    return contains(tables, type);
}

bool TrackBoxes::has_second_table(std::string_view type) const {
    return std::count(tables.begin(), tables.end(), type) > 1;
}

bool TrackBoxes::has_wide_times() const {
    return contains(version1, "mdhd");
}

const TrackBoxes* FileScan::track(uint32_t id) const {
    const auto found = std::find_if(tracks.begin(), tracks.end(),
                                    [&](const TrackBoxes& track) { return track.id == id; });
    return found == tracks.end() ? nullptr : &*found;
}

bool FileScan::may_be_3gp() const {
    constexpr std::string_view kFirst[] = {"mdat", "free", "skip", "wide", "moof",
                                           "styp", "sidx", "pdin", "uuid"};
    return is_3gp() || (!boxes.empty() && std::ranges::count(kFirst, boxes.front().type) > 0);
}

FileScan scan_file(KST_IOSTREAM_CALLBACK_INTERFACE* stream) {
    return Scanner(stream).run();
}

}  // namespace kestrel::probe
