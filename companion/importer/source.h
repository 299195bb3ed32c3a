// SPDX-License-Identifier: Apache-2.0
// The file of a host: positioned reads of known size, and a window for small ones.
#ifndef KESTREL_COMPANION_IMPORTER_SOURCE_H
#define KESTREL_COMPANION_IMPORTER_SOURCE_H

#include <array>
#include <cstdint>
#include <string>

#include "kestrel/stream.h"

namespace kestrel::importer {

class Source {
  public:
    explicit Source(KST_IOSTREAM_CALLBACK_INTERFACE& host) : host_(host) {}
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    // Gets the length of the file. Call it first. On failure error() has the reason.
    bool open();

    std::uint64_t size() const { return size_; }
    // The reason of a failure, or empty.
    const std::string& error() const { return error_; }

    // Returns `count` bytes (at most kMaxTaken) of the file at `offset`, valid until the next call,
    // or null. Reads ahead up to `limit`. Requires offset + count <= limit <= size().
    const std::uint8_t* take(std::uint64_t offset, std::uint32_t count, std::uint64_t limit) {
        if (offset < window_begin_ || offset + count > window_end_) {
            if (!fill(offset, limit)) return nullptr;
        }
        return window_.data() + (offset - window_begin_);
    }

    // Copies `count` bytes at `offset`. Requires offset + count <= size().
    bool copy(std::uint64_t offset, std::uint8_t* to, std::uint64_t count);

    static constexpr std::uint32_t kMaxTaken = 16;

  private:
    bool fill(std::uint64_t offset, std::uint64_t limit);
    bool read(std::uint64_t offset, std::uint8_t* to, std::uint32_t count);
    bool succeeded(std::uint32_t status, const char* what);

    static constexpr std::uint32_t kWindow = 16 * 1024;

    KST_IOSTREAM_CALLBACK_INTERFACE& host_;
    std::uint64_t size_ = 0;
    std::uint64_t window_begin_ = 0;
    std::uint64_t window_end_ = 0;
    std::array<std::uint8_t, kWindow> window_{};
    std::string error_;
};

}  // namespace kestrel::importer

#endif
