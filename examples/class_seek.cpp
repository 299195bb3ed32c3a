// SPDX-License-Identifier: Apache-2.0
// Plays one track through the class, from a sync sample near a time on, and writes it to standard
// output as a native stream. The track must have an RTP hint track.
//
//     class_seek FILE MODE MILLISECONDS >STREAM
#include <kestrel/c3gpinterface.h>
#include <kestrel/hosts.h>
#include <kestrel/kestrel.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

struct CloseHost {
    void operator()(kst_host* host) const { kst_host_close(host); }
};

unsigned int play(kst_host* host, const char* mode, uint32_t milliseconds) {
    C3gpInterface player;
    unsigned int status = player.Open(kst_host_callbacks(host), mode);
    if (status != KST_SUCCESS) return status;

    _TAG_KST_SEEK_PARAMS seek{};
    seek.nTime = milliseconds;
    seek.fFlags = KST_SEEK_ABSOLUTE | KST_SEEK_PREVIOUS_SYNC;
    status = player.SeekTo(&seek);
    if (status != KST_SUCCESS) return status;
    std::fprintf(stderr, "from %u ms on\n", seek.nTime);

    unsigned char buffer[4096];
    while (status == KST_SUCCESS) {
        unsigned int size = sizeof buffer;
        status = player.ReadChunk(buffer, &size, false);
        std::fwrite(buffer, 1, size, stdout);  // the last bytes come with KST_END_OF_FILE
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    const std::unique_ptr<kst_host, CloseHost> host(kst_host_from_file(argv[1]));
    if (host == nullptr) {
        std::perror(argv[1]);
        return 1;
    }
    const auto milliseconds = static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 10));
    const unsigned int status = play(host.get(), argv[2], milliseconds);
    const bool is_written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    if (status == KST_END_OF_FILE && is_written) return 0;
    std::fprintf(stderr, "%s: %s\n", argv[1],
                 is_written ? kst_StatusString(static_cast<int32_t>(status))
                            : "the output could not be written");
    return 1;
}
