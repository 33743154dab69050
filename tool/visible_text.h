// Texts of strangers for a terminal: what it would take for a command, what turns the direction of
// writing and what is no UTF-8 is shown byte by byte, as in \x1b.
#ifndef TOOL_VISIBLE_TEXT_H
#define TOOL_VISIBLE_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>

// On one line. Appends no more once `shown` has `max` bytes.
void append_visible(std::string& shown, std::string_view text, std::size_t max);
std::string visible(std::string_view text);

#endif
