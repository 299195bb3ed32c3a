// SPDX-License-Identifier: Apache-2.0
// Mutation of 3GP files that knows boxes (ISO/IEC 14496-12, 4.2): it changes a field inside a box,
// or removes, doubles, swaps, grows or shrinks boxes, and keeps the sizes of the boxes around them
// and mostly the chunk offsets right. Inputs that have no boxes are left to libFuzzer's own.
#include <algorithm>
#include <cstring>
#include <string_view>

#include "common/bytes.h"
#include "fuzz/support/support.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

namespace {

using namespace fuzz;

constexpr size_t kHeader = 8;
constexpr size_t kMaxBoxes = 400;

// A container, and the bytes that stand between its header and its first child.
struct Container {
    std::string_view type;
    size_t fields;
};

constexpr Container kContainers[] = {
    {"moov", 0},  {"trak", 0},  {"mdia", 0},  {"minf", 0}, {"stbl", 0},  {"edts", 0},  {"mvex", 0},
    {"moof", 0},  {"traf", 0},  {"wave", 0},  {"dinf", 0}, {"udta", 0},  {"tref", 0},  {"hnti", 0},
    {"hinf", 0},  {"meta", 4},  {"stsd", 8},  {"dref", 8}, {"samr", 28}, {"sawb", 28}, {"mp4a", 28},
    {"mp4v", 78}, {"s263", 78}, {"avc1", 78}, {"rtp ", 16}};

struct Box {
    size_t offset;
    size_t size;
    size_t fields;  // bytes after the header that are no child
    int parent;     // index in the list, -1 at the top
    std::string_view type;

    size_t end() const { return offset + size; }
    bool is(std::string_view name) const { return type == name; }
};

class File {
  public:
    File(View bytes, Numbers& numbers) : bytes_(bytes.begin(), bytes.end()), numbers_(numbers) {
        parse(0, bytes_.size(), -1);
    }

    bool has_boxes() const { return !boxes_.empty(); }
    const Bytes& bytes() const { return bytes_; }
    void mutate(size_t room);

  private:
    void parse(size_t at, size_t end, int parent);
    Box& pick();
    // The boxes with the same parent as `box`, itself among them.
    Box& pick_sibling(const Box& box);
    uint32_t value_near(uint32_t value);
    void change_field(const Box& box);
    void change_count(const Box& box);
    void change_sample_data();
    void resize_body(const Box& box);
    void swap(const Box& one, const Box& other);
    void replace(size_t at, size_t removed, const Bytes& with, int parent);
    void move_chunks(size_t from, int64_t distance);
    uint32_t load(size_t at, size_t width) const;
    void store(size_t at, size_t width, uint32_t value);

