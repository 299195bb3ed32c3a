// SPDX-License-Identifier: Apache-2.0
#include "boxes/stream_io.h"

#include <algorithm>
#include <bit>
#include <cinttypes>

#include "common/bytes.h"
#include "common/log_sources.h"
#include "common/simple_exception.h"

namespace Qvox3gp {
namespace {

constexpr int32_t kCurrentPosition = -1;
constexpr unsigned kMaxDescriptorBytes = 4;

// Throws unless the host classifies `status` as a success. `slot` is the name in the message.
void check(Stream& callbacks, uint32_t status, const char* slot) {
    const uint32_t result = classify(callbacks, status);
    if (result == KST_IO_OK) return;
    const kestrel::LogSite site = kestrel::at(kestrel::kStreamSource);
    const SimpleException failure(
        site.file, site.line, "IO Callback %s() failed with status: %d.  IO Context: 0x%" PRIXPTR,
        slot, static_cast<int>(status), reinterpret_cast<uintptr_t>(callbacks->Context));
    if (is_not_yet(result)) throw NotArrived(failure);
    throw failure;
}

}  // namespace

uint32_t classify(Stream& callbacks, uint32_t status) {
    uint32_t result = KST_IO_OK;
    callbacks->CheckStatus(callbacks->Context, &result, status);
    return result;
}

bool is_not_yet(uint32_t classification) {
    return classification == KST_IO_NOT_YET || classification == KST_IO_NOT_YET_ALSO;
}

uint32_t read_available(Stream& callbacks, void* data, uint32_t count) {
    uint32_t delivered = count;
    check(callbacks, callbacks->SeekNRead(callbacks->Context, data, &delivered, kCurrentPosition),
          "SeekNRead");
    return std::min(delivered, count);
}

bool read_all(Stream& callbacks, std::span<uint8_t> data) {
    while (!data.empty()) {
        const uint32_t got =
            read_available(callbacks, data.data(), static_cast<uint32_t>(data.size()));
        if (got == 0) return false;
        data = data.subspan(got);
    }
    return true;
}

void macro_Read(Stream& callbacks, void* data, uint32_t count) {
    static_cast<void>(read_available(callbacks, data, count));
}

void macro_Write(Stream& callbacks, const void* data, uint32_t count) {
    check(callbacks, callbacks->SeekNWrite(callbacks->Context, data, count, kCurrentPosition),
          "SeekNWrite");
}

void macro_Seek(Stream& callbacks, uint32_t offset) {
    check(callbacks, callbacks->Seek(callbacks->Context, offset), "Seek");
}

uint32_t macro_Tell(Stream& callbacks) {
    uint32_t offset = 0;
    check(callbacks, callbacks->GetOffset(callbacks->Context, &offset), "GetOffset");
    return offset;
}

void macro_SeekRel(Stream& callbacks, int32_t delta) {
    macro_Seek(callbacks, macro_Tell(callbacks) + static_cast<uint32_t>(delta));
}

bool macro_IsEOF(Stream& callbacks) {
    return callbacks->IsEOF(callbacks->Context) != 0;
}

uint32_t GetFileSize(Stream& callbacks) {
    const uint32_t position = macro_Tell(callbacks);
    uint32_t size = 0;
    // A failure of the size query is reported under the name of another query, as hosts expect.
    check(callbacks, callbacks->GetStreamSize(callbacks->Context, &size), "Tell");
    macro_Seek(callbacks, position);
    kestrel::log_line(kestrel::kDebug, kestrel::at(kestrel::kStreamSource),
                      "File size is: %u bytes", size);
    return size;
}

void var8_read(Stream& callbacks, uint8_t& value) {
    value = 0;
    macro_Read(callbacks, &value, sizeof value);
}

void var8_read_noswap(Stream& callbacks, uint8_t& value) {
    var8_read(callbacks, value);
}

void var16_read(Stream& callbacks, uint16_t& value) {
    uint8_t raw[2] = {};
    macro_Read(callbacks, raw, sizeof raw);
    value = kestrel::load_be16(raw);
}

void var16_read(Stream& callbacks, int16_t& value) {
    uint16_t bits = 0;
    var16_read(callbacks, bits);
    value = static_cast<int16_t>(bits);
}

void var32_read(Stream& callbacks, uint32_t& value) {
    uint8_t raw[4] = {};
    macro_Read(callbacks, raw, sizeof raw);
    value = kestrel::load_be32(raw);
}

void var32_read(Stream& callbacks, int32_t& value) {
    uint32_t bits = 0;
    var32_read(callbacks, bits);
    value = static_cast<int32_t>(bits);
}

void var32_read_noswap(Stream& callbacks, uint32_t& value) {
    value = 0;
    macro_Read(callbacks, &value, sizeof value);
}

void var8_write(Stream& callbacks, uint8_t value) {
    macro_Write(callbacks, &value, sizeof value);
}

void var8_write_noswap(Stream& callbacks, uint8_t value) {
    var8_write(callbacks, value);
}

void var16_write(Stream& callbacks, uint16_t value) {
    uint8_t raw[2];
    kestrel::store_be16(raw, value);
    macro_Write(callbacks, raw, sizeof raw);
}

void var32_write(Stream& callbacks, uint32_t value) {
    uint8_t raw[4];
    kestrel::store_be32(raw, value);
    macro_Write(callbacks, raw, sizeof raw);
}

void var32_write_noswap(Stream& callbacks, uint32_t value) {
    macro_Write(callbacks, &value, sizeof value);
}

unsigned int ReadDescriptorSize(Stream& callbacks, unsigned int& size, unsigned int most) {
    size = 0;
    unsigned int taken = 0;
    uint8_t byte = 0;
    do {
        var8_read(callbacks, byte);
        size = size << 7 | (byte & 0x7F);
        ++taken;
    } while ((byte & 0x80) != 0 && taken < std::min(most, kMaxDescriptorBytes));
    return taken;
}

}  // namespace Qvox3gp
