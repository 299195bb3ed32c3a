// SPDX-License-Identifier: Apache-2.0
#include "tools/text.h"

namespace tool {
namespace {

void append_hex(std::string& out, std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    for (const char c : bytes) {
        const auto byte = static_cast<uint8_t>(c);
        out += "\\x";
        out += kDigits[byte >> 4];
        out += kDigits[byte & 15];
    }
}

std::string shown_except(std::string_view text, char hidden) {
    std::string out;
    while (!text.empty()) {
        const Character next = first_character(text);
        const std::string_view bytes = text.substr(0, next.bytes == 0 ? 1 : next.bytes);
        if (next.bytes == 0 || !is_shown(next.code) || bytes.front() == hidden) {
            append_hex(out, bytes);
        } else {
            out += bytes;
        }
        text.remove_prefix(bytes.size());
    }
    return out;
}

}  // namespace

Character first_character(std::string_view text) {
    if (text.empty()) return {};
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
    const uint8_t first = byte(0);
    const size_t length = first < 0x80   ? 1
                          : first < 0xC2 ? 0
                          : first < 0xE0 ? 2
                          : first < 0xF0 ? 3
                          : first < 0xF5 ? 4
                                         : 0;
    if (length == 0 || length > text.size()) return {};
    uint32_t code = length == 1 ? first : first & (0x7Fu >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return {};
        code = code << 6 | (byte(i) & 0x3F);
    }
    static constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < kLeast[length] || surrogate || code > 0x10FFFF) return {};
    return {length, code};
}

bool is_shown(uint32_t code) {
    const bool control = code < 0x20 || (code >= 0x7F && code < 0xA0);
    const bool separates = code == 0x2028 || code == 0x2029;
    const bool turns = code == 0x200E || code == 0x200F || code == 0x061C ||
                       (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
    return !control && !separates && !turns && (code & 0xFFFE) != 0xFFFE;
}

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const size_t bytes = first_character(text).bytes;
        if (bytes == 0) return false;
        text.remove_prefix(bytes);
    }
    return true;
}

std::string printable(std::string_view text) {
    return shown_except(text, '\0');
}

std::string printable_word(std::string_view text) {
    return shown_except(text, '\\');
}

std::string counted(uint64_t count, std::string_view noun) {
    return std::to_string(count) + " " + std::string(noun) + (count == 1 ? "" : "s");
}

std::string counted_with(uint64_t count, std::string_view noun, std::string_view state) {
    return counted(count, noun) + (count == 1 ? " is " : " are ") + std::string(state);
}

std::string code_text(uint32_t code) {
    std::string out;
    for (int shift = 24; shift >= 0; shift -= 8)
        out += static_cast<char>(code >> shift & 0xFF);
    return out;
}

}  // namespace tool
