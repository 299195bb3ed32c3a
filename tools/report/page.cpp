// SPDX-License-Identifier: Apache-2.0
#include "tools/report/page.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "interface/src/isoff/record/private.h"
#include "native/codec/payload_types.h"
#include "tools/report/charts.h"
#include "tools/report/markup.h"
#include "tools/report/style.h"

namespace tool {
namespace {

constexpr double kWide = 1000;     // of the map, in its own units
constexpr double kGone = 70;       // of these, for what is missing after the end
constexpr size_t kMaxChips = 14;   // boxes named below the map
constexpr size_t kMaxText = 2000;  // characters of a text of the file

constexpr char kTick[] =
    "<svg class=\"icon\" viewBox=\"0 0 20 20\" aria-hidden=\"true\"><circle cx=\"10\" cy=\"10\" "
    "r=\"9\" fill=\"currentColor\" fill-opacity=\".18\"/><path d=\"M5.5 10.5l3 3 6-6.5\" "
    "fill=\"none\" stroke=\"currentColor\" stroke-width=\"2\"/></svg>";
constexpr char kCross[] =
    "<svg class=\"icon\" viewBox=\"0 0 20 20\" aria-hidden=\"true\"><circle cx=\"10\" cy=\"10\" "
    "r=\"9\" fill=\"currentColor\" fill-opacity=\".18\"/><path d=\"M6.5 6.5l7 7m0-7l-7 7\" "
    "fill=\"none\" stroke=\"currentColor\" stroke-width=\"2\"/></svg>";

const char* kind_of(const iso_track* track) {
    if (is_hint(track)) return "hint";
    if (is_of(track, MediaKind::kVideo)) return "video";
    return is_of(track, MediaKind::kAudio) ? "audio" : "other";
}

std::string heading(const std::string& codec) {
    return codec == "unknown" ? "Unknown codec" : codec;
}

std::string name_of(const iso_track* track) {
    return heading(codec_name(track));
}

std::string pixels(const iso_track* track) {
    if (!is_of(track, MediaKind::kVideo) || track->width == 0) return "";
    return format("%u × %u", track->width, track->height);
}

// A name without line breaks, for a heading or label.
std::string unbroken(const std::string& name) {
    return "<span class=\"nb\">" + name + "</span>";
}

// Markup of a command in which no option is wrapped, nor parted from its value.
std::string with_whole_options(const std::string& command) {
    static constexpr std::string_view kOutput = " -o OUT";
    std::string out;
    for (size_t at = 0; at < command.size();) {
        const size_t end = command.compare(at, kOutput.size(), kOutput) == 0
                               ? at + kOutput.size()
                               : std::min(command.find(' ', at + 1), command.size());
        const std::string word = command.substr(at, end - at);
        const bool is_option = word.starts_with(" -");
        out += is_option ? " " + unbroken(word.substr(1)) : word;
        at = end;
    }
    return out;
}

// Markup of a file's name that may be wrapped after its parts.
std::string breakable(const std::string& name) {
    std::string out;
    for (const char c : name)
        out += c == '_' || c == '.' ? std::string(1, c) + "<wbr/>" : std::string(1, c);
    return out;
}

std::string text_of(const char* text) {
    return text == nullptr ? "" : std::string(text, strnlen(text, kMaxText));
}

class Page {
  public:
    explicit Page(const ReportData& data)
        : data_(data), name_(std::filesystem::path(data.input).filename().string()) {
        if (data.input == "-") name_ = "standard input";
        for (const Verdict& verdict : data.verdicts) {
            if (has_medium(data.facts, verdict.kind)) present_.push_back(&verdict);
        }
        const bool cut = data.facts.scan.cut_box.has_value();
        const bool outside =
            std::any_of(data.tracks.begin(), data.tracks.end(),
                        [](const TrackFigures& track) { return track.outside.chunks > 0; });
        gone_ = cut || outside ? kGone : 0;
    }

