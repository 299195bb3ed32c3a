// SPDX-License-Identifier: Apache-2.0
#ifndef KESTREL_COMPANION_PROBE_WATCHED_STREAM_H
#define KESTREL_COMPANION_PROBE_WATCHED_STREAM_H

#include "kestrel/status.h"
#include "kestrel/stream.h"

namespace kestrel::probe {

// The stream of a host, with the first failure of its slots kept: readers take a failed read for
// the end of the file.
class WatchedStream {
  public:
    explicit WatchedStream(KST_IOSTREAM_CALLBACK_INTERFACE* host);
    WatchedStream(const WatchedStream&) = delete;
    WatchedStream& operator=(const WatchedStream&) = delete;

    KST_IOSTREAM_CALLBACK_INTERFACE* table() { return &table_; }

    // KST_SUCCESS, KST_IO_FAILURE or KST_NOT_YET.
    int32_t status() const { return status_; }

  private:
    struct Slots;

    uint32_t note(uint32_t status);

    KST_IOSTREAM_CALLBACK_INTERFACE* host_;
    KST_IOSTREAM_CALLBACK_INTERFACE table_;
    int32_t status_ = KST_SUCCESS;
};

}  // namespace kestrel::probe

#endif
