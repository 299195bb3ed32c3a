// SPDX-License-Identifier: Apache-2.0
// What the tests of the box model share: streams over memory, and files built byte by byte and
// read.
#ifndef KESTREL_TESTS_SUPPORT_BOX_IO_H
#define KESTREL_TESTS_SUPPORT_BOX_IO_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "boxes/box_base.h"
#include "boxes/simple3gp.h"
#include "common/simple_exception.h"
#include "tests/support/memory_host.h"

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
    MemoryStream() = default;
    explicit MemoryStream(Bytes bytes) : bytes_(std::move(bytes)), host_(bytes_) {}

    Qvox3gp::Stream& io() { return io_; }
    uint32_t size() const { return kst_host_bytes_available(host_.get()); }
    uint32_t position() { return Qvox3gp::macro_Tell(io_); }
    Bytes written() const { return host_.written(); }

  private:
    Bytes bytes_;
    MemoryHost host_;
    Qvox3gp::Stream io_ = host_.table();
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

constexpr const char* kInvalidSize = "Invalid size found in box.";

// What an action throws.
inline std::string message_of(const std::function<void()>& action) {
    try {
        action();
    } catch (const SimpleException& exception) {
        return exception.message();
    }
    return "";
}

inline std::string invalid_size(uint32_t position, uint32_t size, uint32_t file_size) {
    return "Invalid size found in box.  Current file position is " + std::to_string(position) +
           ", box size is " + std::to_string(size) + ", total offset is " +
           std::to_string(position + size) + ".  File size is " + std::to_string(file_size) + ".";
}

// Reads a file and hands it to a check; answers what was thrown.
inline std::string read_file(
    const Bytes& bytes,
    const std::function<void(Qvox3gp::Simple3gp&)>& check = [](Qvox3gp::Simple3gp&) {}) {
    MemoryStream in(bytes);
    Qvox3gp::Simple3gp file;
    std::string message = message_of([&] { file.Read(in.io(), 0); });
    check(file);
    return message;
}

inline const Bytes kFtyp = box("ftyp", text("3gp4") + be32(0x200) + text("3gp4"));

#endif
