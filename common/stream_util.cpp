// SPDX-License-Identifier: Apache-2.0
#include "kestrel/kstutil.h"

using Callbacks = _TAG_KST_IOSTREAM_CALLBACK_INTERFACE;

namespace {

constexpr int32_t kCurrentPosition = -1;

// Calls a slot, or returns kst_no_slot for a null one: the ISO reader may open a file before the
// table is checked.
template <typename Slot, typename... Arguments>
uint16_t call(const Callbacks* callbacks, Slot Callbacks::*slot, Arguments... arguments) {
    if (callbacks == nullptr || callbacks->*slot == nullptr) return kst_no_slot;
    return static_cast<uint16_t>((callbacks->*slot)(callbacks->Context, arguments...));
}

}  // namespace

uint16_t kstutil_getoffset(Callbacks*& callbacks, uint32_t* offset_out) {
    return call(callbacks, &Callbacks::GetOffset, offset_out);
}

uint16_t kstutil_seek(Callbacks*& callbacks, int32_t offset) {
    return call(callbacks, &Callbacks::Seek, static_cast<uint32_t>(offset));
}

uint16_t kstutil_seeknread(Callbacks*& callbacks, void* data, uint32_t* count_in_out) {
    return call(callbacks, &Callbacks::SeekNRead, data, count_in_out, kCurrentPosition);
}

uint16_t kstutil_indexread(Callbacks*& callbacks, void* data, uint32_t offset, uint32_t count,
                           uint32_t* read_out) {
    return call(callbacks, &Callbacks::IndexRead, data, offset, count, read_out);
}

uint16_t kstutil_advanceread(Callbacks*& callbacks, uint32_t offset) {
    return call(callbacks, &Callbacks::AdvanceRead, offset);
}
