// SPDX-License-Identifier: Apache-2.0
// Texts that are not the tool's own: of files, streams, file names and command lines.
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

// For a terminal: each byte of what is no UTF-8, or is not shown, becomes \xNN. A second call
// changes nothing. Every text that is not the tool's own passes through here before it is printed.
std::string printable(std::string_view text);

// The same for scripts: backslashes become \x5c, so that the text can be restored.
std::string printable_word(std::string_view text);

// The four characters of a code, as they are in a file.
std::string code_text(uint32_t code);

}  // namespace tool

#endif
