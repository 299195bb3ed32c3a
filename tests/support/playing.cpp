// SPDX-License-Identifier: Apache-2.0
#include "tests/support/playing.h"

#include <algorithm>
#include <cstdlib>

namespace {

// Waits for a host, as far as the schedule says.
void wait(kst_host* host, const Playing& how) {
    for (uint32_t left = how.steps ? how.steps() : 1; left > 0; --left)
        kst_host_wait(host);
}

// Whether more data may undo what a read answered.
bool may_arrive(int32_t status, uint32_t size, Api api, bool flag) {
    if (api == Api::kClass) {
        return size == 0 && status == (flag ? int32_t{KST_NOT_YET} : int32_t{KST_FAILURE});
    }
    // Before the first video frame, not-yet is reported as a failure that delivers nothing.
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
        auto size = static_cast<uint32_t>(buffer.size());
        played.status = read(buffer.data(), &size);
        if (played.status == KST_BAD_ARGUMENT && size > buffer.size()) {
            buffer.resize(size);
            continue;
        }
        played.stream.insert(played.stream.end(), buffer.begin(), buffer.begin() + size);
        if (played.status == KST_SUCCESS) continue;
        const bool later = may_arrive(played.status, size, how.api, flag_of(host, how));
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

std::ostream& operator<<(std::ostream& out, const Medium& medium) {
    return out << medium.file << " " << medium.mode;
}

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

bool thorough() {
    const char* set = std::getenv("KESTREL_THOROUGH");
    return set != nullptr && *set == '1';
}

std::string name_of(const Medium& medium, Api api) {
    const std::string stem = medium.file.substr(0, medium.file.find('.'));
    return stem + (medium.mode[0] == 'a' ? "_audio" : "_video") +
           (api == Api::kFunction ? "_function" : "_class");
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
    constexpr size_t kMaxFailures = 3;
    ReadThrough through;
    Bytes buffer(request);
    while (through.failures.size() < kMaxFailures) {
        uint32_t size = request;
        through.status = read(buffer.data(), &size);
        through.stream.insert(through.stream.end(), buffer.begin(), buffer.begin() + size);
        if (through.status == KST_END_OF_FILE) break;
        if (through.status != KST_SUCCESS) through.failures.push_back(through.status);
    }
    return through;
}

Played play(kst_host* host, const char* mode, const Playing& how) {
    return how.api == Api::kClass ? play_class(host, mode, how) : play_function(host, mode, how);
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

bool can_fault(std::string_view slot, FaultKind kind) {
    const bool reads = slot == "SeekNRead" || slot == "IndexRead";
    const bool has_place = slot != "SeekNWrite" && slot != "AdvanceRead";
    switch (kind) {
        case FaultKind::kStatus:
            return true;
        case FaultKind::kLie:
            return has_place;
        case FaultKind::kBack:
        case FaultKind::kZero:
        case FaultKind::kStill:
            return has_place && slot != "SeekNRead";
        case FaultKind::kShort:
            return reads || slot == "SeekNWrite";
        default:
            return reads;
    }
}

struct FaultyHost::Slots {
    static constexpr uint32_t kElsewhere = 13;  // bytes away, or before
    using Table = KST_IOSTREAM_CALLBACK_INTERFACE;

    static FaultyHost& of(void* context) { return *static_cast<FaultyHost*>(context); }

    // A call as the hooks have it.
    struct Call {
        Call(void* context, const char* name) : self(of(context)) {
            const int number = self.calls;
            halved = self.cut && self.cut(number);
            overstated = self.overstate && self.overstate(number);
            silent = self.silent && self.silent(number);
            lies = self.lie && self.lie(number);
            status = self.ask(name);
        }
        template <typename Slot, typename... Arguments>
        uint32_t pass(Slot slot, Arguments... arguments) const {
            if (status != KST_HOST_OK || silent) return status;
            return (self.inner_->*slot)(self.inner_->Context, arguments...);
        }
        uint32_t allowed(uint32_t count) const { return halved ? count / 2 : count; }
        bool shuffles() const { return lies && self.lie_kind == FaultKind::kLie; }
        uint32_t place(uint32_t true_place) const {
            if (!lies) return true_place;
            switch (self.lie_kind) {
                case FaultKind::kBack:
                    return true_place - std::min(true_place, kElsewhere);
                case FaultKind::kZero:
                    return 0;
                case FaultKind::kStill:
                    if (!self.still_) self.still_ = true_place;
                    return *self.still_;
                default:
                    return true_place + kElsewhere;
            }
        }
        void report(uint32_t& got, uint32_t wanted) const {
            if (overstated && status == KST_HOST_OK) got = wanted + 1000;
        }

        FaultyHost& self;
        bool halved;
        bool overstated;
        bool silent;
        bool lies;
        uint32_t status;
    };

    static uint32_t get_offset(void* c, uint32_t* offset) {
        const Call call(c, "GetOffset");
        const uint32_t status = call.pass(&Table::GetOffset, offset);
        *offset = call.place(*offset);
        return status;
    }
    static uint32_t seek(void* c, uint32_t offset) {
        const Call call(c, "Seek");
        return call.pass(&Table::Seek, call.place(offset));
    }
    static uint32_t read(void* c, void* data, uint32_t* count, int32_t offset) {
        const Call call(c, "SeekNRead");
        const uint32_t wanted = *count;
        if (!call.silent) *count = call.allowed(wanted);
        const uint32_t status = call.pass(&Table::SeekNRead, data, count, offset);
        if (call.shuffles())
            std::reverse(static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + *count);
        call.report(*count, wanted);
        return status;
    }
    static uint32_t write(void* c, const void* data, uint32_t count, int32_t offset) {
        const Call call(c, "SeekNWrite");
        return call.pass(&Table::SeekNWrite, data, call.allowed(count), offset);
    }
    static uint32_t stream_size(void* c, uint32_t* size) {
        const Call call(c, "GetStreamSize");
        const uint32_t status = call.pass(&Table::GetStreamSize, size);
        *size = call.place(*size);
        return status;
    }
    static uint32_t is_eof(void* c) {
        FaultyHost& self = of(c);
        self.used.insert("IsEOF");
        return self.eof ? *self.eof : self.inner_->IsEOF(self.inner_->Context);
    }
    static uint32_t index_read(void* c, void* data, uint32_t offset, uint32_t count,
                               uint32_t* got) {
        const Call call(c, "IndexRead");
        const uint32_t status =
            call.pass(&Table::IndexRead, data, call.place(offset), call.allowed(count), got);
        call.report(*got, count);
        return status;
    }
    static uint32_t advance(void* c, uint32_t offset) {
        return Call(c, "AdvanceRead").pass(&Table::AdvanceRead, offset);
    }
    static uint32_t check(void* c, uint32_t* result, uint32_t status) {
        FaultyHost& self = of(c);
        self.used.insert("CheckStatus");
        const uint32_t answer = self.inner_->CheckStatus(self.inner_->Context, result, status);
        if (self.classification) *result = *self.classification;
        return answer;
    }
};

FaultyHost::FaultyHost(const Bytes& file)
    : FaultyHost(kst_host_from_memory(file.data(), file.size())) {}

FaultyHost::FaultyHost() : FaultyHost(kst_host_for_writing_memory()) {}

FaultyHost::FaultyHost(kst_host* host)
    : host_(host), inner_(kst_host_callbacks(host_)), table_{this,           Slots::get_offset,
                                                             Slots::seek,    Slots::read,
                                                             Slots::write,   Slots::stream_size,
                                                             Slots::is_eof,  Slots::index_read,
                                                             Slots::advance, Slots::check} {}

FaultyHost::~FaultyHost() {
    kst_host_close(host_);
}

Bytes FaultyHost::written() const {
    size_t size = 0;
    const auto* bytes = static_cast<const uint8_t*>(kst_host_written(host_, &size));
    return Bytes(bytes, bytes + size);
}

void FaultyHost::break_at(int at, const Fault& how) {
    const auto hit = [at, good = how.for_good](int call) {
        return call == at || (good && call > at);
    };
    switch (how.kind) {
        case FaultKind::kStatus:
            fault = [hit, status = how.status](int call) -> uint32_t {
                return hit(call) ? status : uint32_t{KST_HOST_OK};
            };
            break;
        case FaultKind::kShort:
            cut = hit;
            break;
        case FaultKind::kTooMany:
            overstate = hit;
            break;
        case FaultKind::kSilent:
            silent = hit;
            break;
        default:
            lie = hit;
            lie_kind = how.kind;
            still_.reset();
            break;
    }
}

void FaultyHost::repair() {
    fault = nullptr;
    cut = overstate = silent = lie = nullptr;
    eof = classification = std::nullopt;
}

uint32_t FaultyHost::ask(const char* name) {
    names.emplace_back(name);
    used.insert(name);
    const int call = calls++;
    return fault ? fault(call) : uint32_t{KST_HOST_OK};
}
