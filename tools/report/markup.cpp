// SPDX-License-Identifier: Apache-2.0
#include "tools/report/markup.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "tools/text.h"

namespace tool {
namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

// A page may have line breaks and tabs.
bool may_stand(uint32_t code) {
    return is_shown(code) || code == '\n' || code == '\t';
}

}  // namespace

std::string escape(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        const auto [length, code] = first_character(text);
        if (length == 0 || !may_stand(code)) {
            out += kReplacement;
        } else if (code == '&') {
            out += "&amp;";
        } else if (code == '<') {
            out += "&lt;";
        } else if (code == '>') {
            out += "&gt;";
        } else if (code == '"') {
            out += "&quot;";
        } else if (code == '\'') {
            out += "&#39;";
        } else {
            out += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return out;
}

std::string format(const char* form, ...) {
    va_list arguments;
    va_start(arguments, form);
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, form, arguments);
    va_end(arguments);
    std::string out(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) std::vsnprintf(out.data(), out.size() + 1, form, again);
    va_end(again);
    return out;
}

std::string show_bytes(uint64_t bytes) {
    if (bytes < 1000) return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    const auto value = static_cast<double>(bytes);
    if (value < 999950) return format("%.1f kB", value / 1e3);
    if (value < 999.95e6) return format("%.1f MB", value / 1e6);
    return format("%.2f GB", value / 1e9);
}

std::string show_seconds(double seconds) {
    if (seconds < 60) return format("%.2f s", seconds);
    const auto whole = static_cast<uint64_t>(std::llround(seconds));
    const auto part = [](uint64_t value) { return static_cast<unsigned>(value % 60); };
    if (whole < 3600) return format("%u:%02u min", part(whole / 60), part(whole));
    return format("%llu:%02u:%02u h", static_cast<unsigned long long>(whole / 3600),
                  part(whole / 60), part(whole));
}

std::string show_rate(double bits_per_second) {
    if (bits_per_second < 999.5) return format("%.0f bit/s", bits_per_second);
    if (bits_per_second < 999950) return format("%.1f kbit/s", bits_per_second / 1e3);
    return format("%.1f Mbit/s", bits_per_second / 1e6);
}

}  // namespace tool
