// SPDX-License-Identifier: Apache-2.0
#include "tools/fragment_boxes.h"

#include <algorithm>
#include <array>
#include <span>

#include "common/box_header.h"
#include "common/byte_reader.h"
#include "common/bytes.h"

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

// The body of a box, read in pieces.
class Body {
  public:
    Body(KST_IOSTREAM_CALLBACK_INTERFACE* stream, uint64_t offset, uint32_t size)
        : stream_(stream), at_(offset), end_(offset + size) {}

    void skip(uint32_t bytes) { at_ += std::min<uint64_t>(bytes, end_ - at_); }
    // Returns 0 after the end.
    uint32_t word() {
        if (next_ + kWord > filled_) fill();
        if (next_ + kWord > filled_) return 0;
        next_ += kWord;
        return kestrel::load_be32(&piece_[next_ - kWord]);
    }
    bool at_end() {
        if (next_ + kWord > filled_) fill();
        return next_ + kWord > filled_;
    }
    // What is left, up to the first zero; of a long text the beginning.
    std::string text() {
        fill();
        const auto begin = piece_.begin() + static_cast<ptrdiff_t>(next_);
        const auto end = piece_.begin() + static_cast<ptrdiff_t>(filled_);
        return {begin, std::find(begin, end, uint8_t{0})};
    }

  private:
    static constexpr size_t kWord = 4;

    void fill() {
        const auto wanted = std::min<uint64_t>(piece_.size(), end_ - at_);
        next_ = 0;
        filled_ = read_bytes(stream_, at_, std::span(piece_).first(static_cast<size_t>(wanted)));
        at_ += filled_;
    }

    KST_IOSTREAM_CALLBACK_INTERFACE* stream_;
    uint64_t at_, end_;
    std::array<uint8_t, 4096> piece_{};
    size_t next_ = 0, filled_ = 0;
};

void visit_composition_offsets(Body& body, Qvox3gp::FieldVisitor& visitor) {
    const uint32_t version = body.word() >> 24;
    const uint32_t count = body.word();
    visitor.number("version", version);
    visitor.begin_list("entries");
    for (uint32_t i = 0; i < count && !body.at_end(); ++i) {
        visitor.begin_record();
        visitor.number("sample_count", body.word());
        const uint32_t offset = body.word();
        visitor.number("sample_offset",
                       version == 0 ? int64_t{offset} : int64_t{static_cast<int32_t>(offset)});
        visitor.end_record();
    }
    visitor.end_list();
}

void visit_run(Body& body, Qvox3gp::FieldVisitor& visitor) {
    constexpr uint32_t kDuration = 0x100, kSize = 0x200, kFlags = 0x400, kOffset = 0x800;
    const uint32_t word = body.word();
    const uint32_t count = body.word();
    if ((word & 0x1) != 0) body.word();  // data offset
    if ((word & 0x4) != 0) body.word();  // flags of the first sample
    if ((word & (kDuration | kSize | kFlags | kOffset)) == 0) return;
    visitor.begin_list("entries");
    for (uint32_t i = 0; i < count && !body.at_end(); ++i) {
        visitor.begin_record();
        if ((word & kDuration) != 0) visitor.number("sample_duration", body.word());
        if ((word & kSize) != 0) visitor.number("sample_size", body.word());
        if ((word & kFlags) != 0) visitor.number("sample_flags", body.word());
        if ((word & kOffset) != 0) {
            const uint32_t offset = body.word();
            const bool is_signed = word >> 24 != 0;
            visitor.number("sample_composition_time_offset",
                           is_signed ? int64_t{static_cast<int32_t>(offset)} : int64_t{offset});
        }
        visitor.end_record();
    }
    visitor.end_list();
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
    return type == "moof" || type == "mvex" || type == "udta";
}

void visit_entries(KST_IOSTREAM_CALLBACK_INTERFACE* stream, std::string_view type, uint64_t offset,
                   uint32_t size, Qvox3gp::FieldVisitor& visitor) {
    constexpr uint32_t kBeforeName = 24;  // fields of a hdlr
    if (size < kBoxHeader) return;
    Body body(stream, offset + kBoxHeader, size - kBoxHeader);
    if (type == "ctts") {
        visit_composition_offsets(body, visitor);
    } else if (type == "trun") {
        visit_run(body, visitor);
    } else if (type == "hdlr") {
        body.skip(kBeforeName);
        visitor.code("name", body.text());
    } else if (type == "sdp ") {
        visitor.code("text", body.text());
    }
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
