// SPDX-License-Identifier: Apache-2.0
#include "interface/src/isoff/write/writer.h"

#include <algorithm>
#include <exception>
#include <new>
#include <vector>

#include "common/box_header.h"
#include "common/movie_defaults.h"
#include "interface/src/isoff/write/boxes.h"
#include "interface/src/isoff/write/chunk_layout.h"
#include "interface/src/isoff/write/media_output.h"
#include "kestrel/kstutil.h"

// The writer: takes samples, places them in the file and writes the file.

namespace kestrel {
namespace {

constexpr uint32_t kBoxSizeField = 4;
constexpr uint32_t kFileOverhead = 24;  // added to the cost of a track by isoFFwrite

// What a sample adds to the header.
constexpr uint32_t kSizeCost = 4;
constexpr uint32_t kEntryCost = 8;  // a time-to-sample or composition entry, and the first sample

// iso_file::write_way.
enum WriteWay { kNotSettled, kQueued, kDirect };

// Whether samples are written to the stream at once. The first sample decides, because the two ways
// cannot be mixed.
bool is_direct(iso_file* file) {
    if (file->own->write_way == kNotSettled)
        file->own->write_way = file->own->direct_write ? kDirect : kQueued;
    return file->own->write_way == kDirect;
}

// --- taking samples ---

// `before` is the track's previous sample, null for the first one.
uint64_t header_cost_of(const iso_track* track, const SampleFigures& sample,
                        const SampleFigures* before) {
    const uint32_t duration_before = before == nullptr ? 0 : before->duration;
    const int32_t offset_before = before == nullptr ? 0 : before->cts_offset;
    uint64_t cost = uint64_t{sample.size} + kSizeCost;
    if (sample.duration != duration_before) cost += kEntryCost;
    if (sample.cts_offset != offset_before) cost += kEntryCost;
    // A first sample that is empty cannot give a constant size, so the table is needed from the
    // start.
    if (before == nullptr) return cost + kEntryCost + (sample.size == 0 ? kSizeCost : 0);
    const auto samples = static_cast<uint64_t>(track->sample_count);
    if (track->sample_size == 0) return cost + kSizeCost;
    // The size table becomes necessary, also for the samples so far.
    return sample.size != track->sample_size ? cost + kSizeCost + kSizeCost * samples : cost;
}

void count_sample(iso_track* track, const SampleFigures& sample, const SampleFigures* before) {
    const uint64_t cost = header_cost_of(track, sample, before);
    track->own->header_cost += cost;
    track->file->own->track_cost += cost;
    if (before == nullptr) track->sample_size = sample.size;
    if (sample.size != track->sample_size) track->sample_size = 0;
    if (before == nullptr || sample.duration != before->duration) track->stts_count++;
    if (before == nullptr || sample.cts_offset != before->cts_offset) track->ctts_count++;
    track->sample_count++;
    track->duration += sample.duration;
    track->total_bytes += sample.size;
    track->max_sample_size = std::max(track->max_sample_size, sample.size);
}

SampleFigures figures_of(const iso_frame& frame) {
    return {frame.size, frame.duration, frame.cts_offset};
}

void append_frame(iso_track* track, iso_frame* frame) {
    iso_frame* last = track->own->last_frame;
    const SampleFigures before = last == nullptr ? SampleFigures{} : figures_of(*last);
    count_sample(track, figures_of(*frame), last == nullptr ? nullptr : &before);
    (last == nullptr ? track->own->first_frame : last->next) = frame;
    track->own->last_frame = frame;
}

// Returns a record for the sample, with a copy of its bytes if they are kept in memory.
iso_frame* new_frame(iso_track* track, const void* data, uint32_t size) {
    const bool in_memory = track->own->spool == nullptr && !is_direct(track->file);
    const size_t kept = in_memory ? size : 0;
    if (kept > SIZE_MAX - sizeof(iso_frame)) return nullptr;
    auto* memory = static_cast<uint8_t*>(isoFFmalloc(track->file, sizeof(iso_frame) + kept));
    if (memory == nullptr) return nullptr;
    auto* frame = new (memory) iso_frame{};
    frame->size = size;
    if (in_memory) {
        if (kept != 0) std::memcpy(memory + sizeof(iso_frame), data, kept);
        frame->data = memory + sizeof(iso_frame);
    }
    return frame;
}

// Whether `size` more bytes of a sample fit: the track within the limit for each track, and the
// whole file within 32 bits.
bool has_room(const iso_track* track, uint32_t size) {
    const iso_file* file = track->file;
    const uint64_t more = uint64_t{size} + kFileOverhead;
    if (track->own->header_cost + more > file->size_limit) return false;
    return file->header_size + file->own->track_cost + more <= UINT32_MAX;
}

int check_limits(iso_track* track, uint32_t size, uint32_t duration) {
    const uint64_t units = uint64_t{track->duration} + duration;
    const bool fits = has_room(track, size);
    if (fits && units <= track->own->duration_limit) return 0;
    track->own->closed = 1;
    return fits ? kTooLong : kTooLarge;
}

// --- going back in the stream ---

// Moves the stream to a position that was written before.
bool move_to(iso_file* file, uint32_t position) {
    uint32_t at = 0;
    if (kstutil_seek(file->stream, static_cast<int32_t>(position)) != 0) return false;
    if (kstutil_getoffset(file->stream, &at) != 0 || at != position) return false;
    file->own->write_pos = position;
    return true;
}

// --- direct-write mode ---

// Writes `ftyp` and the header of `mdat` before the first sample. The box runs to the end of the
// file until the file is finished, so that an unfinished file has no `moov`.
bool begin_direct(iso_file* file) {
    if (file->own->write_pos != 0) return true;
    uint8_t raw[kBoxHeader];
    store_box_header(raw, {kSizeToEnd, fourcc("mdat")});
    std::vector<uint8_t> ftyp(static_cast<size_t>(measure(write_ftyp, file)));
    BoxWriter out(ftyp);
    write_ftyp(out, file);
    file->own->direct_track_limit = file->next_track_id - 1;
    for (const iso_track* track = file->first_track; track != nullptr; track = track->next)
        file->own->direct_track_limit = std::max(file->own->direct_track_limit, track->track_id);
    return write_stream(file, ftyp.data(), static_cast<uint32_t>(ftyp.size())) &&
           write_stream(file, raw, sizeof raw);
}

// Writes a sample at the end of the file. Returns its size, or an error.
int flush_frame(iso_track* track, const void* data, iso_frame* frame) {
    iso_file* file = track->file;
    const bool goes_on = file->own->direct_track == track &&
                         span_allows(track, track->own->run_units, frame->duration);
    constexpr uint32_t kOnlyDescription = 1;
    if (!goes_on && !begin_run(track, file->own->write_pos, kOnlyDescription)) return kNoMemory;
    file->own->direct_track = track;
    if (!write_stream(file, data, frame->size)) {
        file->own->finalised = 1;  // the stream is not at the offset that the tables have
        return kFellShort;
    }
    track->own->last_run->samples++;
    track->own->run_units += frame->duration;
    return static_cast<int>(frame->size);
}

int begin_flush(iso_track* track) {
    if (!begin_direct(track->file)) {
        track->file->own->finalised = 1;
        return kFellShort;
    }
    return track->track_id > track->file->own->direct_track_limit ? kTrackTooLate : 0;
}

// Overwrites four bytes, and moves back to the end of the file.
bool patch(iso_file* file, uint32_t at, uint32_t value) {
    const uint32_t end = file->own->write_pos;
    uint8_t raw[4];
    store_be32(raw, value);
    if (!move_to(file, at) || !write_stream(file, raw, sizeof raw)) return false;
    return move_to(file, end);
}

bool passes_agree(iso_file* file, uint64_t measured, uint64_t written) {
    if (written == measured) return true;
    remark(file, "isoff error: pass 1 header size (%d) different from pass 2 (%d)\n",
           static_cast<int>(measured), static_cast<int>(written));
    return false;
}

// Writes `moov` after the media, then the size of `mdat` before it.
int finish_direct(iso_file* file, uint32_t media_header) {
    const uint32_t media_end = file->own->write_pos;
    std::vector<uint8_t> moov(static_cast<size_t>(measure(write_moov, file)));
    BoxWriter out(moov);
    const uint64_t written = write_moov(out, file);
    if (!passes_agree(file, moov.size(), written)) return kFellShort;
    if (moov.size() > UINT32_MAX - media_end) return kTooLarge;
    if (!write_stream(file, moov.data(), static_cast<uint32_t>(moov.size()))) return kFellShort;
    return patch(file, media_header, media_end - media_header) ? 0 : kFellShort;
}

// --- queued mode ---

bool write_spooled(std::FILE* spool, uint32_t size, MediaOutput& output) {
    uint8_t piece[4096];
    while (size > 0) {
        const uint32_t count = std::min<uint32_t>(size, sizeof piece);
        if (std::fread(piece, 1, count, spool) != count) return false;
        if (!output.write({piece, count})) return false;
        size -= count;
    }
    return true;
}

bool write_queued_chunk(const ChunkOrder::Chunk& chunk, MediaOutput& output) {
    const iso_frame* frame = chunk.first.frame();
    for (uint32_t i = 0; i < chunk.samples; ++i, frame = frame->next) {
        const bool written = frame->data == nullptr
                                 ? write_spooled(chunk.track->own->spool, frame->size, output)
                                 : output.write({frame->data, frame->size});
        if (!written) return false;
    }
    return true;
}

bool write_media(iso_file* file) {
    MediaOutput output(file);
    for (ChunkOrder chunks(file); !chunks.at_end();) {
        const ChunkOrder::Chunk chunk = chunks.next();
        SampleProvider* provider = chunk.first.provider();
        const bool written = provider == nullptr
                                 ? write_queued_chunk(chunk, output)
                                 : provider->write(chunk.first.number(), chunk.samples, output);
        if (!written) return false;
    }
    return output.flush();
}

bool rewind_spools(iso_file* file) {
    for (iso_track* track = file->first_track; track != nullptr; track = track->next) {
        if (track->own->spool == nullptr) continue;
        if (std::fflush(track->own->spool) != 0 ||
            std::fseek(track->own->spool, 0, SEEK_SET) != 0) {
            return false;
        }
    }
    return true;
}

// Makes `ftyp`, `moov` and the header of `mdat` as one run of bytes; `moov_type` is the offset of
// the type of `moov` in it. Returns 0, or an error when a file cannot hold them or the two passes
// differ.
int make_header(iso_file* file, uint64_t media, std::vector<uint8_t>& header, size_t& moov_type) {
    const uint64_t ftyp = measure(write_ftyp, file);
    const uint64_t measured = ftyp + measure(write_moov, file) + kBoxHeader;
    if (measured + media > UINT32_MAX) return kTooLarge;
    file->own->media_base = static_cast<uint32_t>(measured);
    header.resize(static_cast<size_t>(measured));
    moov_type = static_cast<size_t>(ftyp) + kBoxSizeField;
    BoxWriter out(header);
    write_ftyp(out, file);
    write_moov(out, file);
    out.u32(static_cast<uint32_t>(media + kBoxHeader));
    out.u32(fourcc("mdat"));
    return passes_agree(file, measured, out.position()) ? 0 : kFellShort;
}

// Whether the stream can move to its start and to its position again.
bool can_go_back(iso_file* file) {
    const uint32_t here = file->own->write_pos;
    return move_to(file, 0) && move_to(file, here);
}

// Writes the header and the samples. The type of `moov` is `free` until the last sample is written,
// so that a truncated file has no `moov`. A stream that cannot move back gets `moov` at once.
int write_parts(iso_file* file, std::vector<uint8_t>& header, size_t moov_type) {
    const std::span bytes(header);
    const auto write = [&](std::span<const uint8_t> part) {
        return write_stream(file, part.data(), static_cast<uint32_t>(part.size()));
    };
    if (!write(bytes.first(moov_type))) return kFellShort;
    const uint32_t written = file->own->write_pos;
    const bool goes_back = can_go_back(file);
    file->own->write_pos = written;
    if (goes_back) store_be32(header.data() + moov_type, fourcc("free"));
    if (!write(bytes.subspan(moov_type))) return kFellShort;
    if (!write_media(file)) return kFellShort;
    if (!goes_back) return 0;
    return patch(file, static_cast<uint32_t>(moov_type), fourcc("moov")) ? 0 : kFellShort;
}

int write_queued(iso_file* file) {
    const std::optional<uint64_t> media = lay_out_chunks(file);
    if (!media) return kNoMemory;
    std::vector<uint8_t> header;
    size_t moov_type = 0;
    const int made = make_header(file, *media, header, moov_type);
    if (made != 0) return made;
    if (!rewind_spools(file)) return kFellShort;
    return write_parts(file, header, moov_type);
}

// Sets the duration of the movie.
void settle_movie(iso_file* file) {
    for (const iso_track* track = file->first_track; track != nullptr; track = track->next) {
        file->duration = std::max(file->duration, movie_duration(track));
    }
}

bool spool_sample(iso_track* track, const void* data, uint32_t size) {
    return size == 0 || std::fwrite(data, 1, size, track->own->spool) == size;
}

int take_sample(iso_track* track, const void* data, uint32_t size, uint32_t duration,
                int32_t cts_offset) {
    iso_file* file = track->file;
    iso_frame* frame = new_frame(track, data, size);
    if (frame == nullptr) return kNoMemory;
    frame->duration = duration;
    frame->cts_offset = cts_offset;
    if (is_direct(file)) {
        const int flushed = flush_frame(track, data, frame);
        if (flushed < 0) return flushed;
    } else if (track->own->spool != nullptr && !spool_sample(track, data, size)) {
        file->own->finalised = 1;  // the samples after it would be misplaced in the temporary file
        return kFellShort;
    }
    append_frame(track, frame);
    track->own->frame_default = duration;
    return static_cast<int>(size);
}

}  // namespace

bool write_stream(iso_file* file, const void* from, uint32_t count) {
    const auto* table = file->stream;
    if (table == nullptr || table->SeekNWrite == nullptr) return false;
    if (count == 0) return true;
    if (count > UINT32_MAX - file->own->write_pos) return false;
    // The first write begins at the start of the stream.
    if (file->own->write_pos == 0 && kstutil_seek(file->stream, 0) != 0) return false;
    const uint32_t status = table->SeekNWrite(table->Context, from, count, -1);
    if ((status & 0xFFFF) != 0) return false;
    // The slot does not report how many bytes it took, but the position shows it.
    file->own->write_pos += count;
    uint32_t at = 0;
    return kstutil_getoffset(file->stream, &at) == 0 && at == file->own->write_pos;
}

int finalise(iso_file* file) try {
    if (file->own->finalised) return kFellShort;
    file->own->finalised = 1;
    settle_movie(file);
    if (!is_direct(file)) return write_queued(file);
    if (!begin_direct(file)) return kFellShort;
    return finish_direct(file, static_cast<uint32_t>(measure(write_ftyp, file)));
} catch (const std::exception&) {  // no memory, or more than a vector can hold
    return kNoMemory;
}

bool MediaOutput::write(std::span<const uint8_t> bytes) {
    if (bytes.size() > kPiece - waiting_.size() && !flush()) return false;
    if (bytes.size() > kPiece) {
        return write_stream(file_, bytes.data(), static_cast<uint32_t>(bytes.size()));
    }
    waiting_.insert(waiting_.end(), bytes.begin(), bytes.end());
    return true;
}

bool MediaOutput::flush() {
    const auto size = static_cast<uint32_t>(waiting_.size());
    const bool written = write_stream(file_, waiting_.data(), size);
    waiting_.clear();
    return written;
}

int provide_samples(iso_track* track, SampleProvider& provider) {
    SampleFigures before;
    for (uint32_t i = 0; i < provider.count(); ++i) {
        const SampleFigures sample = provider.figures(i);
        const int refused = check_limits(track, sample.size, sample.duration);
        if (refused != 0) return refused;
        count_sample(track, sample, i == 0 ? nullptr : &before);
        before = sample;
    }
    track->own->provider = &provider;
    return 0;
}

void abandon(iso_file* file) {
    file->own->finalised = 1;
}

int check_open(const iso_track* track) {
    if (track->file->own->finalised) return kFellShort;
    return track->own->closed ? kTrackClosed : 0;
}

int write_sample(iso_track* track, std::span<const uint8_t> sample, uint32_t duration,
                 int32_t cts_offset) {
    const auto size = static_cast<uint32_t>(sample.size());
    int refused = check_open(track);
    if (refused == 0) refused = check_limits(track, size, duration);
    if (refused == 0 && is_direct(track->file)) refused = begin_flush(track);
    if (refused != 0) return refused;
    return take_sample(track, sample.data(), size, duration, cts_offset);
}

TrackAttempt::TrackAttempt(iso_file* file) : file_(file) {
    if (file == nullptr) return;
    last_track_ = file->own->last_track;
    next_track_id_ = file->next_track_id;
    header_size_ = file->header_size;
    has_visual_ = file->own->has_visual;
}

TrackAttempt::~TrackAttempt() {
    if (file_ == nullptr) return;
    (last_track_ == nullptr ? file_->first_track : last_track_->next) = nullptr;
    file_->own->last_track = last_track_;
    file_->next_track_id = next_track_id_;
    file_->header_size = header_size_;
    file_->own->has_visual = has_visual_;
}

iso_track* TrackAttempt::keep(iso_track* track) {
    file_ = nullptr;
    return track;
}

iso_track* new_media_track(iso_file* file, int32_t codec, uint32_t timescale,
                           uint32_t entry_bytes) {
    if (file == nullptr || !file->write_mode) return nullptr;
    iso_track* track = isoFFtrack(file);
    if (track == nullptr) return nullptr;
    track->codec = codec;
    track->timescale = timescale;
    const double units = file->interleave_limit * timescale;
    // A timescale of 0, which the caller still sets, gives no limit.
    const bool limited = timescale != 0 && units < 4294967295.0;
    track->own->duration_limit = limited ? static_cast<uint32_t>(units) : UINT32_MAX;
    file->header_size += entry_bytes;
    return track;
}

iso_track* new_visual_track(iso_file* file, int32_t codec, uint32_t timescale, uint32_t width,
                            uint32_t height, uint32_t entry_bytes) {
    if (width > UINT16_MAX || height > UINT16_MAX) return nullptr;
    iso_track* track = new_media_track(file, codec, timescale, entry_bytes);
    if (track == nullptr) return nullptr;
    file->own->has_visual = 1;
    std::memcpy(track->handler, "vide", sizeof track->handler);
    track->width = width;
    track->height = height;
    track->horiz_resolution = track->vert_resolution = kScreenResolution;
    track->own->depth = kColourDepth;
    track->own->frame_count = 1;
    return track;
}

}  // namespace kestrel