    Bytes bytes_;
    Numbers& numbers_;
    std::vector<Box> boxes_;
};

void File::parse(size_t at, size_t end, int parent) {
    while (end - at >= kHeader && boxes_.size() < kMaxBoxes) {
        const size_t size = load(at, 4);
        if (size < kHeader || size > end - at) return;
        const std::string_view type(reinterpret_cast<const char*>(&bytes_[at + 4]), 4);
        const auto* container = std::find_if(std::begin(kContainers), std::end(kContainers),
                                             [&](const Container& c) { return c.type == type; });
        const bool has_children =
            container != std::end(kContainers) && kHeader + container->fields <= size;
        const size_t fields = has_children ? container->fields : size - kHeader;
        boxes_.push_back({at, size, fields, parent, type});
        if (has_children) {
            parse(at + kHeader + fields, at + size, static_cast<int>(boxes_.size()) - 1);
        }
        at += size;
    }
}

uint32_t File::load(size_t at, size_t width) const {
    uint32_t value = 0;
    for (size_t i = 0; i < width; ++i)
        value = value << 8 | bytes_[at + i];
    return value;
}

void File::store(size_t at, size_t width, uint32_t value) {
    for (size_t i = width; i-- > 0; value >>= 8)
        bytes_[at + i] = static_cast<uint8_t>(value);
}

Box& File::pick() {
    return boxes_[numbers_.below(static_cast<uint32_t>(boxes_.size()))];
}

Box& File::pick_sibling(const Box& box) {
    std::vector<size_t> found;
    for (size_t i = 0; i < boxes_.size(); ++i) {
        if (boxes_[i].parent == box.parent) found.push_back(i);
    }
    return boxes_[found[numbers_.below(static_cast<uint32_t>(found.size()))]];
}

uint32_t File::value_near(uint32_t value) {
    const auto length = static_cast<uint32_t>(bytes_.size());
    const uint32_t values[] = {0,          1,          2,          0x7F,           0x80,
                               0xFF,       0x7FFF,     0x8000,     0xFFFF,         0x10000,
                               0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0xFFFFFFFE,     0x40000000,
                               length,     length - 1, length + 1, value + 1,      value - 1,
                               value * 2,  value / 2,  0 - value,  numbers_.next()};
    return values[numbers_.below(std::size(values))];
}

// A number somewhere in the box, in one of the widths that fields have.
void File::change_field(const Box& box) {
    if (box.fields == 0) return;
    const size_t widths[] = {1, 2, 4, 4};
    const size_t width = std::min(widths[numbers_.below(4)], box.fields);
    size_t at = numbers_.below(static_cast<uint32_t>(box.fields - width + 1));
    at -= at % width;
    at += box.offset + kHeader;
    store(at, width, value_near(load(at, width)));
}

// The number of entries of a table, which follows its version and flags. "stsz" has a size
// for all samples before it: with one, few bytes declare any number.
void File::change_count(const Box& box) {
    const bool has_size = box.is("stsz");
    const size_t place = has_size ? 8 : 4;
    if (box.fields < place + 4) return;
    const size_t at = box.offset + kHeader + place;
    store(at, 4, value_near(load(at, 4)));
    if (has_size && numbers_.below(2) == 0) store(at - 4, 4, 1u << numbers_.below(8));
}

// A byte or word of what a chunk offset leads to; in a hint track that is an RTP packet entry.
void File::change_sample_data() {
    std::vector<size_t> tables;
    for (size_t i = 0; i < boxes_.size(); ++i) {
        if (boxes_[i].is("stco") && boxes_[i].fields >= 12) tables.push_back(i);
    }
    if (tables.empty()) return;
    const Box& table = boxes_[tables[numbers_.below(static_cast<uint32_t>(tables.size()))]];
    const auto entries = static_cast<uint32_t>((table.fields - 8) / 4);
    const size_t chunk = load(table.offset + kHeader + 8 + 4 * numbers_.below(entries), 4);
    const size_t at = chunk + numbers_.below(96);
    const size_t width = size_t{1} << numbers_.below(3);
    if (at + width > bytes_.size()) return;
    store(at, width, value_near(load(at, width)));
}

// Chunks after an edit move with their bytes.
void File::move_chunks(size_t from, int64_t distance) {
    for (const Box& box : boxes_) {
        if (!box.is("stco") || box.fields < 12) continue;
        for (size_t at = box.offset + kHeader + 8; at + 4 <= box.end(); at += 4) {
            const uint32_t offset = load(at, 4);
            if (offset < from) continue;
            store(at, 4, static_cast<uint32_t>(offset + distance));
        }
    }
}

// Puts bytes in place of others inside the box `parent`, whose size and whose parents' follow. The
// list of boxes is of no use afterwards.
void File::replace(size_t at, size_t removed, const Bytes& with, int parent) {
    const auto distance = static_cast<int64_t>(with.size()) - static_cast<int64_t>(removed);
    if (distance != 0 && numbers_.below(4) != 0) move_chunks(at + removed, distance);
    for (int i = parent; i >= 0; i = boxes_[static_cast<size_t>(i)].parent) {
        const Box& box = boxes_[static_cast<size_t>(i)];
        store(box.offset, 4, static_cast<uint32_t>(static_cast<int64_t>(box.size) + distance));
    }
    const auto begin = bytes_.begin() + static_cast<std::ptrdiff_t>(at);
    const Bytes rest(begin + static_cast<std::ptrdiff_t>(removed), bytes_.end());
    bytes_.resize(at);
    bytes_.insert(bytes_.end(), with.begin(), with.end());
    bytes_.insert(bytes_.end(), rest.begin(), rest.end());
}

// Entries of a table, or any bytes, more or fewer.
void File::resize_body(const Box& box) {
    if (box.fields == 0) return;
    const auto parent = static_cast<int>(&box - boxes_.data());
    const size_t from = numbers_.below(static_cast<uint32_t>(box.fields));
    const size_t count = std::min<size_t>(box.fields - from, size_t{1} << numbers_.below(7));
    const size_t at = box.offset + kHeader + from;
    const auto begin = bytes_.begin() + static_cast<std::ptrdiff_t>(at);
    if (numbers_.below(2) == 0) {
        replace(at, count, {}, parent);
    } else {
        replace(at, 0, Bytes(begin, begin + static_cast<std::ptrdiff_t>(count)), parent);
    }
}

void File::swap(const Box& one, const Box& other) {
    const Box& first = one.offset < other.offset ? one : other;
    const Box& second = one.offset < other.offset ? other : one;
    if (first.end() > second.offset) return;
    const auto place = [&](size_t at) { return bytes_.begin() + static_cast<std::ptrdiff_t>(at); };
    Bytes swapped(place(second.offset), place(second.end()));
    swapped.insert(swapped.end(), place(first.end()), place(second.offset));
    swapped.insert(swapped.end(), place(first.offset), place(first.end()));
    std::copy(swapped.begin(), swapped.end(), place(first.offset));
}

void File::mutate(size_t room) {
    const Box& box = pick();
    const auto begin = bytes_.begin() + static_cast<std::ptrdiff_t>(box.offset);
    const Bytes copy(begin, begin + static_cast<std::ptrdiff_t>(box.size));
    switch (numbers_.below(14)) {
        case 0:
            return replace(box.offset, box.size, {}, box.parent);
        case 1: {
            if (bytes_.size() + copy.size() > room) return change_field(box);
            const Box& in_front_of = numbers_.below(2) == 0 ? pick_sibling(box) : pick();
            return replace(in_front_of.offset, 0, copy, in_front_of.parent);
        }
        case 2:
            return swap(box, pick_sibling(box));
        case 3: {
            const Box& other = pick();
            if (other.size > room - std::min(room, bytes_.size())) return change_field(box);
            const auto at = bytes_.begin() + static_cast<std::ptrdiff_t>(other.offset);
            const Bytes with(at, at + static_cast<std::ptrdiff_t>(other.size));
            return replace(box.offset, box.size, with, box.parent);
        }
        case 4:
            return store(box.offset, 4, value_near(static_cast<uint32_t>(box.size)));
        case 5:
        case 6:
            return change_count(box);
        case 7:
            return resize_body(box);
        case 8:
        case 9:
        case 10:
            return change_sample_data();
        default:
            return change_field(box);
    }
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned salt) {
    Numbers numbers(salt);
    for (int i = 0; i < 4; ++i)
        numbers.next();
    const Input input({data, size});
    if (size <= kChoiceBytes || numbers.below(8) == 0)
        return LLVMFuzzerMutate(data, size, max_size);
    if (numbers.below(8) == 0) {
        LLVMFuzzerMutate(data + input.file.size(), kChoiceBytes, kChoiceBytes);
        return size;
    }
    Bytes bytes(input.file.begin(), input.file.end());
    for (uint32_t left = 1 + numbers.below(3); left > 0; --left) {
        File file(bytes, numbers);
        if (!file.has_boxes()) return LLVMFuzzerMutate(data, size, max_size);
        file.mutate(max_size - kChoiceBytes);
        bytes = file.bytes();
    }
    if (bytes.size() + kChoiceBytes > max_size) return LLVMFuzzerMutate(data, size, max_size);
    Bytes whole = bytes;
    whole.insert(whole.end(), data + input.file.size(), data + size);
    std::copy(whole.begin(), whole.end(), data);
    return whole.size();
}
