// Playing a stream through the exported functions, and hosts that misbehave.
#ifndef KESTREL_TESTS_PLAYING_H
#define KESTREL_TESTS_PLAYING_H

#include <functional>

#include "kestrel/hosts.h"
#include "kestrel/kestrel.h"
#include "tests/support/files.h"

// What came of playing a track.
struct Played {
    int32_t status = KST_SUCCESS;  // that ended it
    bool opened = false;
    Bytes stream;
};

// Opens and reads to the end, waiting for a host whose file arrives.
Played play(kst_host* host, const char* mode);
Played play(const Bytes& file, const char* mode);
Played play_arriving(const Bytes& file, const char* mode, uint32_t step);

// The speech file (RFC 4867, 5) that an audio stream was made from.
Bytes unpack_speech(const Bytes& stream, bool wide_band);

// A host over memory whose calls can be made to fail. The statuses it returns are those of
// kst_host.
class FaultyHost {
  public:
    explicit FaultyHost(const Bytes& file);
    FaultyHost(const FaultyHost&) = delete;
    FaultyHost& operator=(const FaultyHost&) = delete;
    ~FaultyHost();

    KST_IOSTREAM_CALLBACK_INTERFACE* callbacks() { return &table_; }
    void rewind() { kst_host_rewind(host_); }

    // Asked before each call with its number, from 0; a status other than KST_HOST_OK is returned
    // in place of the call.
    std::function<uint32_t(int call)> fault;
    int calls = 0;
    std::vector<std::string> names;  // of the slots called, in order

  private:
    struct Slots;
    uint32_t ask(const char* name);

    kst_host* host_;
    KST_IOSTREAM_CALLBACK_INTERFACE* inner_;
    KST_IOSTREAM_CALLBACK_INTERFACE table_;
};

#endif
