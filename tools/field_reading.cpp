// SPDX-License-Identifier: Apache-2.0
#include "tools/field_reading.h"

#include <chrono>

#include "companion/probe/track_info.h"
#include "tools/report/markup.h"

namespace tool {
namespace {

constexpr double kOne16 = 65536;  // of 16.16 numbers
constexpr double kOne8 = 256;     // of 8.8 numbers
constexpr int64_t kAllOnes = 0xFFFFFFFF;

// "176", "176.5".
std::string number_text(double value) {
    const bool whole = value == static_cast<double>(static_cast<int64_t>(value));
    return format(whole ? "%.0f" : "%.3f", value);
}

}  // namespace

std::string date_text(uint64_t seconds) {
    using std::chrono::days;
    using std::chrono::hh_mm_ss;
    using std::chrono::year;
    constexpr uint64_t kDay = 86400;
    constexpr uint64_t kMaxDays = 4'000'000;  // so that the year has a name
    if (seconds / kDay > kMaxDays) return std::to_string(seconds) + " s after 1904";
    const std::chrono::sys_days start(year(1904) / 1 / 1);
    const std::chrono::year_month_day date(start + days(static_cast<int>(seconds / kDay)));
    const auto rest = static_cast<unsigned>(seconds % kDay);
    return format("%04d-%02u-%02uT%02u:%02u:%02uZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  rest / 3600, rest / 60 % 60, rest % 60);
}

int64_t without_reserved_bits(std::string_view box, std::string_view field, int64_t value) {
    constexpr int64_t kLengthSize = 0x03, kSetCount = 0x1F;  // ISO/IEC 14496-15, 5.3.3.1
    if (box != "avcC") return value;
    if (field == "nal_length_size_minus_one") return value & kLengthSize;
    return field == "sequence_set_count" ? value & kSetCount : value;
}

void FieldReading::begin_box(std::string_view type) {
    box_ = type;
    timescale_ = 0;
}

std::string FieldReading::duration(uint32_t timescale, int64_t value) const {
    if (timescale == 0 || value == kAllOnes) return "";
    return std::to_string(value) +
           format(" (%.3f s)", static_cast<double>(value) / static_cast<double>(timescale));
}

std::string FieldReading::of(std::string_view field, int64_t value) {
    const bool is_header = box_ == "mvhd" || box_ == "tkhd" || box_ == "mdhd";
    if (field == "timescale" && is_header) {
        timescale_ = static_cast<uint32_t>(value);
        if (box_ == "mvhd") movie_timescale_ = timescale_;
    }
    if (field == "creation_time" || field == "modification_time")
        return value == 0 ? "" : date_text(static_cast<uint64_t>(value));
    if (field == "duration" && is_header)
        return duration(box_ == "tkhd" ? movie_timescale_ : timescale_, value);
    if (field == "language" && box_ == "mdhd")
        return kestrel::probe::language_text(static_cast<uint32_t>(value));
    if (field == "width" || field == "height") {
        const auto pixels = static_cast<double>(value);
        return number_text(box_ == "tkhd" ? pixels / kOne16 : pixels) + " px";
    }
    if (field == "horizontal_resolution" || field == "vertical_resolution")
        return number_text(static_cast<double>(value) / kOne16) + " dpi";
    if (field == "rate" && box_ == "mvhd") return number_text(static_cast<double>(value) / kOne16);
    if (field == "volume") return number_text(static_cast<double>(value) / kOne8);
    return "";
}

}  // namespace tool
