// SPDX-License-Identifier: Apache-2.0
// The drawings of a report. Shapes are SVG stretched to the width that there is; all text around
// them is HTML, which keeps its size on a narrow screen.
#ifndef KESTREL_TOOLS_REPORT_CHARTS_H
#define KESTREL_TOOLS_REPORT_CHARTS_H

#include <string>

#include "tools/report/data.h"

namespace tool {

// "12 s", "1:05", "1:00:00": short, for the marks of an axis that is `total` long.
std::string clock_text(double seconds, double total);

// A bar over a chart or map that shows `text` while the pointer is on it.
std::string rect(const char* kind, double x, double width, double y, double height,
                 const std::string& text);

// Of such a bar.
void set_opacity(std::string& rect, double opacity);

// An axis of time from 0 to `total` seconds, and one of bytes, whose last `gone` thousandths stand
// for what is missing.
std::string time_axis(double total);
std::string byte_axis(uint64_t size, double gone);

// Charts over an axis of `total` seconds. Each is a whole figure.
std::string rate_chart(const TrackFigures& figures, double total);
std::string sync_chart(const TrackFigures& figures, double total);
std::string packet_size_chart(const TrackFigures& figures, double total);
std::string packet_count_chart(const TrackFigures& figures, double total);

// The edits of a track, over the same axis: what is shown when.
std::string edit_strip(const iso_track* track, uint32_t movie_timescale, double total);

}  // namespace tool

#endif
