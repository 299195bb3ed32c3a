// SPDX-License-Identifier: Apache-2.0
#include "tests/support/faulty_host.h"

#include <algorithm>

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