    std::string render() {
        add_head();
        add_summary();
        add_damage();
        add_verdicts();
        add_remarks();
        add_map();
        for (const TrackFigures& figures : data_.tracks) {
            if (!is_hint(figures.track) || media_of(figures.track) == nullptr) add_track(figures);
        }
        for (const ImportedTrack* track : unread_tracks(data_.facts))
            add_unread(*track);
        if (data_.tracks_left_out > 0) {
            out_ += "<section><p class=\"muted\">" + show_count(data_.tracks_left_out) +
                    " more tracks are not drawn.</p></section>\n";
        }
        out_ +=
            "<footer>Made by kestrel report " KESTREL_VERSION "</footer></main></body></html>\n";
        return std::move(out_);
    }

  private:
    const TrackFigures* media_of(const iso_track* hint) const {
        for (const TrackFigures& figures : data_.tracks) {
            const iso_track* track = figures.track;
            if (!is_hint(track) && track->track_id == hint->hint_track_ref) return &figures;
        }
        return nullptr;
    }

    void add_head() {
        out_ +=
            "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"/>"
            "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>"
            "<meta name=\"color-scheme\" content=\"light dark\"/>"
            "<meta http-equiv=\"Content-Security-Policy\" "
            "content=\"default-src 'none'; style-src 'unsafe-inline'\"/><title>" +
            escape(name_) + " – Kestrel report</title><style>" + kReportStyle +
            "</style></head><body><main>";
    }

    // --- at a glance ---

    enum class Tone { kGood, kFair, kPoor };

    static const char* name(Tone tone) {
        return tone == Tone::kGood ? "good" : tone == Tone::kFair ? "fair" : "poor";
    }

    bool plays(MediaKind kind, Api api) const {
        return std::any_of(present_.begin(), present_.end(), [&](const Verdict* verdict) {
            return verdict->kind == kind && verdict->api == api && verdict->plays();
        });
    }

    // Plays at least in part.
    bool begins(MediaKind kind) const {
        return std::any_of(present_.begin(), present_.end(), [&](const Verdict* verdict) {
            return verdict->kind == kind && verdict->frames > 0;
        });
    }

    // How much is delivered, if an API plays it to its end.
    std::string amount(MediaKind kind) const {
        for (const Verdict* verdict : present_) {
            if (verdict->kind == kind && !verdict->amount.empty()) return verdict->amount;
        }
        return "";
    }

    std::string headline(Tone& tone) const {
        tone = Tone::kPoor;
        if (!data_.facts.scan.is_3gp()) return "This is no 3GP file";
        if (present_.empty()) {
            return data_.facts.scan.movie_is_cut
                       ? "The movie box is truncated: nothing can be played"
                       : "This file has no audio and no video";
        }
        std::string silent, in_part;
        bool function = true, by_class = true, begins = false;
        for (const MediaKind kind : kMedia) {
            if (!has_medium(data_.facts, kind)) continue;
            const bool here = plays(kind, Api::kFunction), there = plays(kind, Api::kClass);
            function = function && here;
            by_class = by_class && there;
            if (here || there) continue;
            silent += (silent.empty() ? "" : " nor ") + std::string(word(kind));
            begins = begins || this->begins(kind);
            in_part = amount(kind);
        }
        if (!silent.empty()) {
            const bool both = silent.find(' ') != std::string::npos;
            if (!both && !in_part.empty()) return "Plays only " + in_part;
            return (both ? "Neither " + silent + " plays" : "Its " + silent + " does not play") +
                   (begins ? " to the end" : "");
        }
        if (data_.facts.scan.movie_is_cut)
            return "The movie box is truncated: tracks may be missing";
        if (may_lack_tracks(data_.facts)) return "The movie box has tracks that cannot be read";
        tone = function && by_class ? Tone::kGood : Tone::kFair;
        if (tone == Tone::kGood) return "Plays with both APIs";
        return function   ? "Plays with the function API"
               : by_class ? "Plays with the class API"
                          : "Plays, but not all of it with one API";
    }

    void add_tile(const char* what, const std::string& value, const std::string& more) {
        out_ += std::string("<div><dt>") + what + "</dt><dd>" + escape(value);
        if (!more.empty()) out_ += " <small>" + escape(more) + "</small>";
        out_ += "</dd></div>";
    }

