// Texts of strangers for a terminal: what it would take for a command, what turns the direction of
// writing and what is no UTF-8 is shown byte by byte, as in \x1b.
#ifndef TOOL_VISIBLE_TEXT_H
#define TOOL_VISIBLE_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>

struct Character {
  std::size_t length;  // in bytes; 0 when they are no UTF-8
  char32_t code;
};
// Of a text that is not empty.
Character first_character(std::string_view text);
bool is_utf8(std::string_view text);
// A control, a mark of direction, or a separator of lines. None is beyond 0xffff.
bool is_harmful(char32_t code);

// On one line. Appends no more once `shown` has `max` bytes.
void append_visible(std::string& shown, std::string_view text, std::size_t max);
std::string visible(std::string_view text);

#endif
