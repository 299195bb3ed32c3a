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
    return play(MemoryHost(file).get(), mode, how);
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
