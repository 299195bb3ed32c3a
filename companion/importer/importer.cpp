// The file's own boxes, and import_movie().
#include <algorithm>
#include <exception>
#include <iterator>
#include <utility>

#include "companion/importer/parts.h"

namespace kestrel::importer {

namespace {

// The boxes of the file that say something of the movie.
struct FileBoxes {
    std::optional<Box> brands;
    std::optional<Box> movie;
    std::vector<Box> fragments;
    std::vector<Box> indexes;  // sidx
};

bool same_bytes(Source& source, const Box& one, const Box& other) {
    if (one.size() != other.size()) return false;
    constexpr std::uint64_t kPiece = 4096;
    Bytes left(kPiece), right(kPiece);
    for (std::uint64_t at = 0; at < one.size(); at += kPiece) {
        const std::uint64_t count = std::min(kPiece, one.size() - at);
        if (!source.copy(one.offset + at, left.data(), count) ||
            !source.copy(other.offset + at, right.data(), count)) {
            return false;
        }
        if (!std::equal(left.begin(), left.begin() + static_cast<std::ptrdiff_t>(count),
                        right.begin()))
            return false;
    }
    return true;
}

// Segments that were joined may repeat the movie box; another movie would be lost.
bool keep_movie(Import& import, const Box& box, FileBoxes& boxes) {
    if (!boxes.movie) {
        boxes.movie = box;
        return true;
    }
    return same_bytes(import.source, *boxes.movie, box) ||
           import.fail(box, "is a second movie, unlike the first at offset " +
                                std::to_string(boxes.movie->offset));
}

bool keep_box(Import& import, const Box& box, FileBoxes& boxes) {
    switch (box.type) {
        case fourcc("ftyp"):
            if (!boxes.brands) boxes.brands = box;
            return true;
        case fourcc("moov"):
            return keep_movie(import, box, boxes);
        case fourcc("moof"):
            boxes.fragments.push_back(box);
            return true;
        case fourcc("sidx"):
            boxes.indexes.push_back(box);
            return true;
        default:
            return true;
    }
}

std::string cut_text(const Import& import, const Box& box) {
    return place_text(box) + " is cut: " + std::to_string(import.source.size() - box.offset) +
           " of its " + std::to_string(box.size()) + " bytes are there";
}

// Fewer bytes than a header at the end of a file: some writers fill it with zeros.
bool is_filling(Source& source, std::uint64_t offset) {
    BoxReader rest(source, offset, source.size());
    bool zeros = true;
    while (rest.left() > 0 && !rest.failed())
        zeros &= rest.u8() == 0;
    return zeros;
}

// No more boxes are found, though the file goes on. The sample tables of a movie box name all of
// its samples; of fragments nobody else knows.
bool end_early(Import& import, const FileBoxes& boxes, const std::string& what) {
    if (!boxes.movie) return import.fail(what + ", and the file has no movie box (moov) before it");
    return boxes.fragments.empty() || import.lacks(what);
}

enum class Walk { kGoOn, kAtEnd, kFailed };

Walk end_walk(bool good) {
    return good ? Walk::kAtEnd : Walk::kFailed;
}

// There is no header at the offset.
Walk end_of_boxes(Import& import, const FileBoxes& boxes, const BoxReader& file,
                  std::uint64_t offset) {
    const std::string place = "offset " + std::to_string(offset);
    if (file.failed()) return end_walk(end_early(import, boxes, "there is no box at " + place));
    if (is_filling(import.source, offset)) return Walk::kAtEnd;
    return end_walk(end_early(import, boxes, "the box at " + place + " is cut"));
}

// Boxes at the beginning of a segment, of which fragments follow.
constexpr std::uint32_t kSegmentBoxes[] = {
    fourcc("moof"), fourcc("styp"), fourcc("sidx"), fourcc("ssix"), fourcc("emsg"), fourcc("prft"),
};

// Of other boxes than these, the samples in them tell whether something is lost.
Walk end_in_box(Import& import, const FileBoxes& boxes, const Box& box) {
    const std::string cut = cut_text(import, box);
    if (box.type == fourcc("moov")) return end_walk(import.fail(cut));
    const auto* end = std::end(kSegmentBoxes);
    if (std::find(std::begin(kSegmentBoxes), end, box.type) != end) {
        return end_walk(import.lacks(cut));
    }
    return end_walk(boxes.movie || end_early(import, boxes, cut));
}

Walk read_file_box(Import& import, BoxReader& file, FileBoxes& boxes) {
    const std::uint64_t offset = file.at();
    Box box;
    if (!file.header(box)) return end_of_boxes(import, boxes, file, offset);
    if (box.type != 0) import.note(box);  // zeros may fill the end
    if (box.end > import.source.size()) return end_in_box(import, boxes, box);
    file.skip(box.end - file.at());
    return keep_box(import, box, boxes) ? Walk::kGoOn : Walk::kFailed;
}

bool find_file_boxes(Import& import, FileBoxes& boxes) {
    BoxReader file(import.source, 0, import.source.size(), BoxReader::ReadAhead::kNo);
    Walk walk = Walk::kGoOn;
    while (walk == Walk::kGoOn)
        walk = read_file_box(import, file, boxes);
    return walk == Walk::kAtEnd && (boxes.movie || import.fail("the file has no movie box (moov)"));
}

bool is_without_samples(const Movie& movie) {
    return std::all_of(movie.tracks.begin(), movie.tracks.end(),
                       [](const Track& track) { return track.samples.empty(); });
}

bool read_file(Import& import) {
    FileBoxes boxes;
    if (!import.source.open()) return import.fail("");
    if (!find_file_boxes(import, boxes)) return false;
    import.movie.forms.fragments = !boxes.fragments.empty();
    if (boxes.brands && !read_brands(import, *boxes.brands)) return false;
    if (!read_movie_box(import, *boxes.movie) || !read_fragments(import, boxes.fragments)) {
        return false;
    }
    if (is_without_samples(import.movie) && import.announces_fragments &&
        !import.lacks("the file has no fragments, though its movie box announces them (mvex)")) {
        return false;
    }
    for (const Box& index : boxes.indexes) {
        if (!check_segment_index(import, index)) return false;
    }
    if (!check_declared_duration(import) || !finish_movie(import)) return false;
    // A read that failed where bytes that are no box would have been passed over.
    return import.source.error().empty() || import.fail("");
}

}  // namespace

Result import_movie(KST_IOSTREAM_CALLBACK_INTERFACE& host, const Options& options, Movie& movie) {
    movie = Movie{};
    Source source(host);
    Import import(source, options, movie);
    try {
        if (read_file(import)) return {true, {}, std::move(import.salvaged)};
    } catch (const std::exception&) {  // of the standard library's containers
        return {false, "there is not enough memory for the tables of the file", {}};
    }
    return {false, std::move(import.error), {}};
}

}  // namespace kestrel::importer
