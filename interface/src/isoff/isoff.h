// Inside of the ISO reader: what its source files share.
#ifndef KESTREL_INTERFACE_ISOFF_H
#define KESTREL_INTERFACE_ISOFF_H

#include "common/bytes.h"
#include "interface/src/isoff/private.h"

namespace kestrel {

// The source path that the reader's log lines carry.
inline constexpr const char* kIsoffSource = "isoff";

// A short diagnostic line on the standard error stream.
void diagnose(const char* format, ...) __attribute__((format(printf, 1, 2)));

// --- arena ---

// Frees every block of a chain of arena blocks.
void safefree(void* first_block);

// `count` zeroed objects from the arena, or null.
template <typename T>
T* arena_array(iso_file* file, size_t count);

// --- byte readers: big-endian, from the in-memory `moov` while in_moov_buffer is 1, else from the
// stream ---

// Reads exactly `count` bytes of the stream; false on a failure or when fewer came.
bool read_stream(iso_file* file, void* to, uint32_t count);

// Take bytes of, and move in, the in-memory `moov`. Asking for more than is left prints a line,
// changes nothing and answers false.
bool read_buf(iso_file* file, void* to, uint32_t count);
bool seek_buf(iso_file* file, uint32_t count);

bool getbytes(iso_file* file, void* to, uint32_t count);

// A value that cannot be read is 0; that of getint32, 0xFFFFFFFF.
uint8_t getbyte(iso_file* file);
uint16_t getint16(iso_file* file);
uint32_t getint24(iso_file* file);
uint32_t getint32(iso_file* file);

// A four-character code, NUL-terminated.
bool getID(iso_file* file, char (&code)[5]);

// An MPEG-4 descriptor length (ISO/IEC 14496-1, 8.3.3): stores it and returns the number of bytes
// it took, -1 when it cannot be read.
int getxlen(iso_file* file, uint32_t& length);

// Passes over `count` bytes: 1, 0 when they cannot be read, -1 when the stream does not tell its
// offset.
int skip(iso_file* file, uint32_t count);

// The in-memory media data, with fread's and fseek's arguments.
size_t mread(void* destination, size_t size, size_t count, iso_file* file);
int mseek(iso_file* file, long offset, int whence);

// --- box walk ---

struct isobox {
    const char* type;  // four characters; null ends a table
    // Reads the body of `body` bytes. 0: go on; 1: end the walk successfully; any other value: end
    // it with that value.
    int (*handler)(iso_file* file, uint32_t body);
};

// Walks the boxes of `table` over `size` bytes. Inside `moov` a handler sees the bytes of its own
// box and no more, whatever the sizes in the file say.
int parse(iso_file* file, const isobox* table, int size);

// Walks what is left of the box at hand.
int parse_rest(iso_file* file, const isobox* table);

// Walks the whole file; its result is of no account to isoFFopen.
int read_header(iso_file* file);

// --- box handlers that live elsewhere ---

int read_stts(iso_file* file, uint32_t body);
int read_ctts(iso_file* file, uint32_t body);
int read_stsc(iso_file* file, uint32_t body);
int read_stsz(iso_file* file, uint32_t body);
int read_stco(iso_file* file, uint32_t body);
int read_stss(iso_file* file, uint32_t body);
int read_sbgp(iso_file* file, uint32_t body);
int read_sgpd(iso_file* file, uint32_t body);

int read_damr(iso_file* file, uint32_t body);
int read_dawp(iso_file* file, uint32_t body);
int read_d263(iso_file* file, uint32_t body);
int read_esds(iso_file* file, uint32_t body);
int read_avcC(iso_file* file, uint32_t body);

// Keeps a copy of decoder-specific information in the track; false when there is no memory.
bool keep_dsi(iso_track* track, std::span<const uint8_t> bytes);

// Puts the parameter sets of the track's `avcC` behind start codes, as far as there is room for
// them, and returns the length of all.
size_t put_start_coded_sets(const iso_track* track, std::span<uint8_t> to);

// Brings a track's tables into agreement when its `stbl` has been read: fills the chunk ends, sets
// the cursor to the first sample. 0, or -1 when the tables cannot be used.
int check_tables(iso_track* track);

// The hint track of `media` that isoFFrtpHinter attached with this packet limit, its cursor left
// alone; null without one that has packets.
iso_track* attached_hint_track(const iso_track* media, int max_packet);

// --- writer ---

// Writes what the file still lacks, once. 0, or a negative code of isoFFclose.
int finalise(iso_file* file);

// Writes at the stream's position; false when the stream failed or took fewer bytes.
bool write_stream(iso_file* file, const void* from, uint32_t count);

// 0, or the error of isoFFwrite for a file that is finished or a track that is closed.
int check_open(const iso_track* track);

// isoFFwrite of arguments that make sense, with the duration as it is. May throw std::bad_alloc.
int write_sample(iso_track* track, std::span<const uint8_t> sample, uint32_t duration,
                 int32_t cts_offset);

// Takes the pass of a box writer: measure, then write.
enum Pass { kCountPass = 0, kWritePass = 1 };

// Box writers. Each puts the box that the record describes at the start of `to` (with kCountPass,
// nothing) and returns the bytes that the box occupies. Bytes that `to` has no room for are counted
// only.
uint64_t write_ftyp(Pass pass, std::span<uint8_t> to, const iso_file* file);
uint64_t write_moov(Pass pass, std::span<uint8_t> to, iso_file* file);
uint64_t write_stts(Pass pass, std::span<uint8_t> to, iso_track* track);
uint64_t write_ctts(Pass pass, std::span<uint8_t> to, iso_track* track);
uint64_t write_stsz(Pass pass, std::span<uint8_t> to, iso_track* track);
uint64_t write_stss(Pass pass, std::span<uint8_t> to, iso_track* track);
uint64_t write_sbgp(Pass pass, std::span<uint8_t> to, iso_track* track);

// Length of a track in movie units: that of its edits, or of its media without any.
uint32_t movie_duration(const iso_track* track);

// Making a track in several steps: what was added to the file since is taken back at the end of the
// scope, but for a track that is kept.
class TrackAttempt {
  public:
    explicit TrackAttempt(iso_file* file);
    TrackAttempt(const TrackAttempt&) = delete;
    TrackAttempt& operator=(const TrackAttempt&) = delete;
    ~TrackAttempt();

