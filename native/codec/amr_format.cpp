// SPDX-License-Identifier: Apache-2.0
#include "native/codec/amr_format.h"

#include "kestrel/native.h"

using namespace kestrel;

namespace {

constexpr int kSpeechTypes = 9;  // 0 to 7 are speech, 8 is comfort noise
constexpr int kNoDataType = 15;
constexpr uint8_t kGoodQuality = 4;

const uint8_t* bytes_of(const void* memory) {
    return static_cast<const uint8_t*>(memory);
}

int interface_frame_type(uint8_t first) {
    return first & 15;
}

int interface_frame_size(int ft) {
    return (bits[ft] + 11) / 8;
}

bool is_frame_type(int ft) {
    return ft < kSpeechTypes || ft == kNoDataType;
}

// Converts the frames of a run one by one.
int convert_run(const void* in, void* out, int len, int format,
                int (*convert)(const void*, void*)) {
    const uint8_t* from = bytes_of(in);
    auto* to = static_cast<uint8_t*>(out);
    int written = 0;
    while (len > 0) {
        const int size = amr_get_size(from, format);
        if (size <= 0 || size > len) break;
        const int made = convert(from, to + written);
        if (made == 0) break;
        from += size;
        len -= size;
        written += made;
    }
    return written;
}

}  // namespace

int amr_get_size(const void* frame, int format) {
    const uint8_t first = *bytes_of(frame);
    switch (format) {
        case 1:
            return storage_frame_size(bits[storage_frame_type(first)]);
        case 2:
            return interface_frame_size(interface_frame_type(first));
        case 3:
            return amr_wb_size[storage_frame_type(first)] + 1;
        default:
            return -1;
    }
}

int amr_get_format(const void* frame, int len, int* ft) {
    if (len < 1) return -1;
    const uint8_t first = *bytes_of(frame);
    const int types[] = {storage_frame_type(first), interface_frame_type(first)};
    for (int format = 1; format <= 2; ++format) {
        const int type = types[format - 1];
        if (amr_get_size(frame, format) != len || !is_frame_type(type)) continue;
        if (ft != nullptr) *ft = type;
        return format;
    }
    return -1;
}

int amr2cod(const void* in, void* out) {
    const uint8_t* from = bytes_of(in);
    auto* to = static_cast<uint8_t*>(out);
    const int ft = storage_frame_type(from[0]);
    if (ft == kNoDataType) {
        to[0] = kNoDataFormat2;
        return 1;
    }
    if (ft >= kSpeechTypes) return 0;
    const int in_size = storage_frame_size(bits[ft]);
    const int out_size = interface_frame_size(ft);
    uint8_t low = static_cast<uint8_t>(ft);
    for (int i = 0; i < out_size; ++i) {
        const uint8_t next = i + 1 < in_size ? from[i + 1] : uint8_t{0};
        to[i] = static_cast<uint8_t>(low | flip[next >> 4] << 4);
        low = flip[next & 15];
    }
    return out_size;
}

int cod2amr(const void* in, void* out) {
    const uint8_t* from = bytes_of(in);
    auto* to = static_cast<uint8_t*>(out);
    const int ft = interface_frame_type(from[0]);
    if (ft == kNoDataType) {
        to[0] = kNoDataFormat1;
        return 1;
    }
    if (ft >= kSpeechTypes) return 0;
    const int in_size = interface_frame_size(ft);
    const int out_size = storage_frame_size(bits[ft]);
    to[0] = static_cast<uint8_t>(ft << 3 | kGoodQuality);
    for (int i = 1; i < out_size; ++i) {
        const uint8_t next = i < in_size ? from[i] : uint8_t{0};
        to[i] = static_cast<uint8_t>(flip[from[i - 1] >> 4] << 4 | flip[next & 15]);
    }
    return out_size;
}

int amr1_to_amr2(const void* in, void* out, int len) {
    return convert_run(in, out, len, 1, amr2cod);
}

int amr2_to_amr1(const void* in, void* out, int len) {
    return convert_run(in, out, len, 2, cod2amr);
}

void orb_remove_amr_dtx(void*, int, int) {}
