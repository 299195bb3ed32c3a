// SPDX-License-Identifier: Apache-2.0
#include "tools/report/charts.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "interface/src/isoff/record/private.h"
#include "native/codec/payload_types.h"
#include "tools/report/markup.h"

namespace tool {
namespace {

constexpr double kWide = 1000;  // of every drawing, in its own units
constexpr double kHigh = 100;
constexpr char kBarsLegend[] = "; full colour: the mean, pale: the most";
constexpr double kLabelled = 0.97;  // of the height; the title stands above
constexpr size_t kBarsApart = 80;   // so many bars at most stand apart
constexpr double kMaxDrawn = 1e9;   // bits per second; more is no rate of a clip

// The largest of 1, 2 and 5 times a power of ten that is not above `value`.
double nice_below(double value) {
    const double power = std::pow(10.0, std::floor(std::log10(value)));
    const double first = value / power;
    return power * (first >= 5 ? 5 : first >= 2 ? 2 : 1);
}

// The unit of the vertical axis and its marks.
struct Scale {
    double top = 1;   // value at the upper edge
    double step = 1;  // from a mark to the next
    double unit = 1;  // the marks count in these

    double y(double value) const { return kHigh - std::min(value / top, 1.0) * kHigh; }
};

Scale scale_for(double most, double least_step) {
    Scale scale;
    if (most <= 0) return scale;
    scale.step = std::max(nice_below(most / 2), least_step);
    scale.top = std::max(most * 1.08, scale.step);
    scale.unit = most >= 1e6 ? 1e6 : most >= 1e4 ? 1e3 : 1;
    return scale;
}

std::string mark_text(double value, const Scale& scale) {
    const double shown = value / scale.unit;
    return scale.unit > 1 && shown < 10 ? format("%.3g", shown)
                                        : show_count(static_cast<uint64_t>(std::llround(shown)));
}

// A chart, drawn part by part.
class Figure {
  public:
    Figure(const char* title, const std::string& caption, const char* kind, const Scale& scale)
        : scale_(scale) {
        html_ = format("<figure class=\"chart\"><figcaption><b>%s</b><span>", title) +
                escape(caption) + format("</span></figcaption><div class=\"plot %s\">", kind);
        svg_ = format(
            "<svg viewBox=\"0 0 1000 100\" preserveAspectRatio=\"none\" role=\"img\" "
            "aria-label=\"%s\">",
            title);
    }

    void add_marks() {
        for (double at = scale_.step; at < scale_.top; at += scale_.step) {
            add_line("grid", scale_.y(at), kWide);
            if (at > scale_.top * kLabelled) continue;
            html_ += format("<span class=\"y\" style=\"bottom:%.1f%%\">", kHigh - scale_.y(at)) +
                     mark_text(at, scale_) + "</span>";
        }
    }
    void add_line(const char* kind, double y, double until) {
        svg_ += format("<line class=\"%s\" x1=\"0\" x2=\"%.1f\" y1=\"%.1f\" y2=\"%.1f\"/>", kind,
                       until, y, y);
    }
    void add(const std::string& shape) { svg_ += shape; }
    // Adds a row to the table of figures, for readers without a pointer.
    void add_row(const std::string& when, const std::string& what) {
        rows_ += "<tr><td>" + escape(when) + "</td><td>" + escape(what) + "</td></tr>";
    }

    std::string finish() {
        html_ += svg_ + "</svg></div>";
        if (!rows_.empty())
            html_ += "<details><summary>Figures</summary><table>" + rows_ + "</table></details>";
        return html_ + "</figure>\n";
    }

  private:
    Scale scale_;
    std::string html_, svg_, rows_;
};

// The columns of one track on an axis of all time.
class Grid {
  public:
    Grid(const TrackFigures& figures, double total) : edges_(figures.edges), total_(total) {}

    // The position of the edge before column `i`, or after the last one.
    double x(size_t i) const { return total_ > 0 ? std::min(edges_[i] / total_, 1.0) * kWide : 0; }
    double width(size_t i) const { return x(i + 1) - x(i); }
    std::string when(size_t i) const {
        return total_ < kClockFrom ? format("%.2f s", edges_[i]) : show_seconds(edges_[i]);
    }

  private:
    static constexpr double kClockFrom = 120;  // seconds from which on the axis shows minutes