    void add_summary() {
        Tone tone = Tone::kPoor;
        const std::string said = headline(tone);
        out_ += std::string("<header><p class=\"kicker\">") +
                (data_.facts.scan.is_3gp() ? "3GP file" : "File") + "</p><h1><bdi>" +
                breakable(escape(name_)) + "</bdi></h1><p class=\"lead " + name(tone) + "\">" +
                (tone == Tone::kPoor ? kCross : kTick) + "<span>" + said +
                "</span></p><dl class=\"tiles\">";
        const double size = data_.facts.scan.file_size;
        add_tile("Size", show_bytes(data_.facts.scan.file_size), "");
        add_tile("Duration", data_.seconds > 0 ? show_seconds(data_.seconds) : "–", "");
        // Not shown when a part of the file is missing: both would be false.
        const char* unknown = "data is missing";
        constexpr double kMaxShown = 1e9;  // bits per second
        const bool whole = gone_ == 0;
        const bool rated = whole && data_.seconds > 0 && size * 8 / data_.seconds < kMaxShown;
        add_tile("Bit rate", rated ? show_rate(size * 8 / data_.seconds) : "–",
                 rated    ? "of the whole file"
                 : !whole ? unknown
                          : "");
        const uint64_t hints = std::min<uint64_t>(data_.hint_bytes, data_.facts.scan.file_size);
        add_tile("Hints",
                 hints == 0 ? "none"
                 : whole    ? format("%.1f %%", 100.0 * double(hints) / size)
                            : "–",
                 hints == 0 ? ""
                 : whole    ? "of the file"
                            : unknown);
        const std::string brand = printable(data_.facts.file->major_brand);
        add_tile("Brand", brand.empty() ? "–" : brand,
                 text_of(data_.facts.file->compatible_brands));
        out_ += "</dl></header>\n";
    }

    void add_damage() {
        if (data_.facts.scan.damage.empty() && data_.problems.empty()) return;
        out_ += "<section class=\"damage\"><h2>What is wrong with it</h2><ul>";
        for (const std::string& sentence : data_.facts.scan.damage)
            out_ += "<li>" + escape(sentence) + "</li>";
        if (data_.facts.scan.more_damage > 0) {
            out_ += "<li>" + show_count(data_.facts.scan.more_damage) + " more of this kind.</li>";
        }
        for (const std::string& sentence : data_.problems)
            out_ += "<li>" + escape(sentence) + "</li>";
        out_ += "</ul></section>\n";
    }

    void add_remarks() {
        if (data_.facts.remarks.empty()) return;
        out_ += "<section><h2>Remarks of the reader</h2><ul class=\"muted\">";
        for (const std::string& line : data_.facts.remarks)
            out_ += "<li><code>" + escape(line) + "</code></li>";
        out_ += "</ul></section>\n";
    }

    // --- verdicts ---

    void add_api(const Verdict& verdict) {
        const bool function = verdict.api == Api::kFunction;
        out_ += std::string("<div class=\"api ") + (verdict.plays() ? "good" : "poor") +
                "\"><div class=\"head\"><span class=\"said\">" +
                (verdict.plays() ? kTick : kCross) + verdict.outcome() +
                "</span><span class=\"name\">" +
                (function ? "function API <code>kst_Open</code>"
                          : "class API <code>C3gpInterface</code>") +
                "</span></div>";
        if (!verdict.plays()) {
            out_ += "<p>" + escape(verdict.why);
            if (verdict.status != KST_SUCCESS) {
                const std::string words = status_words(verdict);
                out_ += " <span class=\"muted\">Status&#160;" +
                        escape(words.substr(words.find(' ') + 1)) + ".</span>";
            }
            out_ += "</p>";
        }
        if (!verdict.fix.empty()) {
            out_ += "<p>This command fixes it:</p><code class=\"fix\">" +
                    with_whole_options(escape(fix_command(verdict, data_.input))) + "</code>";
        }
        const std::string others = other_tracks(verdict);
        if (verdict.opens && !others.empty()) {
            out_ += format("<p class=\"muted\">Played: track %u; not judged: track ",
                           verdict.track_id) +
                    others + ".</p>";
        }
        out_ += "</div>";
    }

