// SPDX-License-Identifier: Apache-2.0
// The drawings of a report. Shapes are SVG stretched to the available width; the text around them
// is HTML, which keeps its size on a narrow screen.
#ifndef KESTREL_TOOLS_REPORT_CHARTS_H
#define KESTREL_TOOLS_REPORT_CHARTS_H

#include <string>

#include "tools/report/data.h"

namespace tool {

// "12 s", "1:05", "1:00:00": short, for the marks of an axis that is `total` long.
std::string clock_text(double seconds, double total);

// Returns a bar over a chart or map that shows `text` while the pointer is on it.
std::string rect(const char* kind, double x, double width, double y, double height,
                 const std::string& text);

// Of such a bar.
void set_opacity(std::string& rect, double opacity);

// Returns an axis of time from 0 to `total` seconds, and one of bytes, whose last `gone`
// thousandths represent missing bytes.
std::string time_axis(double total);
std::string byte_axis(uint64_t size, double gone);

// Return charts over an axis of `total` seconds, each a complete figure.
std::string rate_chart(const TrackFigures& figures, double total);
std::string sync_chart(const TrackFigures& figures, double total);
std::string packet_size_chart(const TrackFigures& figures, double total);
std::string packet_count_chart(const TrackFigures& figures, double total);

// Returns the edit list of a track over the same axis.
std::string edit_strip(const iso_track* track, uint32_t movie_timescale, double total);

}  // namespace tool

#endif
