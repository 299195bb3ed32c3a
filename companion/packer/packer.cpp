// SPDX-License-Identifier: Apache-2.0
#include "kestrel/packer.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <memory>
#include <new>

#include "companion/hinter/outcome.h"
#include "companion/packer/packed_file.h"
#include "companion/packer/stream_media.h"

// The functions of kestrel/packer.h over streams and file.

using namespace kestrel::packer;
using kestrel::hinter::put_text;

struct kst_packer {
    bool with_hints = false;
    bool is_written = false;
    int failure = KST_PACK_DONE;  // KST_PACK_NO_MEMORY or KST_PACK_SPOOL_FAILED: data was lost
    // The streams that were fed.
    std::array<std::unique_ptr<StreamMedia>, KST_PACK_MOST_STREAMS> streams;
};

namespace {

template <typename Record>
bool is_known(const Record* record) {
    return record == nullptr || record->struct_size == sizeof(Record);
}

template <typename Record>
void hand_out(Record from, Record* to) {
    if (to == nullptr) return;
    from.struct_size = to->struct_size;
    *to = from;
}

// Runs `step`, and catches all exceptions.
template <typename Step>
int guarded(Step step) {
    try {
        return step();
    } catch (const std::exception&) {  // no memory, or more than a vector can hold
        return KST_PACK_NO_MEMORY;
    }
}

bool is_cut(const StreamMedia& stream) {
    return stream.damage() || stream.packets_left_out() != 0 || stream.packets_missing() != 0;
}

int feed(kst_packer& packer, uint32_t stream, std::span<const uint8_t> bytes) {
    auto& media = packer.streams[stream];
    if (!media) media = std::make_unique<StreamMedia>(packer.with_hints);
    media->feed(bytes);
    if (media->store().failed()) return KST_PACK_SPOOL_FAILED;
    return media->damage() ? KST_PACK_CUT : KST_PACK_DONE;
}

int write(kst_packer* packer, KST_IOSTREAM_CALLBACK_INTERFACE* destination,
          kst_pack_report& report) {
    if (packer->failure == KST_PACK_NO_MEMORY) throw std::bad_alloc();
    std::vector<StreamMedia*> streams;
    bool is_spooled = true;
    for (const auto& stream : packer->streams) {
        if (stream) stream->finish();
        is_spooled &= !stream || !stream->store().failed();
        streams.push_back(stream.get());
    }
    try {
        if (!is_spooled) {
            throw Failure{KST_PACK_SPOOL_FAILED, "a temporary file could not be written"};
        }
        write_file(streams, packer->with_hints, destination, report);
    } catch (const Failure& failure) {
        put_text(report.error, failure.text);
        report.stream = failure.stream;
        return failure.status;
    }
    const bool any_cut = std::any_of(streams.begin(), streams.end(), [](const StreamMedia* stream) {
        return stream != nullptr && is_cut(*stream);
    });
    return any_cut ? KST_PACK_CUT : KST_PACK_DONE;
}

}  // namespace

kst_packer* kst_packer_open(const kst_pack_options* options) {
    if (!is_known(options)) return nullptr;
    const uint32_t flags = options == nullptr ? 0 : options->flags;
    if ((flags & ~uint32_t{KST_PACK_HINT}) != 0) return nullptr;
    auto* packer = new (std::nothrow) kst_packer;
    if (packer != nullptr) packer->with_hints = (flags & KST_PACK_HINT) != 0;
    return packer;
}

int kst_packer_feed(kst_packer* packer, uint32_t stream, const void* data, size_t size) {
    if (packer == nullptr || packer->is_written || stream >= KST_PACK_MOST_STREAMS ||
        (data == nullptr && size != 0)) {
        return KST_PACK_BAD_ARGUMENT;
    }
    if (packer->failure != KST_PACK_DONE) return packer->failure;
    const int status = guarded([&] {
        return feed(*packer, stream, {static_cast<const uint8_t*>(data), size});
    });
    if (status == KST_PACK_NO_MEMORY || status == KST_PACK_SPOOL_FAILED) packer->failure = status;
    return status;
}

int kst_packer_describe(const kst_packer* packer, uint32_t stream, kst_pack_stream* about) {
    if (packer == nullptr || about == nullptr || !is_known(about) ||
        stream >= KST_PACK_MOST_STREAMS || packer->streams[stream] == nullptr) {
        return KST_PACK_BAD_ARGUMENT;
    }
    StreamMedia& media = *packer->streams[stream];
    kst_pack_stream known{};
    if (media.header())
        known.medium = is_speech(media.header()->medium) ? KST_PACK_AUDIO : KST_PACK_VIDEO;
    known.samples = media.store().count();
    known.packets_left_out = media.packets_left_out();
    known.packets_missing = media.packets_missing();
    if (media.damage()) {
        known.damage_offset = media.damage()->offset;
        put_text(known.damage, media.damage()->reason);
    }
    hand_out(known, about);
    return KST_PACK_DONE;
}

int kst_packer_write(kst_packer* packer, KST_IOSTREAM_CALLBACK_INTERFACE* destination,
                     kst_pack_report* report) {
    kst_pack_report done{};
    done.stream = -1;
    if (!is_known(report)) return KST_PACK_BAD_ARGUMENT;
    if (packer == nullptr || destination == nullptr || packer->is_written) {
        put_text(done.error, "a null argument, or the packer has written its file");
        hand_out(done, report);
        return KST_PACK_BAD_ARGUMENT;
    }
    packer->is_written = true;
    const int status = guarded([&] { return write(packer, destination, done); });
    if (status == KST_PACK_NO_MEMORY) put_text(done.error, "out of memory");
    hand_out(done, report);
    return status;
}

void kst_packer_close(kst_packer* packer) {
    delete packer;
}
