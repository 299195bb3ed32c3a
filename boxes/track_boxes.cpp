// SPDX-License-Identifier: Apache-2.0
#include "boxes/track_boxes.h"

#include "boxes/fields.h"
#include "boxes/sample_tables.h"

namespace Qvox3gp {
namespace {

// Track flags of ISO/IEC 14496-12, 8.3.2: enabled, in movie, in preview.
constexpr uint32_t kTrackEnabledEverywhere = 7;
// ISO/IEC 14496-12, 12.1.2: the video media header always has this flag.
constexpr uint32_t kVideoHeaderFlag = 1;
// ISO/IEC 14496-12, 8.7.2: the media is in the same file.
constexpr uint32_t kSelfContained = 1;

}  // namespace

TkhdBox::TkhdBox() : Described(code("tkhd"), kTrackEnabledEverywhere) {}
TkhdBox::~TkhdBox() = default;

void TkhdBox::fields(auto& f, auto& self) {
    FullBox::fields(f, self);
    Timed::fields(f, self);
    f.u32("track_id", self.track_id_);
    f.u32("reserved", self.reserved_);
    f.u32("duration", self.duration_);
    f.bytes("reserved_2", self.reserved_2_);
    f.u16("layer", self.layer_);
    f.u16("alternate_group", self.alternate_group_);
    f.u16("volume", self.volume_);
    f.u16("reserved_3", self.reserved_3_);
    f.u32s("matrix", self.matrix_);
    f.u32("width", self.width_);
    f.u32("height", self.height_);
}

void TkhdBox::SetDimensions(unsigned int width, unsigned int height) {
    width_ = width << 16;
    height_ = height << 16;
}

TrackReferenceTypeBox::TrackReferenceTypeBox() : Described(code("hint")) {}
TrackReferenceTypeBox::~TrackReferenceTypeBox() = default;

void TrackReferenceTypeBox::fields(auto& f, auto& self) {
    f.table("track_ids", self.track_ids_, f.rest_of_box() >= 4 ? 1 : 0);
}

TrefBox::TrefBox() : Described(code("tref")) {}
TrefBox::~TrefBox() = default;

Box& TrefBox::new_child(uint32_t type) {
    static constexpr ChildKind<TrefBox> kKinds[] = {
        {code("hint"), StoreChild<&TrefBox::SetTrackReferenceTypeBox>::make}};
    return make_child(*this, kKinds, type);
}

void EditEntry::fields(auto& f, auto& self) {
    f.u32("segment_duration", self.segment_duration);
    f.u32("media_time", self.media_time);
    f.u16("media_rate_integer", self.media_rate_integer);
    f.u16("media_rate_fraction", self.media_rate_fraction);
}

ElstBox::ElstBox() : Described(code("elst")) {}
ElstBox::~ElstBox() = default;

void ElstBox::fields(auto& f, auto& self) {
    FullBox::fields(f, self);
    f.counted_table("entries", self.entries_);
}

EdtsBox::EdtsBox() : Described(code("edts")) {}
EdtsBox::~EdtsBox() = default;

Box& EdtsBox::new_child(uint32_t type) {
    static constexpr ChildKind<EdtsBox> kKinds[] = {
        {code("elst"), StoreChild<&EdtsBox::SetElst>::make}};
    return make_child(*this, kKinds, type);
}

MdhdBox::MdhdBox() : Described(code("mdhd")) {}
MdhdBox::~MdhdBox() = default;

void MdhdBox::fields(auto& f, auto& self) {
    FullBox::fields(f, self);
    Timed::fields(f, self);
    f.u32("timescale", self.timescale_);
    f.u32("duration", self.duration_);
    f.u16("language", self.language_);
    f.u16("pre_defined", self.pre_defined_);
}

HdlrBox::HdlrBox() : Described(code("hdlr")) {}
HdlrBox::~HdlrBox() = default;

void HdlrBox::fields(auto& f, auto& self) {
    FullBox::fields(f, self);
    f.u32("pre_defined", self.pre_defined_);
    f.code("handler_type", self.handler_type_);
    f.u32s("reserved", self.reserved_);
    f.dropped_text();
}

VmhdBox::VmhdBox() : Described(code("vmhd"), kVideoHeaderFlag) {}
VmhdBox::~VmhdBox() = default;

template <class F, class Self>
void VmhdBox::fields(F& f, Self& self) {
    FullBox::fields(f, self);
    uint16_t graphics_mode_not_kept = 0;
    if constexpr (!F::kLists) f.u16("graphics_mode", graphics_mode_not_kept);
    f.u16s("opcolor", self.opcolor_);
}

SmhdBox::SmhdBox() : Described(code("smhd")) {}
SmhdBox::~SmhdBox() = default;

void SmhdBox::fields(auto& f, auto& self) {
    FullBox::fields(f, self);
    f.u16("balance", self.balance_);
    f.u16("reserved", self.reserved_);
}

HmhdBox::HmhdBox() : Described(code("hmhd")) {}
HmhdBox::~HmhdBox() = default;

void HmhdBox::SetSizes(uint16_t max_pdu, uint16_t average_pdu, uint32_t max_rate,
                       uint32_t average_rate) {
    max_pdu_size_ = max_pdu;
    average_pdu_size_ = average_pdu;
    max_bit_rate_ = max_rate;
    average_bit_rate_ = average_rate;
}

void HmhdBox::fields(auto& f, auto& self) {
    FullBox::fields(f, self);
    f.u16("max_pdu_size", self.max_pdu_size_);
    f.u16("average_pdu_size", self.average_pdu_size_);
    f.u32("max_bit_rate", self.max_bit_rate_);
    f.u32("average_bit_rate", self.average_bit_rate_);
    f.u32("reserved", self.reserved_);
}

DataEntryBox::DataEntryBox() : Described(code("url "), kSelfContained) {}
DataEntryBox::~DataEntryBox() = default;

template <class F, class Self>
void DataEntryBox::fields(F& f, Self& self) {
    if constexpr (F::kReads) {
        f.skipped_body(self, 0);
    } else if constexpr (!F::kLists) {
        FullBox::fields(f, self);  // the rest is not stored, so it cannot be listed
    }
}

DrefBox::DrefBox() : Described(code("dref")) {}
DrefBox::~DrefBox() = default;

Box& DrefBox::new_child(uint32_t) {
    auto entry = std::make_unique<DataEntryBox>();
    AddDataEntryBox(entry.get(), true);
    return *entry.release();
}

void DrefBox::fields(auto& f, auto& self) {
    FullBox::fields(f, self);
    f.counted_children(self);
}

DinfBox::DinfBox() : Described(code("dinf")) {}
DinfBox::~DinfBox() = default;

Box& DinfBox::new_child(uint32_t type) {
    static constexpr ChildKind<DinfBox> kKinds[] = {
        {code("dref"), StoreChild<&DinfBox::SetDref>::make}};
    return make_child(*this, kKinds, type);
}

MinfBox::MinfBox() : Described(code("minf")) {}
MinfBox::~MinfBox() = default;

void MinfBox::SetStbl(StblBox* stbl, bool owned) {
    stbl_ = adopt(stbl, owned);
}

Box& MinfBox::new_child(uint32_t type) {
    static constexpr ChildKind<MinfBox> kKinds[] = {
        {code("vmhd"), StoreChild<&MinfBox::SetVmhd>::make},
        {code("smhd"), StoreChild<&MinfBox::SetSmhd>::make},
        {code("hmhd"), StoreChild<&MinfBox::SetHmhd>::make},
        {code("dinf"), StoreChild<&MinfBox::SetDinf>::make},
        {code("stbl"), StoreChild<&MinfBox::SetStbl>::make}};
    return make_child(*this, kKinds, type);
}

MdiaBox::MdiaBox() : Described(code("mdia")) {}
MdiaBox::~MdiaBox() = default;

Box& MdiaBox::new_child(uint32_t type) {
    static constexpr ChildKind<MdiaBox> kKinds[] = {
        {code("mdhd"), StoreChild<&MdiaBox::SetMdhd>::make},
        {code("hdlr"), StoreChild<&MdiaBox::SetHdlr>::make},
        {code("minf"), StoreChild<&MdiaBox::SetMinf>::make}};
    return make_child(*this, kKinds, type);
}

TrakBox::TrakBox() : Described(code("trak")) {}
TrakBox::~TrakBox() = default;

Box& TrakBox::new_child(uint32_t type) {
    static constexpr ChildKind<TrakBox> kKinds[] = {
        {code("tkhd"), StoreChild<&TrakBox::SetTkhd>::make},
        {code("tref"), StoreChild<&TrakBox::SetTref>::make},
        {code("edts"), StoreChild<&TrakBox::SetEdts>::make},
        {code("mdia"), StoreChild<&TrakBox::SetMdia>::make}};
    return make_child(*this, kKinds, type);
}

}  // namespace Qvox3gp