    const std::vector<double>& edges_;
    double total_;
};

std::string show_range(const Range& range, const char* unit) {
    const std::string most = show_count(range.most) + unit;
    return range.least == range.most ? most : show_count(range.least) + " to " + most;
}

// Whether all columns with values have the same one.
bool is_constant(const std::vector<Range>& columns) {
    const auto first = std::find_if(columns.begin(), columns.end(),
                                    [](const Range& range) { return range.count > 0; });
    return first != columns.end() && first->least == first->most &&
           std::all_of(first, columns.end(), [&](const Range& range) {
               return range.count == 0 ||
                      (range.least == first->least && range.most == first->most);
           });
}

// A line at the value of all columns.
void add_level(Figure& figure, const std::vector<Range>& columns, const Grid& grid,
               const Scale& scale, uint32_t value, const char* unit) {
    const double y = scale.y(value);
    figure.add_line("line", y, grid.x(columns.size()));
    figure.add(rect("hover", 0, grid.x(columns.size()), 0, kHigh, show_count(value) + unit));
}

// A bar for each column that has values: up to their mean, and paler up to the largest.
std::string bars(const std::vector<Range>& columns, const Grid& grid, const Scale& scale,
                 const char* unit, uint32_t limit) {
    std::string out;
    const double share = columns.size() <= kBarsApart ? 0.78 : 1.0;
    constexpr double kThinnest = 1, kCapHeight = 4;
    for (size_t i = 0; i < columns.size(); ++i) {
        const Range& range = columns[i];
        if (range.count == 0 || range.most == 0) continue;
        const double width = std::max(grid.width(i) * share, kThinnest);
        const double x = grid.x(i) + (grid.width(i) - width) / 2;
        const std::string text = show_range(range, unit) + " at " + grid.when(i);
        const double top = scale.y(range.most);
        const double middle = scale.y(range.mean());
        const bool over = limit > 0 && range.most > limit;
        const std::string kind = over ? "bar over" : "bar";
        if (range.least < range.most) {
            out += rect((kind + " faint").c_str(), x, width, top, middle - top, text);
        }
        out += rect(kind.c_str(), x, width, middle, kHigh - middle, text);
        if (over) out += rect("cap", x, width, top, kCapHeight, text);
    }
    if (columns.size() > kBarsApart) return "<g class=\"dense\">" + out + "</g>";
    return out;
}

// Draws the values: a line when all are equal, else bars and a table.
void add_values(Figure& figure, const std::vector<Range>& columns, const Grid& grid,
                const Scale& scale, const char* unit, uint32_t limit) {
    constexpr size_t kFewColumns = 1;
    if (columns.size() > kFewColumns && is_constant(columns)) {
        const auto any = std::find_if(columns.begin(), columns.end(),
                                      [](const Range& range) { return range.count > 0; });
        return add_level(figure, columns, grid, scale, any->most, unit);
    }
    figure.add(bars(columns, grid, scale, unit, limit));
    for (size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].count > 0) figure.add_row(grid.when(i), show_range(columns[i], unit));
    }
}

}  // namespace

std::string clock_text(double seconds, double total) {
    if (seconds <= 0) return "0";
    if (total < 5) return format("%.1f s", seconds);
    if (total < 120) return format("%.0f s", seconds);
    const auto whole = static_cast<unsigned long long>(std::llround(seconds));
    if (total < 3600) return format("%llu:%02llu", whole / 60, whole % 60);
    return format("%llu:%02llu h", whole / 3600, whole / 60 % 60);
}

std::string rect(const char* kind, double x, double width, double y, double height,
                 const std::string& text) {
    return format("<rect class=\"%s\" x=\"%.2f\" y=\"%.1f\" width=\"%.2f\" height=\"%.1f\">", kind,
                  x, y, std::max(width, 0.01), std::max(height, 0.1)) +
           "<title>" + escape(text) + "</title></rect>";
}

void set_opacity(std::string& rect, double opacity) {
    rect.insert(std::strlen("<rect"), format(" fill-opacity=\"%.2f\"", opacity));
}

