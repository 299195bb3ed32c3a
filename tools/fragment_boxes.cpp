// SPDX-License-Identifier: Apache-2.0
#include "tools/fragment_boxes.h"

#include <algorithm>
#include <array>
#include <span>

#include "common/box_header.h"
#include "common/byte_reader.h"

namespace tool {
namespace {

using kestrel::kBoxHeader;

constexpr size_t kFieldBytes = 48;  // of a box, that hold its fields

// Lists the fields of a box in order, from the beginning of its body.
class FieldReader {
  public:
    FieldReader(std::span<const uint8_t> body, std::vector<FragmentBox::Field>& out)
        : reader_(body), out_(out) {
        const uint32_t word = reader_.u32();
        version_ = word >> 24;
        flags_ = word & 0xFFFFFF;
        add("version", version_);
        add("flags", flags_);
    }

    bool has(uint32_t flag) const { return (flags_ & flag) != 0; }
    void word(const char* name) { add(name, reader_.u32()); }
    void signed_word(const char* name) { add(name, reader_.i32()); }
    void time(const char* name) {
        add(name, static_cast<int64_t>(reader_.u32_or_64(version_ != 0)));
    }
    void double_word(const char* name) { add(name, static_cast<int64_t>(reader_.u64())); }

  private:
    void add(const char* name, int64_t value) {
        if (reader_.ok()) out_.push_back({name, value});
    }

    kestrel::ByteReader reader_;
    std::vector<FragmentBox::Field>& out_;
    uint32_t version_ = 0;
    uint32_t flags_ = 0;
};

void read_mfhd(FieldReader& in) {
    in.word("sequence_number");
}

void read_mehd(FieldReader& in) {
    in.time("fragment_duration");
}

void read_trex(FieldReader& in) {
    in.word("track_id");
    in.word("default_sample_description_index");
    in.word("default_sample_duration");
    in.word("default_sample_size");
    in.word("default_sample_flags");
}

void read_tfhd(FieldReader& in) {
    in.word("track_id");
    if (in.has(0x01)) in.double_word("base_data_offset");
    if (in.has(0x02)) in.word("sample_description_index");
    if (in.has(0x08)) in.word("default_sample_duration");
    if (in.has(0x10)) in.word("default_sample_size");
    if (in.has(0x20)) in.word("default_sample_flags");
}

void read_tfdt(FieldReader& in) {
    in.time("base_media_decode_time");
}

void read_trun(FieldReader& in) {
    in.word("sample_count");
    if (in.has(0x1)) in.signed_word("data_offset");
    if (in.has(0x4)) in.word("first_sample_flags");
}

struct Kind {
    std::string_view type;
    void (*read)(FieldReader&);
};

constexpr std::array kKinds = {Kind{"mfhd", read_mfhd}, Kind{"mehd", read_mehd},
                               Kind{"trex", read_trex}, Kind{"tfhd", read_tfhd},
                               Kind{"tfdt", read_tfdt}, Kind{"trun", read_trun}};

// Reads the bytes at `offset`. Returns how many are available.
size_t read_bytes(KST_IOSTREAM_CALLBACK_INTERFACE* stream, uint64_t offset, std::span<uint8_t> to) {
    if (offset > UINT32_MAX) return 0;
    uint32_t got = 0;
    const uint32_t status =
        stream->IndexRead(stream->Context, to.data(), static_cast<uint32_t>(offset),
                          static_cast<uint32_t>(to.size()), &got);
    return status == 0 ? std::min<size_t>(got, to.size()) : 0;
}

void read_fields(KST_IOSTREAM_CALLBACK_INTERFACE* stream, FragmentBox& box) {
    const auto* kind = std::find_if(kKinds.begin(), kKinds.end(),
                                    [&](const Kind& one) { return one.type == box.type; });
    if (kind == kKinds.end()) return;
    std::array<uint8_t, kFieldBytes> raw{};
    const std::span body(raw.data(), std::min<size_t>(raw.size(), box.size - kBoxHeader));
    FieldReader reader(body.first(read_bytes(stream, box.offset + kBoxHeader, body)), box.fields);
    kind->read(reader);
}

}  // namespace

bool has_fragment_boxes(std::string_view type) {
    return type == "moof" || type == "mvex";
}

void visit_fragment_boxes(KST_IOSTREAM_CALLBACK_INTERFACE* stream, uint64_t offset, uint64_t size,
                          const std::function<void(const FragmentBox&)>& visit) {
    const uint64_t end = offset + size;
    for (uint64_t at = offset + kBoxHeader; at + kBoxHeader <= end;) {
        std::array<uint8_t, kBoxHeader> raw{};
        if (read_bytes(stream, at, raw) < raw.size()) break;
        const kestrel::BoxHeader header = kestrel::load_box_header(raw.data());
        if (header.size < kBoxHeader || header.size > end - at) break;
        FragmentBox box;
        box.size = header.size;
        box.offset = at;
        const auto type = kestrel::code_text(header.type);
        box.type.assign(type.data(), type.size());
        read_fields(stream, box);
        visit(box);
        at += box.size;
    }
}

}  // namespace tool
