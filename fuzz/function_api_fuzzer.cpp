// SPDX-License-Identifier: Apache-2.0
// Any bytes as a file, played through the exported functions: a file that arrives plays as the
// whole one does, byte for byte and to the same status.
#include <algorithm>

#include "fuzz/support/support.h"
#include "kestrel/kestrel.h"
#include "kestrel/log.h"

namespace {

using namespace fuzz;

// A few bytes can declare any number of samples; so many of them are enough.
constexpr size_t kMaxOutput = 1 << 19;
constexpr int kMaxChunks = 300;

struct Played {
    int32_t status = KST_SUCCESS;  // that ended it
    bool cut = false;              // ended by the bounds of this target
    Bytes stream;
};

bool open(Host& host, const char* mode, mm_Interface*& handle, int32_t& status) {
    for (;;) {
        host.rewind();
        status = kst_Open(&handle, host.callbacks(), mode);
        host.check_calls();
        if (status == KST_SUCCESS) return true;
        check(handle == nullptr);
        if (status != KST_FAILURE || host.complete()) return false;
        host.wait();
    }
}

// Reads with room for `room` bytes first and for what the library asks for then.
int32_t read_chunk(mm_Interface* handle, Host& host, uint32_t room, bool flag, Bytes& stream) {
    Bytes buffer(room);
    uint32_t size = room;
    int32_t status = kst_ReadChunk(handle, buffer.data(), &size, flag);
    if (status == KST_BAD_ARGUMENT) {
        check(size > room && size <= KST_MAX_CHUNK);
        buffer.assign(size, 0);
        const uint32_t wanted = size;
        status = kst_ReadChunk(handle, buffer.data(), &size, flag);
        check(status != KST_BAD_ARGUMENT && size <= wanted);
    }
    host.check_calls();
    check(size <= buffer.size());
    if (status == KST_NOT_YET) check(size == 0);
    stream.insert(stream.end(), buffer.begin(), buffer.begin() + size);
    // Before the first video frame, not-yet is reported as a failure that delivers nothing.
    return status == KST_FAILURE && size == 0 ? int32_t{KST_NOT_YET} : status;
}

Played play(Host& host, const char* mode, uint32_t room, bool flag) {
    Played played;
    mm_Interface* handle = nullptr;
    if (!open(host, mode, handle, played.status)) return played;
    int chunks = 0;
    for (;;) {
        played.status = read_chunk(handle, host, room, flag, played.stream);
        if (played.status == KST_NOT_YET && !host.complete()) {
            host.wait();
            continue;
        }
        played.cut = ++chunks >= kMaxChunks || played.stream.size() >= kMaxOutput;
        if (played.status != KST_SUCCESS || played.cut) break;
    }
    check(kst_Close(&handle) == KST_SUCCESS && handle == nullptr);
    return played;
}

// A file has one movie. Of a second one, only what has arrived when the file is opened counts.
bool has_one_movie(View file) {
    constexpr uint8_t kMovie[] = {'m', 'o', 'o', 'v'};
    const auto first = std::search(file.begin(), file.end(), std::begin(kMovie), std::end(kMovie));
    if (first == file.end()) return true;
    return std::search(first + 1, file.end(), std::begin(kMovie), std::end(kMovie)) == file.end();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    sx_Debug = 0;
    Input input({data, size});
    const uint8_t how = input.choices.u8();
    const char* mode = how & 1 ? "rv" : "ra";
    const uint32_t room = how & 2 ? uint32_t{KST_LARGEST_CHUNK} : 1 + uint32_t{input.choices.u16()};
    const bool flag = how & 4;

    Host whole_host(input.file);
    const Played whole = play(whole_host, mode, room, flag);
    Host arriving_host(input.file, input.choices.u32());
    const Played arriving = play(arriving_host, mode, room, true);
    check(!has_one_movie(input.file) ||
          (arriving.status == whole.status && arriving.stream == whole.stream));
    return 0;
}