using namespace kestrel;

int isoFFsetBrand(iso_file* file, const char* brands, int minor_version) {
    constexpr size_t kCodeAndBlank = 5;
    if (file == nullptr || brands == nullptr) return -1;
    // Also refuses a file that is read, and one whose `ftyp` was written.
    if (!file->write_mode || file->own->write_pos != 0) return -1;
    const size_t length = std::strlen(brands) + 1;
    if (length < kCodeAndBlank || length % kCodeAndBlank != 0) return -1;
    auto* list = arena_array<char>(file, length);
    if (list == nullptr) return -1;
    std::memcpy(list, brands, length);
    std::memcpy(file->major_brand, brands, 4);
    file->major_brand[4] = '\0';
    file->minor_version = minor_version;
    file->compatible_brands = list;
    return 0;
}

int isoFFwrite(iso_track* track, void* data, int size, int duration, int cts_offset) try {
    // Also refuses a sample without data, a negative duration and a file that is read.
    if (track == nullptr || size < 0 || duration < 0 || (data == nullptr && size > 0) ||
        !track->file->write_mode) {
        return kBadArgument;
    }
    const uint32_t units =
        duration == 0 ? track->own->frame_default : static_cast<uint32_t>(duration);
    return write_sample(track, {static_cast<const uint8_t*>(data), static_cast<size_t>(size)},
                        units, cts_offset);
} catch (const std::bad_alloc&) {
    return kNoMemory;
}
