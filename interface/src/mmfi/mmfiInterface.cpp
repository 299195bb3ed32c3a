// SPDX-License-Identifier: Apache-2.0
#include "interface/src/mmfi/mmfiInterface.h"

#include <cctype>

#include "common/log_sources.h"
#include "common/simple_exception.h"
#include "interface/src/isoff/record/private.h"
#include "kestrel/kstutil.h"
#include "kestrel/status.h"

namespace kestrel {
namespace {

void initialise(mm_Interface* record) {
    record->is_open = 1;
    record->zero_at_open = 0;
    record->status = KST_SUCCESS;
    record->one_at_open = 1;
    record->reader_state = 0;
    record->read_calls = 0;
    record->auxiliary_count = 0;
    record->staged_count = 0;
    record->staged_from = 0;
    record->last_mode_byte = 0;
    record->second_flag = 0;
    record->mode_name = nullptr;
    record->track_id = 0;
    record->track = nullptr;
    record->native = tel_native{};
    record->kept_frame = VID_Frame_Record{};
}

void clear_mode(mm_Interface* record) {
    record->mode = kModeNone;
    record->direction = kDirectionNone;
}

void apply_switch(mm_Interface* record, char letter) {
    switch (letter) {
        case 'a':
            record->mode = kModeAudio;
            record->mode_name = "AUDIO";
            break;
        case 'v':
            record->mode = kModeVideo;
            record->mode_name = "VIDEO";
            break;
        case 'r':
            record->direction = kDirectionRead;
            break;
        default:
            record->status = KST_BAD_MODE;
            throw SimpleException(kMmfiSource, __LINE__,
                                  "Invalid/unsupported mode switch [%c] specified", letter);
    }
}

void parse_switches(mm_Interface* record, const char* mode) {
    for (; *mode != '\0'; ++mode) {
        apply_switch(record, static_cast<char>(std::tolower(static_cast<unsigned char>(*mode))));
    }
    if (record->mode == kModeNone) {
        record->status = KST_BAD_MODE;
        throw SimpleException(kMmfiSource, __LINE__, "Mode not specified");
    }
    if (record->direction == kDirectionNone) {
        record->status = KST_BAD_MODE;
        throw SimpleException(kMmfiSource, __LINE__, "Direction not specified");
    }
}

bool accepts(uint32_t mode, const iso_track* track) {
    switch (track->codec) {
        case ISO_CODEC_SAMR:
        case ISO_CODEC_SAWB:
            return mode == kModeAudio;
        case ISO_CODEC_MP4V:
        case ISO_CODEC_S263:
            return mode == kModeVideo;
        case ISO_CODEC_AVC1:  // not played when its configuration could not be read
            return mode == kModeVideo && track->own->has_bad_config == 0;
        default:
            return false;
    }
}

// Returns the first track that the mode accepts; with a track ID, the first one that also has the
// ID.
iso_track* first_accepted(const mm_Interface* record, const uint32_t* track_id = nullptr) {
    iso_track* track = record->file == nullptr ? nullptr : record->file->first_track;
    for (; track != nullptr; track = track->next) {
        const bool has_id = track_id == nullptr || track->track_id == *track_id;
        if (has_id && accepts(record->mode, track)) return track;
    }
    return nullptr;
}

bool has_aac(const mm_Interface* record) {
    const iso_track* track = record->file == nullptr ? nullptr : record->file->first_track;
    while (track != nullptr && track->codec != ISO_CODEC_MP4A)
        track = track->next;
    return track != nullptr;
}

void require_track(mm_Interface* record) {
    if (first_accepted(record) != nullptr) return;
    record->status = KST_FAILURE;
    if (record->mode == kModeVideo) {
        throw SimpleException(kMmfiSource, __LINE__,
                              "Valid video track (MPEG4, H263, H264) not found.");
    }
    if (has_aac(record)) throw SimpleException(kMmfiSource, __LINE__, "Unsupported track: AAC.");
    throw SimpleException(kMmfiSource, __LINE__, "Valid audio track (AMR-NB, AMR-WB) not found.");
}

// Of several tracks the mode takes the last one; of several with that track's ID, the first one.
iso_track* choose_track(mm_Interface* record) {
    for (iso_track* track = record->file->first_track; track != nullptr; track = track->next) {
        if (accepts(record->mode, track)) record->track_id = track->track_id;
    }
    return first_accepted(record, &record->track_id);
}

void open_for_mode(mm_Interface* record, const char* mode) {
    mmfiParseModeInfo(record, mode);
    if (record->direction != kDirectionRead) {
        record->status = KST_FAILURE;
        throw SimpleException(kMmfiSource, __LINE__, "Unsupported conversion type");
    }
    require_track(record);
    record->track = choose_track(record);
    isoFFrtpHinter(record->track, kMaxPacketBytes);
}

}  // namespace

int32_t mmfi_Open(mm_Interface* record, const char* mode) {
    initialise(record);
    run_guarded(record->status, at(kMmfiSource), [&] { open_for_mode(record, mode); });
    return record->status;
}

int mmfiParseModeInfo(mm_Interface* record, const char* mode) {
    clear_mode(record);
    try {
        parse_switches(record, mode);
    } catch (const SimpleException& caught) {
        clear_mode(record);
        log_caught(kDebug, caught);
        throw;
    } catch (...) {
        clear_mode(record);
        throw SimpleException(kMmfiSource, __LINE__, "%s", kUnhandledThrown);
    }
    return 1;
}

int32_t mmfi_Close(mm_Interface* record) {
    isoFFclose(record->file);
    return KST_SUCCESS;
}

void printInfo(const char* source, const unsigned char* data, int size) {
    constexpr int kPerLine = 10;
    if (!kDebug.enabled() || size < 1) return;
    log_line(kDebug, at(source), "Dump:sz=%d", size);
    for (; size > 0; size -= kPerLine, data += kPerLine) {
        log_line(kDebug, at(source), "Data:%02x %02x %02x %02x %02x %02x %02x %02x %02x %02x",
                 data[0], data[1], data[2], data[3], data[4], data[5], data[6], data[7], data[8],
                 data[9]);
    }
}

int32_t mmfi_Read(mm_Interface* record, unsigned char* buffer, uint32_t* size, bool arriving) {
    if (record == nullptr) {
        throw SimpleException(kMmfiSource, __LINE__, "ReadChunk(): NULL pointer error.");
    }
    record->status = KST_SUCCESS;
    switch (record->track == nullptr ? int32_t{ISO_CODEC_NONE} : record->track->codec) {
        case ISO_CODEC_SAMR:
            return mmfi_Read_AMRNB(record, buffer, size, arriving);
        case ISO_CODEC_SAWB:
            return mmfi_Read_AMRWB(record, buffer, size, arriving);
        case ISO_CODEC_MP4V:
            return mmfi_Read_MPEG4(record, buffer, size, arriving);
        case ISO_CODEC_S263:
            return mmfi_Read_H263(record, buffer, size, arriving);
        case ISO_CODEC_AVC1:
            return mmfi_Read_H264(record, buffer, size, arriving);
        default:
            *size = 0;
            return KST_FAILURE;
    }
}

int32_t mmfi_seek(iso_track* track, uint32_t offset) {
    iso_file* file = track->file;
    const uint16_t status = file->indexed_read
                                ? kstutil_advanceread(file->stream, offset)
                                : kstutil_seek(file->stream, static_cast<int32_t>(offset));
    if (status == 0) return KST_SUCCESS;
    // At debug level only: the caller reports the status.
    log_line(kDebug, at(kMmfiSource), "IO Callback Interface failed with status %d offset %x",
             status, offset);
    return KST_FAILURE;
}

void begin_read(mm_Interface* record, bool arriving) {
    record->file->indexed_read = arriving ? 1 : 0;
    record->read_calls++;
}

}  // namespace kestrel
