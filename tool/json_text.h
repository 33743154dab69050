// The pieces of JSON that texts and bytes of a packet are made of.
#ifndef TOOL_JSON_TEXT_H
#define TOOL_JSON_TEXT_H

#include <optional>
#include <string>
#include <string_view>

// A string in quotes. What would command a terminal is escaped. The text is UTF-8.
void append_json_string(std::string& json, std::string_view text);

std::string base64_of(std::string_view bytes);
// Nothing for a text that base64_of does not make.
std::optional<std::string> bytes_of_base64(std::string_view text);

#endif
