#include "tests/support/playing.h"

namespace {

Played read_to_end(mm_Interface* handle, kst_host* host) {
    Played played;
    played.opened = true;
    Bytes buffer(KST_LARGEST_CHUNK);
    for (;;) {
        auto size = static_cast<uint32_t>(buffer.size());
        played.status =
            kst_ReadChunk(handle, buffer.data(), &size, kst_host_is_arriving(host) != 0);
        played.stream.insert(played.stream.end(), buffer.begin(), buffer.begin() + size);
        if (played.status == KST_SUCCESS) continue;
        // In front of the first video frame, not-yet is told as a failure that delivers nothing.
        const bool may_arrive =
            played.status == KST_NOT_YET || (played.status == KST_FAILURE && size == 0);
        if (!may_arrive || kst_host_is_complete(host)) return played;
        kst_host_wait(host);
    }
}

}  // namespace

Played play(kst_host* host, const char* mode) {
    mm_Interface* handle = nullptr;
    int32_t status;
    while ((status = kst_Open(&handle, kst_host_callbacks(host), mode)) != KST_SUCCESS) {
        if (status != KST_FAILURE || kst_host_is_complete(host)) return {status, false, {}};
        kst_host_wait(host);
        kst_host_rewind(host);
    }
    Played played = read_to_end(handle, host);
    kst_Close(&handle);
    return played;
}

Played play(const Bytes& file, const char* mode) {
    kst_host* host = kst_host_from_memory(file.data(), file.size());
    Played played = play(host, mode);
    kst_host_close(host);
    return played;
}

Played play_arriving(const Bytes& file, const char* mode, uint32_t step) {
    kst_host* host = kst_host_from_growing_memory(file.data(), file.size(), step);
    Played played = play(host, mode);
    kst_host_close(host);
    return played;
}

Bytes unpack_speech(const Bytes& stream, bool wide_band) {
    constexpr size_t kHeaders = 68;
    constexpr size_t kFrameHeader = 25;  // record, zero word, mode byte
    Bytes out = text(wide_band ? "#!AMR-WB\n" : "#!AMR\n");
    for (size_t at = kHeaders; at + kFrameHeader <= stream.size();) {
        const auto length = static_cast<size_t>(stream[at] | stream[at + 1] << 8);
        if (length < kFrameHeader || at + length > stream.size()) break;
        out.insert(out.end(), stream.begin() + static_cast<long>(at + kFrameHeader),
                   stream.begin() + static_cast<long>(at + length));
        at += length;
    }
    return out;
}

struct FaultyHost::Slots {
    static FaultyHost& of(void* context) { return *static_cast<FaultyHost*>(context); }

    template <typename Slot, typename... Arguments>
    static uint32_t pass(void* context, const char* name, Slot slot, Arguments... arguments) {
        FaultyHost& self = of(context);
        const uint32_t fault = self.ask(name);
        if (fault != KST_HOST_OK) return fault;
        return (self.inner_->*slot)(self.inner_->Context, arguments...);
    }

    using Table = KST_IOSTREAM_CALLBACK_INTERFACE;

    static uint32_t get_offset(void* c, uint32_t* offset) {
        return pass(c, "GetOffset", &Table::GetOffset, offset);
    }
    static uint32_t seek(void* c, uint32_t offset) { return pass(c, "Seek", &Table::Seek, offset); }
    static uint32_t read(void* c, void* data, uint32_t* count, int32_t offset) {
        return pass(c, "SeekNRead", &Table::SeekNRead, data, count, offset);
    }
    static uint32_t write(void* c, const void* data, uint32_t count, int32_t offset) {
        return pass(c, "SeekNWrite", &Table::SeekNWrite, data, count, offset);
    }
    static uint32_t stream_size(void* c, uint32_t* size) {
        return pass(c, "GetStreamSize", &Table::GetStreamSize, size);
    }
    static uint32_t is_eof(void* c) {
        FaultyHost& self = of(c);
        return self.inner_->IsEOF(self.inner_->Context);
    }
    static uint32_t index_read(void* c, void* data, uint32_t offset, uint32_t count,
                               uint32_t* got) {
        return pass(c, "IndexRead", &Table::IndexRead, data, offset, count, got);
    }
    static uint32_t advance(void* c, uint32_t offset) {
        return pass(c, "AdvanceRead", &Table::AdvanceRead, offset);
    }
    static uint32_t check(void* c, uint32_t* result, uint32_t status) {
        FaultyHost& self = of(c);
        return self.inner_->CheckStatus(self.inner_->Context, result, status);
    }
};

FaultyHost::FaultyHost(const Bytes& file)
    : host_(kst_host_from_memory(file.data(), file.size())),
      inner_(kst_host_callbacks(host_)),
      table_{this,           Slots::get_offset,  Slots::seek,   Slots::read,
             Slots::write,   Slots::stream_size, Slots::is_eof, Slots::index_read,
             Slots::advance, Slots::check} {}

FaultyHost::~FaultyHost() {
    kst_host_close(host_);
}

uint32_t FaultyHost::ask(const char* name) {
    names.emplace_back(name);
    const int call = calls++;
    return fault ? fault(call) : uint32_t{KST_HOST_OK};
}
