// SPDX-License-Identifier: Apache-2.0
#include "interface/src/isoff/read/box_walk.h"

#include <algorithm>

// The walk over boxes: finds the handler of each box and limits it to the box's bytes.

namespace kestrel {
namespace {

// Length of a walk over the whole file: as far as offsets reach.
constexpr int64_t kOpenEnded = UINT32_MAX;

bool read_box_header(iso_file* file, BoxHeader& header) {
    if (file->in_moov_buffer && file->moov_left == 0) return false;
    uint8_t raw[kBoxHeader];
    if (!getbytes(file, raw, sizeof raw)) return false;
    header = load_box_header(raw);
    return true;
}

// Calls a handler for a box inside `moov`, limited to the bytes of the box.
int run_bounded(iso_file* file, const isobox* box, uint32_t size, bool to_end) {
    const uint32_t left = file->moov_left;
    const bool is_skipped = box == nullptr || box->handler == skip_body;
    if (!to_end && size > left) {
        remark_end_of_buffer(file, is_skipped ? "seek_buf" : "read_buf", size);
    }
    const MovieLimit limit(file, to_end ? left : std::min(size, left));
    if (box == nullptr) return 0;
    BoxReader reader(file, size);
    return box->handler(reader);
}

int run_box(iso_file* file, const isobox* table, const BoxHeader& header) {
    const isobox* box = find_box(table, header.type);
    const bool to_end = header.size == 0;
    const uint32_t size = to_end ? 0 : header.size - kBoxHeader;
    if (file->in_moov_buffer) return run_bounded(file, box, size, to_end);
    BoxReader reader(file, size);
    return box == nullptr ? skip_body(reader) : box->handler(reader);
}

int walk(iso_file* file, const isobox* table, uint32_t size) {
    const bool open_ended = size == 0;
    const int at_end_of_input = open_ended ? 0 : -1;
    int64_t left = open_ended ? kOpenEnded : size;
    while (left >= 1) {
        // Fewer bytes than a box header are padding; some writers end `udta` with a zero word.
        if (file->in_moov_buffer && left < kBoxHeader) return 0;
        BoxHeader header;
        if (!read_box_header(file, header)) return at_end_of_input;
        if (header.size != 0 && header.size < kBoxHeader) {
            if (file->in_moov_buffer) remark(file, "skipping the rest: box size %u\n", header.size);
            file->moov_left = 0;
            return -1;
        }
        left = header.size == 0 ? 0 : left - header.size;
        const bool top = file->depth == 1;
        if (top) file->file_pos += kBoxHeader;
        const int result = run_box(file, table, header);
        if (result != 0) return result == 1 ? 0 : result;
        if (top && header.size != 0) file->file_pos += header.size - kBoxHeader;
    }
    return 0;
}

}  // namespace

const isobox* find_box(const isobox* table, uint32_t type) {
    for (; table->type != nullptr; ++table) {
        if (fourcc(table->type) == type) return table;
    }
    return nullptr;
}

int parse(iso_file* file, const isobox* table, uint32_t size) {
    file->depth++;
    const int result = walk(file, table, size);
    file->depth--;
    return result;
}

int parse_rest(BoxReader& box, const isobox* table) {
    return parse(box.file(), table, box.left());
}

// Inside `moov` the walk itself moves after the box.
int skip_body(BoxReader& box) {
    return box.file()->in_moov_buffer || box.skip(box.size()) ? 0 : -1;
}

void lose_track(iso_file* file, const char* why) {
    file->own->lost_tracks++;
    remark(file, "skipping track: %s\n", why);
}

}  // namespace kestrel