    // Of the same medium.
    std::string other_tracks(const Verdict& verdict) const {
        std::string out;
        for (const iso_track* track = data_.facts.file->first_track; track != nullptr;
             track = track->next) {
            if (!is_of(track, verdict.kind) || track->track_id == verdict.track_id) continue;
            out += (out.empty() ? "" : ", ") + std::to_string(track->track_id);
        }
        return out;
    }

    void add_verdicts() {
        out_ +=
            "<section><h2>Does it play?</h2><p class=\"note\">The library has two APIs. Each "
            "was tried: it opened the file and played the medium to its end.</p>";
        for (const MediaKind kind : kMedia) {
            if (!has_medium(data_.facts, kind)) continue;
            out_ += format("<div class=\"medium %s\"><h3>%s</h3><div class=\"pair\">", word(kind),
                           kind == MediaKind::kAudio ? "Audio" : "Video");
            for (const Verdict* verdict : present_) {
                if (verdict->kind == kind) add_api(*verdict);
            }
            out_ += "</div></div>";
        }
        if (present_.empty()) {
            out_ += "<p class=\"poor\">The file has no audio or video track.</p>";
        }
        out_ += "</section>\n";
    }

    // --- the map ---

    double place(double byte) const {
        const double size = std::max(data_.facts.scan.file_size, 1u);
        return std::min(byte / size, 1.0) * (kWide - gone_);
    }

    static std::string row(const std::string& label, const std::string& kind,
                           const std::string& shapes, const std::string& about) {
        return "<div class=\"row " + kind + "\"><div class=\"label\">" + label +
               "</div><svg class=\"strip\" viewBox=\"0 0 1000 100\" preserveAspectRatio=\"none\" "
               "role=\"img\" aria-label=\"Where the bytes are: " +
               about + "\">" + shapes + "</svg></div>\n";
    }

    std::string missing(const std::string& text) const {
        return rect("gone", kWide - gone_, gone_, 0, 100, text);
    }

    static const char* kind_of_box(const TopBox& box) {
        if (box.broken) return "gone";
        return box.type == "moov" || box.type == "moof" ? "movie"
               : box.type == "mdat"                     ? "media"
                                                        : "box";
    }

    static std::string about(const TopBox& box) {
        return (box.broken ? "no box" : box.type) + ", " + show_bytes(box.size) + " at " +
               show_count(box.offset);
    }

    void add_box_row() {
        std::string shapes;
        uint64_t missing_bytes = 0;
        constexpr double kThinnest = 2;
        for (const TopBox& box : data_.facts.scan.boxes) {
            const uint64_t size = data_.facts.scan.file_size;
            const uint64_t end = std::min(box.offset + box.size, size);
            const double x = place(static_cast<double>(box.offset));
            const double width = place(static_cast<double>(end)) - x;
            if (box.cut) missing_bytes = box.offset + box.size - size;
            shapes += rect(kind_of_box(box), x, std::max(width - 1, kThinnest), 0, 100, about(box));
        }
        if (missing_bytes > 0) shapes += missing(show_bytes(missing_bytes) + " missing");
        out_ += row("Boxes", "other", shapes, "boxes");
    }

    void add_track_row(const TrackFigures& figures) {
        std::string shapes;
        constexpr double kThinnest = 0.8;
        for (const MapPiece& piece : figures.map) {
            const double x = place(piece.from);
            const double width = std::max(place(piece.to) - x, kThinnest);
            const std::string text = (piece.chunks == 1 ? std::string("1 chunk")
                                                        : show_count(piece.chunks) + " chunks") +
                                     ", bytes " + show_count(static_cast<uint64_t>(piece.from)) +
                                     " to " + show_count(static_cast<uint64_t>(piece.to));
            std::string bar = rect("", x, width, 0, 100, text);
            if (piece.share < 1) set_opacity(bar, piece.share);
            shapes += bar;
        }
        if (figures.outside.chunks > 0) {
            shapes += missing(show_count(figures.outside.chunks) + " chunks lie past the end");
        }
        const iso_track* track = figures.track;
        const std::string number = format("track %u", track->track_id);
        out_ += row(unbroken(name_of(track)) + " <small>" + number + "</small>", kind_of(track),
                    shapes, name_of(track) + ", " + number);
    }

