// SPDX-License-Identifier: Apache-2.0
// The record of a handle: all per-file state of the conversion layer.
#ifndef KESTREL_INTERFACE_MM_INTERFACE_H
#define KESTREL_INTERFACE_MM_INTERFACE_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "kestrel/isoff.h"
#include "kestrel/native.h"
#include "kestrel/native_records.h"

namespace kestrel {

inline constexpr uint32_t kBufferSize = 64000;

enum Mode : uint32_t { kModeNone = 0, kModeAudio = 1, kModeVideo = 16 };

enum Direction : uint32_t { kDirectionNone = 0, kDirectionRead = 1 };

}  // namespace kestrel

struct mm_Interface {
    uint32_t unused_first;
    uint32_t is_open;
    uint32_t zero_at_open;
    uint32_t unused_second[2];
    uint32_t mode;       // a kestrel::Mode
    uint32_t direction;  // a kestrel::Direction
    int32_t status;      // of the last failure; 0 for none
    uint32_t one_at_open;
    uint32_t reader_state;  // step that the track's reader has reached
    uint32_t read_calls;
    // Two spare bytes, then the sample buffer: one sample or one RTP packet. The audio readers put
    // a frame's mode byte just before the sample buffer.
    uint8_t sample_area[2 + kestrel::kBufferSize];
    uint8_t staging[kestrel::kBufferSize];  // native packets of the next delivery
    uint16_t auxiliary_count;               // audio: bytes of the current frame to deliver
    uint16_t staged_count;                  // bytes of `staging` that are ready
    const char* mode_name;                  // "AUDIO" or "VIDEO"
    tel_native native;
    iso_file* file;
    uint8_t last_mode_byte;  // audio: that of the last speech frame
    uint8_t second_flag;
    uint32_t track_id;
    iso_track* track;
    kestrel::VID_Frame_Record kept_frame;  // video: of the frame that is staged
    uint32_t staged_from;                  // audio: where in `staging` the staged bytes begin

    uint8_t* sample_buffer() { return sample_area + 2; }
    uint8_t* mode_byte() { return sample_area + 1; }
};

// On the 32-bit target the size is fixed: hosts rely on it.
static_assert(sizeof(void*) != 4 || sizeof(mm_Interface) == 128172);
static_assert(offsetof(mm_Interface, staging) ==
              offsetof(mm_Interface, sample_area) + 2 + kestrel::kBufferSize);

#endif