std::string time_axis(double total) {
    std::string out = "<div class=\"scale track-axis\">";
    if (total <= 0) return out + "</div>\n";
    // Steps of a clock.
    static constexpr std::array kSteps = {0.1,   0.2,   0.5,   1.0,    2.0,    5.0,   10.0,
                                          15.0,  30.,   60.,   120.,   300.,   600.,  900.,
                                          1800., 3600., 7200., 21600., 43200., 86400.};
    double step = std::max(kSteps.back(), nice_below(total));
    for (const double one : kSteps) {
        if (total / one <= 8) {
            step = one;
            break;
        }
    }
    int number = 0;
    for (double at = 0; at <= total * 1.0001 && number < 12; at += step, ++number) {
        const double place = at / total * 100;
        const char* kind = number == 0 ? "first" : place > 97 ? "last" : number % 2 ? "wide" : "";
        out += format("<span class=\"%s\" style=\"left:%.2f%%\">", kind, place) +
               clock_text(at, total) + "</span>";
    }
    return out + "</div>\n";
}

std::string byte_axis(uint64_t size, double gone) {
    std::string out = "<div class=\"scale\">";
    constexpr int kParts = 4;
    for (int i = 0; i <= kParts; ++i) {
        const double place = (kWide - gone) / kWide * 100 * i / kParts;
        const char* kind = i == 0 ? "first" : i == kParts ? "last" : i % 2 ? "wide" : "";
        out += format("<span class=\"%s\" style=\"left:%.2f%%\">", kind, place) +
               (i == 0 ? "0" : show_bytes(size * static_cast<uint64_t>(i) / kParts)) + "</span>";
    }
    return out + "</div>\n";
}

std::string rate_chart(const TrackFigures& figures, double total) {
    if (figures.rate.empty()) return "";
    if (figures.peak_rate > kMaxDrawn) {
        return "<p class=\"note poor\">The declared durations make a bit rate of " +
               show_rate(figures.peak_rate) + ", which is not drawn.</p>\n";
    }
    const Scale scale = scale_for(figures.peak_rate, 1);
    const size_t columns = figures.rate.size();
    const Grid grid(figures, total);
    const char* unit = scale.unit >= 1e6   ? "Bit rate, Mbit/s"
                       : scale.unit >= 1e3 ? "Bit rate, kbit/s"
                                           : "Bit rate, bit/s";
    Figure figure(unit,
                  "on average " + show_rate(figures.average_rate) + ", at most " +
                      show_rate(figures.peak_rate),
                  "", scale);
    figure.add_marks();
    std::string path, hovers;
    for (size_t i = 0; i < columns; ++i) {
        const double y = scale.y(figures.rate[i]);
        // The first point has both coordinates, all others one.
        path += i == 0 ? format("%.2f %.1f", grid.x(0), y) : format("V%.1f", y);
        path += format("H%.2f", grid.x(i + 1));
        const bool is_lost = figures.lost[i] > 0;
        const std::string text =
            show_rate(figures.rate[i]) + (is_lost ? ", past the end of the file" : "");
        if (is_lost) hovers += rect("lost", grid.x(i), grid.width(i), y, kHigh - y, text);
        hovers += rect("hover", grid.x(i), grid.width(i), 0, kHigh, text + " at " + grid.when(i));
        figure.add_row(grid.when(i), text);
    }
    figure.add("<path class=\"area\" d=\"M0 100L" + path + "V100Z\"/>");
    figure.add_line("base", kHigh, kWide);
    figure.add("<path class=\"line\" d=\"M" + path + "\"/>");
    figure.add_line("mean", scale.y(figures.average_rate), grid.x(columns));
    figure.add(hovers);
    return figure.finish();
}

std::string sync_chart(const TrackFigures& figures, double total) {
    if (!figures.has_sync_table || figures.seconds <= 0) return "";
    const std::string caption = show_count(figures.sync_count) + " of " +
                                show_count(figures.samples) + ", at most " +
                                show_seconds(figures.longest_gap) + " from one to the next";
    const bool apart = figures.together == 1;
    Figure figure("Sync samples", apart ? caption : caption + "; darker: more of them", "ticks",
                  {});
    const Grid grid(figures, total);
    constexpr double kThinnest = 2, kPalest = 0.15;
    const double most = *std::max_element(figures.syncs.begin(), figures.syncs.end());
    for (size_t i = 0; i < figures.syncs.size(); ++i) {
        if (figures.syncs[i] == 0) continue;
        const double width =
            apart ? std::clamp(grid.width(i) * 0.5, kThinnest, 6.0) : grid.width(i);
        std::string tick = rect("bar", grid.x(i), width, 0, kHigh,
                                show_count(figures.syncs[i]) + " at " + grid.when(i));
        if (!apart) set_opacity(tick, std::max(figures.syncs[i] / most, kPalest));
        figure.add(tick);
    }
    return figure.finish();
}