    iso_track* keep(iso_track* track);

  private:
    iso_file* file_;  // null when there is nothing to take back
    iso_track* last_track_ = nullptr;
    uint32_t next_track_id_ = 0, header_size_ = 0, has_visual_ = 0;
};

// A new track of a file that is being written, with what every codec's track needs: its codec, and
// from the timescale the longest that it may run. `entry_bytes` is what its sample entry and media
// header add to the header. Null without memory or for a file that is not being written.
iso_track* new_media_track(iso_file* file, int32_t codec, uint32_t timescale, uint32_t entry_bytes);

// The same for a picture of a size in pixels, 1 to 65535 each; null for another size, or a
// timescale of 0.
iso_track* new_visual_track(iso_file* file, int32_t codec, uint32_t timescale, uint32_t width,
                            uint32_t height, uint32_t entry_bytes);

// --- samples ---

inline uint32_t sample_size_of(const iso_track* track, int32_t sample) {
    return track->sample_size != 0 ? track->sample_size : track->sample_sizes[sample];
}
void set_sample_pos(iso_track* track, int32_t target);

// A value in track units as seconds; 0.0 for a timescale of 0.
inline double seconds(double units, uint32_t timescale) {
    return timescale == 0 ? 0.0 : units / timescale;
}

// --- definitions ---

template <typename T>
T* arena_array(iso_file* file, size_t count) {
    if (count > SIZE_MAX / 2 / sizeof(T)) return nullptr;
    void* memory = isoFFmalloc(file, count * sizeof(T));
    if (memory != nullptr) std::memset(memory, 0, count * sizeof(T));
    return static_cast<T*>(memory);
}

}  // namespace kestrel

#endif
