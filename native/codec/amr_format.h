// SPDX-License-Identifier: Apache-2.0
// AMR frame tables (3GPP TS 26.101, TS 26.201).
#ifndef KESTREL_NATIVE_AMR_FORMAT_H
#define KESTREL_NATIVE_AMR_FORMAT_H

#include <cstdint>

#include "native/codec/payload_types.h"

namespace kestrel {

inline constexpr int kAmrFrameTypes = 16;

// Speech bits of each narrow-band frame type; 8 is comfort noise, 9 to 15 have none.
inline constexpr uint16_t bits[kAmrFrameTypes] = {95, 103, 118, 134, 148, 159, 204, 244, 39};

// The same for the wide band, where 9 is comfort noise.
inline constexpr uint16_t kWideBandBits[kAmrFrameTypes] = {132, 177, 253, 285, 317,
                                                           365, 397, 461, 477, 40};

// Payload bytes of each wide-band frame type for the packetiser. Comfort noise (9) has one byte
// more than its 40 bits need, and types 10 to 13 have lengths without contents: kept on purpose.
inline constexpr uint8_t amr_wb_size[kAmrFrameTypes] = {17, 23, 32, 36, 40, 46, 50, 58,
                                                        60, 6,  34, 45, 60, 60, 0,  0};

// The differences of the two bands.
struct AmrBand {
    const uint16_t (&frame_bits)[kAmrFrameTypes];
    uint32_t sampling_rate;  // Hz, also that of the RTP clock
    uint32_t samples_per_frame;
    uint32_t native_coder;  // of the native stream's frame records
    int native_payload_type;
};

inline constexpr uint32_t kAmrFramesPerSecond = 50;

// A narrow-band speech mode and its number in the native stream.
struct NarrowBandMode {
    uint32_t bits_per_second;
    uint32_t native_coding;
};

// By frame type, 0 to 7.
inline constexpr NarrowBandMode kNarrowBandModes[] = {{4750, 26},  {5150, 27}, {5900, 28},
                                                      {6700, 29},  {7400, 30}, {7950, 31},
                                                      {10200, 32}, {12200, 33}};

inline constexpr uint32_t kWideBandCoding = 51;  // of all wide-band modes in the native stream

// Bit rate of a mode set (of `damr`) with one mode; for any other set that of the highest mode.
constexpr uint32_t amr_bit_rate(uint32_t mode_set) {
    uint32_t bit = 1;
    for (const NarrowBandMode& mode : kNarrowBandModes) {
        if (mode_set == bit) return mode.bits_per_second;
        bit <<= 1;
    }
    return kNarrowBandModes[7].bits_per_second;
}

inline constexpr AmrBand kNarrowBand{bits, 8000, 160, 10, kNativeAmrPayloadType};
inline constexpr AmrBand kWideBand{kWideBandBits, 16000, 320, 20, kNativeAmrWideBandPayloadType};

constexpr const AmrBand& amr_band(bool is_wide) {
    return is_wide ? kWideBand : kNarrowBand;
}

// The one byte of a frame without data, in storage and in interface format.
inline constexpr uint8_t kNoDataFormat1 = 0x78;
inline constexpr uint8_t kNoDataFormat2 = 0x0F;

// A payload (RFC 4867, 4.3): the codec mode request that requests none; of an entry of the table of
// contents, the bit that another one follows, and the bits that it shares with a frame's header.
inline constexpr uint8_t kNoModeRequest = 0xF0;
inline constexpr uint8_t kMoreFollow = 0x80, kTypeAndQuality = 0x7C;

// Returns a nibble with its bits reversed.
inline constexpr uint8_t flip[16] = {0, 8, 4, 12, 2, 10, 6, 14, 1, 9, 5, 13, 3, 11, 7, 15};

// Frame type of a storage-format header byte.
constexpr int storage_frame_type(uint8_t header) {
    return header >> 3 & 15;
}

// Bytes of a storage-format frame of `speech_bits`, its header byte included.
constexpr int storage_frame_size(int speech_bits) {
    return (speech_bits + 7) / 8 + 1;
}

}  // namespace kestrel

#endif
