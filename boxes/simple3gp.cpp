// SPDX-License-Identifier: Apache-2.0
#include "boxes/simple3gp.h"

#include "boxes/fields.h"
#include "common/log_sources.h"
#include "common/simple_exception.h"

namespace Qvox3gp {
Simple3gp::Simple3gp() = default;
Simple3gp::~Simple3gp() = default;

void Simple3gp::Dump(Stream& io) const {
    set_start(macro_Tell(io));
    for (const Box* child : children())
        child->Dump(io);
}

unsigned int Simple3gp::GetSize() const {
    FieldSizer sizer(0);
    fields(sizer, *this);
    return sizer.size();
}

Box& Simple3gp::new_child(uint32_t type) {
    static constexpr ChildKind<Simple3gp> kKinds[] = {
        {code("mdat"), StoreChild<&Simple3gp::AddMdat>::make},
        {code("moov"), StoreChild<&Simple3gp::SetMoov>::make},
        {code("ftyp"), StoreChild<&Simple3gp::SetFtyp>::make}};
    const char* name = type == code("mdat")   ? "MdatBox"
                       : type == code("moov") ? "MoovBox"
                       : type == code("ftyp") ? "FtypBox"
                                              : "UnknownBox";
    kestrel::log_line(kestrel::kDebug, kestrel::at(kestrel::kFileSource),
                      "Simple3gp::Read() Creating %s", name);
    return make_child(*this, kKinds, type);
}

void Simple3gp::Read(Stream& io, unsigned int) {
    file_size_ = GetFileSize(io);
    const uint32_t position = macro_Tell(io);
    FieldReader reader(io, rest_of_file(position, file_size_), position);
    while (reader.rest_of_box() > 0 && !macro_IsEOF(io)) {
        if (!reader.read_child(*this)) return;
    }
    peek_box(io, file_size_);  // logs where the boxes end
}

}  // namespace Qvox3gp
