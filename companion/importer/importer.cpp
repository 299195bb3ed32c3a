// SPDX-License-Identifier: Apache-2.0
// The file's own boxes, and import_movie().
#include <algorithm>
#include <exception>
#include <utility>

#include "companion/importer/parts.h"

namespace kestrel::importer {

namespace {

// Boxes of the file that describe the movie.
struct FileBoxes {
    std::optional<Box> brands;
    std::optional<Box> movie;
    std::vector<Box> fragments;
    std::vector<Box> indexes;        // sidx
    std::vector<Box> random_access;  // mfra
    bool has_fragments = false;
    std::string cut;  // why the boxes end before the file, or in a truncated one
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

// Joined segments may repeat the movie box; another movie would be lost.
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
            boxes.has_fragments = true;
            return true;
        case fourcc("sidx"):
            boxes.indexes.push_back(box);
            return true;
        case fourcc("mfra"):
            boxes.random_access.push_back(box);
            return true;
        default:
            return check_file_place(import, box);
    }
}

std::string cut_text(const Import& import, const Box& box) {
    return place_text(box) + " is cut: " + std::to_string(import.source.size() - box.offset) +
           " of its " + std::to_string(box.size()) + " bytes are there";
}

// Whether the rest of the file is a size of 0, which ends a list of boxes in QuickTime, and zeros.
// The first bytes of a size can be zeros too.
bool is_terminator(Source& source, std::uint64_t offset) {
    BoxReader rest(source, offset, source.size());
    bool zeros = rest.u32() == 0;
    while (zeros && rest.left() > 0 && !rest.failed())
        zeros = rest.u8() == 0;
    return zeros && !rest.failed();
}

enum class Walk { kGoOn, kAtEnd, kFailed };

Walk end_at(FileBoxes& boxes, const std::string& what) {
    boxes.cut = what;
    return Walk::kAtEnd;
}

// Handles an offset without a box header.
Walk end_of_boxes(Import& import, FileBoxes& boxes, const BoxReader& file, std::uint64_t offset) {
    const std::string place = "offset " + std::to_string(offset);
    if (file.failed()) return end_at(boxes, "there is no box at " + place);
    const std::uint64_t left = import.source.size() - offset;
    if (left == 0) return Walk::kAtEnd;
    if (is_terminator(import.source, offset)) {
        // More zeros are in place of fragments, which do not follow mfra.
        if (left <= kBoxHeader || !boxes.random_access.empty()) return Walk::kAtEnd;
        return end_at(boxes, std::to_string(left) + " zeros follow the last box");
    }
    return end_at(boxes, left < kBoxHeader ? "the box at " + place + " is cut"
                                           : "there is no box at " + place);
}

// For a truncated mdat, the samples show the loss and its bytes other fragments; after mfra there
// are no fragments.
Walk end_in_box(Import& import, FileBoxes& boxes, const Box& box) {
    const std::string cut = cut_text(import, box);
    if (box.type == fourcc("moov")) {
        import.fail(cut);
        return Walk::kFailed;
    }
    boxes.has_fragments |= box.type == fourcc("moof");
    const bool complete = box.type == fourcc("mdat") || box.type == fourcc("mfra");
    return complete && boxes.movie ? Walk::kAtEnd : end_at(boxes, cut);
}

Walk read_file_box(Import& import, BoxReader& file, FileBoxes& boxes) {
    const std::uint64_t offset = file.at();
    Box box;
    if (!file.header(box)) return end_of_boxes(import, boxes, file, offset);
    if (box.type == 0 && box.end == import.source.size()) {
        return end_of_boxes(import, boxes, file, offset);
    }
    if (box.end > import.source.size()) return end_in_box(import, boxes, box);
    file.skip(box.end - file.at());
    return keep_box(import, box, boxes) ? Walk::kGoOn : Walk::kFailed;
}

bool find_file_boxes(Import& import, FileBoxes& boxes) {
    BoxReader file(import.source, 0, import.source.size(), BoxReader::ReadAhead::kNo);
    Walk walk = Walk::kGoOn;
    while (walk == Walk::kGoOn)
        walk = read_file_box(import, file, boxes);
    if (walk == Walk::kFailed || boxes.movie) return walk == Walk::kAtEnd;
    const std::string missing = "the file has no movie box (moov)";
    return import.fail(boxes.cut.empty() ? missing
                                         : boxes.cut + ", and " + missing +
                                               " before it, without which nothing can be kept; "
                                               "get the file again");
}

bool is_without_samples(const Movie& movie) {
    return std::all_of(movie.tracks.begin(), movie.tracks.end(),
                       [](const Track& track) { return track.samples.empty(); });
}

// The sample tables of a movie box list all of its samples; no other table lists those of
// fragments.
bool check_end(Import& import, const FileBoxes& boxes) {
    const bool fragments = boxes.has_fragments || import.announces_fragments;
    if (fragments && !boxes.cut.empty() && !import.lacks_fragments(boxes.cut)) return false;
    return !import.announces_fragments || !is_without_samples(import.movie) ||
           import.lacks_fragments(
               "the file has no fragments, though its movie box announces them (mvex)");
}

// How much of a file that lacks something was kept.
std::string salvaged_text(const Import& import) {
    if (import.missing.empty()) return "";
    std::uint64_t declared = 0;
    std::uint64_t kept = 0;
    for (std::size_t i = 0; i < import.tracks.size(); ++i) {
        declared += import.tracks[i].declared;
        kept += import.movie.tracks[i].samples.size();
    }
    const std::string samples = kept == declared
                                    ? "all " + std::to_string(kept) + " samples that the file has"
                                    : std::to_string(kept) + " of the " + std::to_string(declared) +
                                          " samples that the file declares";
    return "kept " + samples + ": " + import.missing;
}

bool read_file(Import& import) {
    FileBoxes boxes;
    if (!import.source.open()) return import.fail("");
    if (!find_file_boxes(import, boxes)) return false;
    import.movie.fragmented = boxes.has_fragments;
    if (boxes.brands && !read_brands(import, *boxes.brands)) return false;
    if (!read_movie_box(import, *boxes.movie) || !read_fragments(import, boxes.fragments)) {
        return false;
    }
    const bool fragments = boxes.has_fragments || import.announces_fragments;
    if (fragments && !check_covered_fragments(import)) return false;
    if (!check_end(import, boxes)) return false;
    for (const Box& index : boxes.indexes) {
        if (!check_segment_index(import, index)) return false;
    }
    if (fragments && !check_random_access(import, boxes.random_access, boxes.fragments))
        return false;
    if (!check_declared_duration(import) || !finish_movie(import)) return false;
    // A read failed while bytes that are no box were skipped.
    return import.source.error().empty() || import.fail("");
}

}  // namespace

static Result failure(Cause cause, std::string error) {
    Result result;
    result.cause = cause;
    result.error = std::move(error);
    return result;
}

Result import_movie(KST_IOSTREAM_CALLBACK_INTERFACE& host, const Options& options, Movie& movie) {
    movie = Movie{};
    Source source(host);
    Import import(source, options, movie);
    try {
        if (read_file(import)) {
            return {true,
                    Cause::kNone,
                    {},
                    salvaged_text(import),
                    std::move(import.missing),
                    std::move(import.remark)};
        }
    } catch (const std::exception&) {  // of the standard library's containers
        return failure(Cause::kMemory, "there is not enough memory for the tables of the file");
    }
    const Cause cause = source.error().empty() ? Cause::kFile : Cause::kHost;
    return failure(cause, std::move(import.error));
}

}  // namespace kestrel::importer