    void add_map() {
        if (data_.facts.scan.file_size == 0) return;
        out_ +=
            "<section><h2>Where the bytes are</h2><p class=\"note\">The file from its first "
            "byte to its last: the boxes, and below them the chunks of each track.";
        if (gone_ > 0) out_ += " What is red at the right is missing; its width is not to scale.";
        const bool shared =
            std::any_of(data_.tracks.begin(), data_.tracks.end(), [](const TrackFigures& track) {
                return std::any_of(track.map.begin(), track.map.end(),
                                   [](const MapPiece& piece) { return piece.share < 1; });
            });
        if (shared)
            out_ += " The paler a track, the fewer of the bytes at that place belong to it.";
        out_ += "</p>";
        add_box_row();
        for (const TrackFigures& figures : data_.tracks)
            add_track_row(figures);
        out_ += "<div class=\"row\"><div class=\"label\"></div>" +
                byte_axis(data_.facts.scan.file_size, gone_) + "</div><ul class=\"chips\">";
        for (size_t i = 0; i < std::min(data_.facts.scan.boxes.size(), kMaxChips); ++i) {
            const TopBox& box = data_.facts.scan.boxes[i];
            out_ += format("<li class=\"%s\"><b>", kind_of_box(box)) +
                    escape(box.broken ? "no box" : box.type) + "</b> " + show_bytes(box.size) +
                    (box.cut ? ", cut" : "") + "</li>";
        }
        if (const size_t all = data_.facts.scan.boxes.size() + data_.facts.scan.more_boxes;
            all > kMaxChips) {
            out_ += "<li>and " + show_count(all - kMaxChips) + " more</li>";
        }
        out_ += "</ul></section>\n";
    }

    // --- tracks ---

    static std::string fact(const std::string& what, const std::string& value) {
        return (what.empty() ? "" : what + " ") + "<b>" + escape(value) + "</b>";
    }

    static std::string about_samples(const TrackFigures& figures) {
        const Range& sizes = figures.sizes;
        const std::string most = show_bytes(sizes.most);
        return fact("", show_count(static_cast<uint32_t>(figures.track->sample_count))) +
               " samples of " +
               fact("", sizes.least == sizes.most ? most : show_bytes(sizes.least) + " to " + most);
    }

    static std::string about_unread(uint64_t samples, const std::string& more) {
        return fact("", show_count(samples)) + more + " samples in a form that neither API reads";
    }

    void add_facts(const TrackFigures& figures) {
        const iso_track* track = figures.track;
        std::vector<std::string> facts;
        const std::string size = pixels(track);
        if (!size.empty()) facts.push_back("<b>" + size + "</b> pixels");
        const uint64_t unread = samples_not_read(data_.facts, track);
        const double seconds =
            unread > 0 ? duration_of(data_.facts, track).seconds() : figures.seconds;
        facts.push_back(fact("", show_seconds(seconds)));
        if (track->sample_count > 0) facts.push_back(about_samples(figures));
        if (unread > 0) {
            facts.push_back(about_unread(unread, track->sample_count > 0 ? " more" : ""));
        } else if (track->sample_count <= 0) {
            facts.push_back("<b>no samples</b>");
        }
        const auto chunks = static_cast<uint32_t>(track->chunk_count);
        if (chunks > 0 || unread == 0) {
            facts.push_back(fact("", show_count(chunks)) + (chunks == 1 ? " chunk" : " chunks"));
        }
        facts.push_back("clock " + fact("", show_count(track->timescale)) + " Hz");
        if (!figures.has_sync_table && track->sample_count > 0 && unread == 0 &&
            is_of(track, MediaKind::kVideo)) {
            facts.push_back("every sample is a sync sample");
        }
        if (track->own->edit_count <= 0) facts.push_back("no edit list");
        std::string line;
        for (const std::string& one : facts)
            line += (line.empty() ? "" : " · ") + one;
        out_ += "<p class=\"facts\">" + line + "</p>";
        if (!figures.complete) {
            out_ += "<p class=\"note poor\">Drawn: the first " + show_count(figures.samples) +
                    " samples.</p>";
        }
    }

