// SPDX-License-Identifier: Apache-2.0
// What the tests of the box model share: streams over memory, and files built byte by byte.
#ifndef KESTREL_TESTS_SUPPORT_BOX_IO_H
#define KESTREL_TESTS_SUPPORT_BOX_IO_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "boxes/box_base.h"
#include "kestrel/hosts.h"
#include "tests/support/files.h"

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes be(uint64_t value, unsigned width) {
    Bytes bytes;
    while (width-- > 0)
        bytes.push_back(static_cast<uint8_t>(value >> (8 * width)));
    return bytes;
}

// A box header with a size of the test's choosing.
inline Bytes header(uint32_t size, std::string_view type) {
    return be32(size) + text(type);
}

inline Bytes box(std::string_view type, const Bytes& body = {}) {
    return header(static_cast<uint32_t>(8 + body.size()), type) + body;
}

// Version and flags 0.
inline Bytes full_box(std::string_view type, const Bytes& body = {}) {
    return box(type, zeros(4) + body);
}

// A stream that closes itself; reading bytes that it keeps, or writing.
class MemoryStream {
  public:
    MemoryStream() : host_(kst_host_for_writing_memory()) { open(); }
    explicit MemoryStream(Bytes bytes)
        : bytes_(std::move(bytes)), host_(kst_host_from_memory(bytes_.data(), bytes_.size())) {
        open();
    }
    MemoryStream(const MemoryStream&) = delete;
    MemoryStream& operator=(const MemoryStream&) = delete;
    ~MemoryStream() { kst_host_close(host_); }

    Qvox3gp::Stream& io() { return io_; }
    uint32_t size() const { return kst_host_bytes_available(host_); }
    uint32_t position() { return Qvox3gp::macro_Tell(io_); }
    Bytes written() const {
        size_t size = 0;
        const auto* data = static_cast<const uint8_t*>(kst_host_written(host_, &size));
        return {data, data + size};
    }

  private:
    void open() { io_ = kst_host_callbacks(host_); }

    Bytes bytes_;
    kst_host* host_;
    Qvox3gp::Stream io_ = nullptr;
};

// The bytes that a box dumps.
inline Bytes dump(const Qvox3gp::Box& box) {
    MemoryStream out;
    box.Dump(out.io());
    return out.written();
}

inline std::string type_text(uint32_t type) {
    return {reinterpret_cast<const char*>(&type), 4};
}

#endif
