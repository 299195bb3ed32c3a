#include "tools/file_scan.h"

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <string_view>

#include "common/bytes.h"
#include "tools/support.h"

namespace tool {
namespace {

constexpr uint32_t kHeader = 8;

struct Header {
    uint32_t size;
    std::string type;
};

// A box whose body is a list of boxes, and which of them a file cannot do without.
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
         {"stbl", {"stsd", "stts", "stsc", "stsz", "stco"}}}};
    const auto* found = std::find_if(kContainers.begin(), kContainers.end(),
                                     [&](const Container& one) { return one.type == type; });
    return found == kContainers.end() ? nullptr : found;
}

class Scanner {
  public:
    explicit Scanner(KST_IOSTREAM_CALLBACK_INTERFACE* stream) : stream_(stream) {
        stream->GetStreamSize(stream->Context, &scan_.file_size);
    }

    FileScan run() {
        uint64_t at = 0;
        while (at < scan_.file_size && scan_.boxes.size() < kMostTopBoxes)
            at = take_top_box(at);
        if (at < scan_.file_size) {
            tell("There are more than " + std::to_string(kMostTopBoxes) +
                 " boxes at the top level; the rest was not looked at.");
        }
        tell_what_is_missing();
        return std::move(scan_);
    }

  private:
    static std::string place(const std::string& type, uint64_t offset) {
        return "Box '" + type + "' at byte " + std::to_string(offset);
    }

    void tell(const std::string& sentence) {
        if (scan_.damage.size() < kMostDamage) {
            scan_.damage.push_back(sentence);
        } else {
            ++scan_.more_damage;
        }
    }

    std::optional<Header> header_at(uint64_t offset) {
        std::array<uint8_t, kHeader> raw{};
        uint32_t got = 0;
        const uint32_t status = stream_->IndexRead(stream_->Context, raw.data(),
                                                   static_cast<uint32_t>(offset), kHeader, &got);
        if (status != 0 || got != kHeader) return std::nullopt;
        ++seen_;
        const auto* type = reinterpret_cast<const char*>(&raw[4]);
        return Header{kestrel::load_be32(raw.data()), printable({type, 4})};
    }

    uint64_t take_top_box(uint64_t at) {
        const uint64_t left = scan_.file_size - at;
        const std::optional<Header> header = left < kHeader ? std::nullopt : header_at(at);
        if (!header || header->size < kHeader) {
            const std::string rest =
                std::to_string(left) + " bytes from byte " + std::to_string(at) + " to the end";
            if (!header) {
                tell("The " + rest + " are too few for a box.");
            } else if (header->size <= 1) {
                tell(place(header->type, at) + " tells its size in a form that is not read (" +
                     std::to_string(header->size) + "); the " + rest + " are lost.");
            } else {
                tell("The " + rest + " are no box.");
            }
            scan_.boxes.push_back({"?", at, left, false, true});
            return scan_.file_size;
        }
        const bool cut = header->size > left;
        scan_.boxes.push_back({header->type, at, header->size, cut, false});
        if (cut) tell_cut(*header, at);
        if (header->type == "moov") {
            scan_.has_movie = true;
            scan_.movie_is_cut = scan_.movie_is_cut || cut;
            walk(*container("moov"), "moov", at + kHeader,
                 std::min<uint64_t>(at + header->size, scan_.file_size));
        }
        return at + std::min<uint64_t>(header->size, left);
    }

    void tell_cut(const Header& header, uint64_t at) {
        const uint64_t missing = at + header.size - scan_.file_size;
        tell(place(header.type, at) + " tells " + std::to_string(header.size) +
             " bytes, but the file ends " + std::to_string(missing) + " bytes before that.");
    }

    // The containers nest in one way only, so this goes no deeper than they do.
    void walk(const Container& parent, const std::string& name, uint64_t from, uint64_t end) {
        std::set<std::string, std::less<>> seen;
        int tracks = 0;
        while (end - from >= kHeader && seen_ < kMostBoxes) {
            const std::optional<Header> header = header_at(from);
            if (!header) break;
            const uint64_t left = end - from;
            if (header->size < kHeader || header->size > left) {
                tell(place(header->type, from) + " in " + name + " tells " +
                     std::to_string(header->size) + " bytes where " + std::to_string(left) +
                     " are left.");
                if (header->size < kHeader) return;
            }
            const uint64_t size = std::min<uint64_t>(header->size, left);
            const bool fits =
                parent.type == "moov" ? header->type == "trak" : is_needed(parent, header->type);
            seen.insert(header->type);
            const Container* child = fits ? container(header->type) : nullptr;
            if (child != nullptr) {
                std::string number;
                if (child->type == "trak") number.append(1, ' ').append(std::to_string(++tracks));
                walk(*child, name + " / " + header->type + number, from + kHeader, from + size);
            }
            from += size;
        }
        for (const std::string_view needed : parent.needs) {
            if (!seen.contains(needed) && seen_ < kMostBoxes) {
                tell("There is no '" + std::string(needed) + "' box in " + name + ".");
            }
        }
    }

    static bool is_needed(const Container& parent, std::string_view type) {
        return std::find(parent.needs.begin(), parent.needs.end(), type) != parent.needs.end();
    }

    void tell_what_is_missing() {
        if (scan_.file_size == 0) return tell("The file is empty.");
        if (!scan_.is_3gp())
            return tell("There is no file type box and no movie box: this is no 3GP file.");
        if (!scan_.has_movie) {
            tell("There is no movie box ('moov'): without it nothing of the media can be found.");
        }
    }

    KST_IOSTREAM_CALLBACK_INTERFACE* stream_;
    FileScan scan_;
    uint32_t seen_ = 0;
};

}  // namespace

bool FileScan::is_3gp() const {
    return std::any_of(boxes.begin(), boxes.end(),
                       [](const TopBox& box) { return box.type == "ftyp" || box.type == "moov"; });
}

FileScan scan_file(KST_IOSTREAM_CALLBACK_INTERFACE* stream) {
    return Scanner(stream).run();
}

}  // namespace tool