    void add_hints(const TrackFigures& figures) {
        const iso_track* track = figures.track;
        const PacketFigures& packets = figures.packets;
        out_ += "<div class=\"under hint\">";
        if (media_of(track) != nullptr) {  // else it has a card of its own
            out_ += format("<h3>%s <span class=\"muted\">track %u</span></h3>", codec_name(track),
                           track->track_id);
        }
        std::string line = "declares packets of at most " +
                           fact("", show_count(track->rtp_max_packet)) + " bytes · clock " +
                           fact("", show_count(track->rtp_timescale)) + " Hz · " +
                           fact("", show_bytes(track->total_bytes)) + " of hints";
        if (track->rtp_max_packet > uint32_t{kestrel::kMaxPacketBytes}) {
            line += " · more than 1,400, so the function API cuts its own packets";
        }
        out_ += "<p class=\"facts\">" + line + "</p>";
        if (!packets.damage.empty()) {
            out_ += "<p class=\"poor\">" + escape(packets.damage) + "</p>";
        } else if (!packets.complete) {
            out_ += "<p class=\"note poor\">Drawn: the first " + show_count(packets.packets) +
                    " packets.</p>";
        }
        out_ += packet_size_chart(figures, data_.seconds);
        out_ += packet_count_chart(figures, data_.seconds);
        if (packets.packets > 0) out_ += time_axis(data_.seconds);
        const std::string sdp = text_of(track->sdp_text);
        if (!sdp.empty()) {
            out_ += "<details><summary>Session description</summary><pre>" + escape(sdp) +
                    "</pre></details>";
        }
        out_ += "</div>";
    }

    void add_track(const TrackFigures& figures) {
        const iso_track* track = figures.track;
        out_ += format("<section class=\"card %s\"><h2>", kind_of(track)) +
                unbroken(name_of(track)) +
                format(" <span class=\"muted\">track %u</span></h2>", track->track_id);
        add_facts(figures);
        const std::string rate = rate_chart(figures, data_.seconds);
        out_ += rate + sync_chart(figures, data_.seconds);
        if (!rate.empty()) out_ += time_axis(data_.seconds);
        out_ += edit_strip(track, data_.facts.file->own->edit_timescale, data_.seconds);
        if (is_hint(track)) {
            add_hints(figures);
        } else {
            for (const TrackFigures& hint : data_.tracks) {
                if (is_hint(hint.track) && media_of(hint.track) == &figures) add_hints(hint);
            }
        }
        out_ += "</section>\n";
    }

    // A track that only the importer finds.
    void add_unread(const ImportedTrack& track) {
        const char* kind = track.is_of(MediaKind::kVideo)   ? "video"
                           : track.is_of(MediaKind::kAudio) ? "audio"
                                                            : "other";
        const Duration duration{track.duration, static_cast<uint32_t>(track.timescale)};
        out_ += format("<section class=\"card %s\"><h2>", kind) +
                unbroken(heading(codec_name(track.codec))) +
                format(" <span class=\"muted\">track %u</span></h2><p class=\"facts\">", track.id) +
                fact("", show_seconds(duration.seconds())) + " · " +
                about_unread(track.samples, "") + "</p></section>\n";
    }

    const ReportData& data_;
    std::string name_;
    std::vector<const Verdict*> present_;  // of the media that the file has
    double gone_ = 0;                      // width of what is missing after the end
    std::string out_;
};

}  // namespace

std::string render_page(const ReportData& data) {
    return Page(data).render();
}

}  // namespace tool
