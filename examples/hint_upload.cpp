// SPDX-License-Identifier: Apache-2.0
// Takes a clip of any form from standard input, hints it in memory, and plays the result through
// both APIs at once, without a file in between. Writes a native stream for each API; that of the
// class is empty for a codec that it does not know.
//
//     hint_upload MODE FUNCTION.native CLASS.native <UPLOAD
#include <kestrel/c3gpinterface.h>
#include <kestrel/hinter.h>
#include <kestrel/hosts.h>
#include <kestrel/kestrel.h>

#include <cstdio>
#include <memory>
#include <vector>

namespace {

struct CloseHost {
    void operator()(kst_host* host) const { kst_host_close(host); }
};
using Host = std::unique_ptr<kst_host, CloseHost>;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// Hints the whole upload; null with a line on standard error when that cannot be done.
Host hint(kst_host* upload) {
    while (kst_host_wait(upload) == KST_HOST_MORE) {
    }
    Host hinted(kst_host_for_writing_memory());
    if (hinted == nullptr) return hinted;
    kst_hint_options options{};
    options.struct_size = sizeof options;
    options.flags = KST_HINT_REPLACE;  // those that the clip may have
    kst_hint_report report{};
    report.struct_size = sizeof report;
    if (kst_hint(kst_host_callbacks(upload), kst_host_callbacks(hinted.get()), &options, &report) !=
        KST_HINT_DONE) {
        std::fprintf(stderr, "%s\n", report.error);
        return nullptr;
    }
    std::fprintf(stderr, "%u tracks, %u with hints, %llu packets\n", report.tracks,
                 report.hint_tracks, static_cast<unsigned long long>(report.packets));
    return hinted;
}

int32_t play_function(kst_host* host, const char* mode, std::FILE* out) {
    mm_Interface* handle = nullptr;
    kst_host_rewind(host);
    int32_t status = kst_Open(&handle, kst_host_callbacks(host), mode);
    std::vector<unsigned char> room(KST_LARGEST_CHUNK);
    while (status == KST_SUCCESS) {
        auto size = static_cast<uint32_t>(room.size());
        status = kst_ReadChunk(handle, room.data(), &size, false);
        if (status == KST_BAD_ARGUMENT && size > room.size()) {  // too small for a large frame
            room.resize(size);
            status = KST_SUCCESS;
            continue;
        }
        if (status == KST_SUCCESS) std::fwrite(room.data(), 1, size, out);
    }
    kst_Close(&handle);
    return status;
}

int32_t play_class(kst_host* host, const char* mode, std::FILE* out) {
    C3gpInterface player;
    kst_host_rewind(host);
    unsigned int status = player.Open(kst_host_callbacks(host), mode);
    unsigned char buffer[4096];
    while (status == KST_SUCCESS) {
        unsigned int size = sizeof buffer;
        status = player.ReadChunk(buffer, &size, false);
        std::fwrite(buffer, 1, size, out);  // the last bytes come with KST_END_OF_FILE
    }
    return static_cast<int32_t>(status);
}

bool report_end(const char* api, int32_t status, std::FILE* out) {
    const bool is_written = std::fflush(out) == 0 && std::ferror(out) == 0;
    const bool is_whole = status == KST_END_OF_FILE && is_written;
    std::fprintf(stderr, "%s API: %s\n", api,
                 is_whole     ? "played"
                 : is_written ? kst_StatusString(status)
                              : "the output could not be written");
    return is_whole;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    const char* mode = argv[1];
    const File function_out(std::fopen(argv[2], "wb"));
    const File class_out(std::fopen(argv[3], "wb"));
    const Host upload(kst_host_from_pipe(0));
    if (function_out == nullptr || class_out == nullptr || upload == nullptr) {
        std::perror("hint_upload");
        return 1;
    }
    const Host hinted = hint(upload.get());
    if (hinted == nullptr) return 1;
    const int32_t by_function = play_function(hinted.get(), mode, function_out.get());
    const int32_t by_class = play_class(hinted.get(), mode, class_out.get());
    report_end("class", by_class, class_out.get());
    return report_end("function", by_function, function_out.get()) ? 0 : 1;
}
