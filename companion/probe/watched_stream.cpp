// SPDX-License-Identifier: Apache-2.0
#include "companion/probe/watched_stream.h"

namespace kestrel::probe {

struct WatchedStream::Slots {
    static WatchedStream& of(void* context) { return *static_cast<WatchedStream*>(context); }

    // Calls a slot of the host, whose status is noted.
    template <auto kSlot, typename... Arguments>
    static uint32_t noted(void* context, Arguments... arguments) {
        WatchedStream& stream = of(context);
        return stream.note((stream.host_->*kSlot)(stream.host_->Context, arguments...));
    }
    // Calls a slot whose result is no status, or means no failure of the file.
    template <auto kSlot, typename... Arguments>
    static uint32_t passed(void* context, Arguments... arguments) {
        const WatchedStream& stream = of(context);
        return (stream.host_->*kSlot)(stream.host_->Context, arguments...);
    }
};

WatchedStream::WatchedStream(KST_IOSTREAM_CALLBACK_INTERFACE* host) : host_(host) {
    using Table = KST_IOSTREAM_CALLBACK_INTERFACE;
    table_.Context = this;
    table_.GetOffset = &Slots::noted<&Table::GetOffset>;
    table_.Seek = &Slots::noted<&Table::Seek>;
    table_.SeekNRead = &Slots::noted<&Table::SeekNRead>;
    table_.SeekNWrite = &Slots::passed<&Table::SeekNWrite>;
    table_.GetStreamSize = &Slots::noted<&Table::GetStreamSize>;
    table_.IsEOF = &Slots::passed<&Table::IsEOF>;
    table_.IndexRead = &Slots::noted<&Table::IndexRead>;
    table_.AdvanceRead = &Slots::passed<&Table::AdvanceRead>;
    table_.CheckStatus = &Slots::passed<&Table::CheckStatus>;
}

uint32_t WatchedStream::note(uint32_t status) {
    uint32_t result = KST_IO_OK;
    host_->CheckStatus(host_->Context, &result, status);
    if (status_ == KST_SUCCESS && result != KST_IO_OK) {
        const bool not_yet = result == KST_IO_NOT_YET || result == KST_IO_NOT_YET_ALSO;
        status_ = not_yet ? KST_NOT_YET : KST_IO_FAILURE;
    }
    return status;
}

}  // namespace kestrel::probe
