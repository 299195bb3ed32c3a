// SPDX-License-Identifier: Apache-2.0
// Texts from outside the tool: of files, streams, file names and command lines.
#ifndef KESTREL_TOOLS_TEXT_H
#define KESTREL_TOOLS_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tool {

// A character of UTF-8.
struct Character {
    size_t bytes = 0;  // 0: the text does not begin with one
    uint32_t code = 0;
};
Character first_character(std::string_view text);

// False for control characters (C0, DEL, C1), line and paragraph separators, characters that turn
// the direction of writing, and code points that are no characters.
bool is_shown(uint32_t code);

bool is_utf8(std::string_view text);

// For a terminal: each byte that is invalid UTF-8, or not printable, becomes \xNN. Applying it
// twice changes nothing. Use it for every text from outside the tool before printing.
std::string printable(std::string_view text);

// The same for scripts: backslashes become \x5c, so that the text can be restored.
std::string printable_word(std::string_view text);

// "1 byte", "2 bytes".
std::string counted(uint64_t count, std::string_view noun);
// "1 byte is missing", "2 bytes are missing".
std::string counted_with(uint64_t count, std::string_view noun, std::string_view state);

// The four characters of a code in file order.
std::string code_text(uint32_t code);

}  // namespace tool

#endif
