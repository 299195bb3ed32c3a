#include "tests/support/playing.h"

namespace {

// Waits for a host, as far as the schedule tells.
void wait(kst_host* host, const Playing& how) {
    for (uint32_t left = how.steps ? how.steps() : 1; left > 0; --left)
        kst_host_wait(host);
}

// Whether more data may undo what a read answered.
bool may_arrive(int32_t status, uint32_t size, Road road, bool flag) {
    if (road == Road::kClass) {
        return size == 0 && status == (flag ? int32_t{KST_NOT_YET} : int32_t{KST_FAILURE});
    }
    // In front of the first video frame, not-yet is told as a failure that delivers nothing.
    return status == KST_NOT_YET || (status == KST_FAILURE && size == 0);
}

bool flag_of(kst_host* host, const Playing& how) {
    return how.flag.value_or(kst_host_is_arriving(host) != 0);
}

Played read_to_end(const ReadCall& read, kst_host* host, const Playing& how) {
    Played played;
    played.opened = true;
    Bytes buffer(how.request);
    for (;;) {
        uint32_t size = how.request;
        played.status = read(buffer.data(), &size);
        played.stream.insert(played.stream.end(), buffer.begin(), buffer.begin() + size);
        if (played.status == KST_SUCCESS) continue;
        const bool later = may_arrive(played.status, size, how.road, flag_of(host, how));
        if (!later || kst_host_is_complete(host)) return played;
        wait(host, how);
        ++played.waits;
    }
}

Played play_function(kst_host* host, const char* mode, const Playing& how) {
    mm_Interface* handle = nullptr;
    int32_t status;
    while ((status = kst_Open(&handle, kst_host_callbacks(host), mode)) != KST_SUCCESS) {
        if (status != KST_FAILURE || kst_host_is_complete(host)) return {status, false, {}};
        wait(host, how);
        kst_host_rewind(host);
    }
    Played played = read_to_end(read_call(handle, flag_of(host, how)), host, how);
    kst_Close(&handle);
    return played;
}

Played play_class(kst_host* host, const char* mode, const Playing& how) {
    C3gpInterface player;
    unsigned int status;
    while ((status = player.Open(kst_host_callbacks(host), mode)) != KST_SUCCESS) {
        if (kst_host_is_complete(host)) return {static_cast<int32_t>(status), false, {}};
        wait(host, how);
        kst_host_rewind(host);
    }
    return read_to_end(read_call(player, flag_of(host, how)), host, how);
}

}  // namespace

std::vector<Medium> sample_media() {
    std::vector<Medium> media;
    for (const std::string& name : sample_names()) {
        const bool both = name.starts_with("av_");
        const bool sound = name.find("amr") != std::string::npos || name.starts_with("aac");
        if (sound) media.push_back({name, "ar"});
        if (!sound || both) media.push_back({name, "vr"});
    }
    return media;
}

ReadCall read_call(mm_Interface* handle, bool flag) {
    return
        [=](uint8_t* buffer, uint32_t* size) { return kst_ReadChunk(handle, buffer, size, flag); };
}

ReadCall read_call(C3gpInterface& player, bool flag) {
    return [&player, flag](uint8_t* buffer, uint32_t* size) {
        return static_cast<int32_t>(player.ReadChunk(buffer, size, flag));
    };
}

ReadThrough read_through_failures(const ReadCall& read, uint32_t request) {
    constexpr size_t kMostFailures = 3;
    ReadThrough through;
    Bytes buffer(request);
    while (through.failures.size() < kMostFailures) {
        uint32_t size = request;
        through.status = read(buffer.data(), &size);
        through.stream.insert(through.stream.end(), buffer.begin(), buffer.begin() + size);
        if (through.status == KST_END_OF_FILE) break;
        if (through.status != KST_SUCCESS) through.failures.push_back(through.status);
    }
    return through;
}

Played play(kst_host* host, const char* mode, const Playing& how) {
    return how.road == Road::kClass ? play_class(host, mode, how) : play_function(host, mode, how);
}

Played play(const Bytes& file, const char* mode, const Playing& how) {
    kst_host* host = kst_host_from_memory(file.data(), file.size());
    Played played = play(host, mode, how);
    kst_host_close(host);
    return played;
}

Played play_arriving(const Bytes& file, const char* mode, uint32_t step, const Playing& how) {
    kst_host* host = kst_host_from_growing_memory(file.data(), file.size(), step);
    Played played = play(host, mode, how);
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
        *count = of(c).allowed(*count);
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
        return pass(c, "IndexRead", &Table::IndexRead, data, offset, of(c).allowed(count), got);
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

uint32_t FaultyHost::allowed(uint32_t count) const {
    return cut && cut(calls) ? count / 2 : count;
}

uint32_t FaultyHost::ask(const char* name) {
    names.emplace_back(name);
    const int call = calls++;
    return fault ? fault(call) : uint32_t{KST_HOST_OK};
}
