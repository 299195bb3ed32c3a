// SPDX-License-Identifier: Apache-2.0
#include "fuzz/support/support.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "boxes/foreign_codec_hook.h"
#include "common/simple_exception.h"

// In place of the process exit.
void Qvox3gp::meet_foreign_codec() {
    throw SimpleException("fuzz", 0, "foreign codec");
}

namespace fuzz {

namespace {

enum HostStatus : uint32_t { kOk, kFailed, kNotYet };

// A file that trickles in is there after so many steps at the latest.
constexpr int kMaxWaits = 64;

}  // namespace

void check(bool holds) {
    if (!holds) std::abort();
}

uint8_t Choices::u8() {
    return at_end() ? uint8_t{0} : bytes_[at_++];
}

uint16_t Choices::u16() {
    const int high = u8();
    return static_cast<uint16_t>(high << 8 | u8());
}

uint32_t Choices::u32() {
    const uint32_t high = u16();
    return high << 16 | u16();
}

View Choices::take(size_t most) {
    const View taken = bytes_.subspan(at_, std::min(most, bytes_.size() - at_));
    at_ += taken.size();
    return taken;
}

Bytes without_dates(Bytes file) {
    constexpr std::ptrdiff_t kFirstDate = 8, kDates = 8;  // from the box type, in bytes
    for (const std::string_view type : {"mvhd", "tkhd", "mdhd"}) {
        auto at = file.begin();
        while ((at = std::search(at, file.end(), type.begin(), type.end())) != file.end()) {
            if (file.end() - at < kFirstDate + kDates) break;
            std::fill_n(at + kFirstDate, kDates, uint8_t{0});
            at += kFirstDate;
        }
    }
    return file;
}

Input::Input(View bytes)
    : file(bytes.first(bytes.size() - std::min(bytes.size(), kChoiceBytes))),
      choices(bytes.last(std::min(bytes.size(), kChoiceBytes))) {}

uint32_t Numbers::next() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 17;
    state_ ^= state_ << 5;
    return state_;
}

struct Host::Slots {
    static Host& of(void* context) {
        Host& host = *static_cast<Host*>(context);
        ++host.calls_;
        return host;
    }
    static uint32_t get_offset(void* c, uint32_t* offset) {
        *offset = of(c).position_;
        return kOk;
    }
    static uint32_t seek(void* c, uint32_t offset) {
        of(c).position_ = offset;
        return kOk;
    }
    static uint32_t read(void* c, void* data, uint32_t* count, int32_t offset) {
        Host& host = of(c);
        const uint32_t from = offset == -1 ? host.position_ : static_cast<uint32_t>(offset);
        const uint32_t status = host.read_at(data, from, *count, *count);
        host.position_ = from + *count;
        return status;
    }
    static uint32_t write(void*, const void*, uint32_t, int32_t) { return kFailed; }
    static uint32_t stream_size(void* c, uint32_t* size) {
        *size = static_cast<uint32_t>(of(c).file_.size());
        return kOk;
    }
    static uint32_t is_eof(void* c) {
        const Host& host = of(c);
        return host.complete() && host.position_ >= host.file_.size() ? 1 : 0;
    }
    static uint32_t index_read(void* c, void* data, uint32_t offset, uint32_t count,
                               uint32_t* got) {
        return of(c).read_at(data, offset, count, *got);
    }
    static uint32_t advance(void* c, uint32_t) {
        of(c);
        return kOk;
    }
    static uint32_t check_status(void*, uint32_t* result, uint32_t status) {
        *result = status == kOk       ? uint32_t{KST_IO_OK}
                  : status == kNotYet ? uint32_t{KST_IO_NOT_YET}
                                      : 1;
        return kOk;
    }
};

Host::Host(View file)
    : file_(file), there_(file.size()), table_{this,           Slots::get_offset,
                                               Slots::seek,    Slots::read,
                                               Slots::write,   Slots::stream_size,
                                               Slots::is_eof,  Slots::index_read,
                                               Slots::advance, Slots::check_status} {}

Host::Host(View file, uint32_t salt) : Host(file) {
    there_ = 0;
    schedule_ = Numbers(salt);
}

uint32_t Host::read_at(void* data, uint32_t offset, uint32_t count, uint32_t& got) {
    got = 0;
    const auto there = static_cast<uint32_t>(there_);
    const uint32_t readable = offset < there ? std::min(count, there - offset) : 0;
    if (readable < count && !complete()) return kNotYet;
    if (readable > 0) std::memcpy(data, file_.data() + offset, readable);
    got = readable;
    return kOk;
}

void Host::wait() {
    const auto left = static_cast<uint32_t>(file_.size() - there_);
    // Single bytes and pieces of all sizes, each kind as likely.
    const uint32_t scale = 1u << schedule_.below(16);
    const uint32_t step = ++waits_ >= kMaxWaits ? left : 1 + schedule_.below(scale);
    there_ += std::min(step, left);
}

void Host::check_calls() {
    check(calls_ <= 10000 + 4 * uint64_t{file_.size()});
    calls_ = 0;
}

}  // namespace fuzz