std::string packet_size_chart(const TrackFigures& figures, double total) {
    const PacketFigures& packets = figures.packets;
    if (packets.packets == 0 || figures.seconds <= 0) return "";
    constexpr uint32_t kNearLimit = 700;
    const bool limit = packets.sizes.most >= kNearLimit;
    const Scale scale =
        scale_for(limit ? std::max(packets.sizes.most, uint32_t{kestrel::kMaxPacketBytes})
                        : packets.sizes.most,
                  1);
    const Grid grid(figures, total);
    std::string caption = show_count(packets.packets) +
                          (packets.packets == 1 ? " packet of " : " packets of ") +
                          show_range(packets.sizes, " bytes");
    if (packets.sizes.least < packets.sizes.most) caption += kBarsLegend;
    if (limit) caption += "; dashed: 1,400, the most that the function API accepts";
    Figure figure("Packet sizes, bytes", caption, "", scale);
    figure.add_marks();
    add_values(figure, packets.size_by_time, grid, scale, " bytes",
               uint32_t{kestrel::kMaxPacketBytes});
    figure.add_line("base", kHigh, kWide);
    if (limit) figure.add_line("limit", scale.y(uint32_t{kestrel::kMaxPacketBytes}), kWide);
    return figure.finish();
}

std::string packet_count_chart(const TrackFigures& figures, double total) {
    const PacketFigures& packets = figures.packets;
    if (packets.packets == 0 || figures.seconds <= 0) return "";
    const Scale scale = scale_for(packets.per_frame.most, 1);
    const Grid grid(figures, total);
    Figure figure("Packets per hint sample", show_range(packets.per_frame, ""), "low", scale);
    figure.add_marks();
    add_values(figure, packets.frame_by_time, grid, scale, " in a sample", 0);
    figure.add_line("base", kHigh, kWide);
    return figure.finish();
}

std::string edit_strip(const iso_track* track, uint32_t movie_timescale, double total) {
    const iso_track_private* details = track->own;
    if (details->edit_count <= 0 || movie_timescale == 0) return "";
    const auto shown = std::min(static_cast<size_t>(details->edit_count), kMaxEdits);
    const auto length = [&](size_t i) {
        return static_cast<double>(details->edits[i].segment_duration) / movie_timescale;
    };
    std::string shapes, caption;
    double at = 0;
    for (size_t i = 0; i < shown; ++i) {
        const iso_elst_entry& edit = details->edits[i];
        const bool empty = edit.media_time < 0;
        const double from =
            track->timescale == 0 ? 0.0 : static_cast<double>(edit.media_time) / track->timescale;
        std::string text =
            "for " + show_seconds(length(i)) +
            (empty ? " nothing" : " the media from " + format("%.3f s", from) + " on");
        constexpr uint32_t kNormalRate = 0x10000;
        if (!empty && edit.media_rate != kNormalRate) {
            text += format(" at %.2f times its speed", edit.media_rate / 65536.0);
        }
        caption += (i == 0 ? "" : ", then ") + text;
        // A value past the axis, or without duration, is named only.
        const double until = std::min(at + length(i), total);
        if (until > at) {
            const double x = at / total * kWide, width = (until - at) / total * kWide;
            shapes += empty ? rect("wait", x, width, 0, kHigh, text)
                            : rect("", x, std::max(width - 2, 1.0), 0, kHigh, text);
        }
        at += length(i);
    }
    if (static_cast<size_t>(details->edit_count) > shown) {
        caption += " and " + show_count(static_cast<size_t>(details->edit_count) - shown) + " more";
    }
    return "<figure class=\"chart\"><figcaption><b>Edit list</b><span>" + caption +
           "</span></figcaption><div class=\"plot\"><svg class=\"strip thin\" "
           "style=\"height:16px\" viewBox=\"0 0 1000 100\" preserveAspectRatio=\"none\" "
           "role=\"img\" aria-label=\"Edit list\">" +
           shapes + "</svg></div></figure>\n";
}

}  // namespace tool
