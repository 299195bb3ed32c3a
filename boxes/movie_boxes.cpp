// SPDX-License-Identifier: Apache-2.0
#include "boxes/movie_boxes.h"

#include <utility>

#include "boxes/fields.h"
#include "boxes/track_boxes.h"

namespace Qvox3gp {

FtypBox::FtypBox() : Described(code("ftyp")) {}
FtypBox::~FtypBox() = default;

void FtypBox::SetBrands(uint32_t major, uint32_t minor_version, std::vector<uint32_t> compatible) {
    major_brand_ = major;
    minor_version_ = minor_version;
    compatible_brands_ = std::move(compatible);
}

void FtypBox::fields(auto& f, auto& self) {
    f.code("major_brand", self.major_brand_);
    f.u32("minor_version", self.minor_version_);
    f.table("compatible_brands", self.compatible_brands_, f.rest_of_box() / 4, VisitCode{});
}

MvhdBox::MvhdBox() : Described(code("mvhd")) {}
MvhdBox::~MvhdBox() = default;

void MvhdBox::fields(auto& f, auto& self) {
    FullBox::fields(f, self);
    Timed::fields(f, self);
    f.u32("timescale", self.timescale_);
    f.u32("duration", self.duration_);
    f.u32("rate", self.rate_);
    f.u16("volume", self.volume_);
    f.u16("reserved", self.reserved_);
    f.bytes("reserved_2", self.reserved_2_);
    f.u32s("matrix", self.matrix_);
    f.u32s("pre_defined", self.pre_defined_);
    f.u32("next_track_id", self.next_track_id_);
}

MoovBox::MoovBox() : Described(code("moov")) {}
MoovBox::~MoovBox() = default;

void MoovBox::AddTrak(TrakBox* trak, bool owned) {
    traks_.push_back(trak);
    try {
        adopt(trak, owned);
    } catch (...) {
        traks_.pop_back();
        throw;
    }
}

Box& MoovBox::new_child(uint32_t type) {
    static constexpr ChildKind<MoovBox> kKinds[] = {
        {code("mvhd"), StoreChild<&MoovBox::SetMvhd>::make},
        {code("trak"), StoreChild<&MoovBox::AddTrak>::make}};
    return make_child(*this, kKinds, type);
}

}  // namespace Qvox3gp
