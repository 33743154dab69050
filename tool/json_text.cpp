#include "tool/json_text.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "tool/visible_text.h"

namespace {

constexpr std::string_view digits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

void append_character(std::string& json, std::string_view bytes, char32_t code) {
  char escape[8];
  if (code == '"' || code == '\\') {
    json += '\\';
    json += bytes;
  } else if (code == '\n') {
    json += "\\n";
  } else if (is_harmful(code)) {
    std::snprintf(escape, sizeof(escape), "\\u%04x", static_cast<unsigned>(code));
    json += escape;
  } else {
    json += bytes;
  }
}

}  // namespace

void append_json_string(std::string& json, std::string_view text) {
  json += '"';
  while (!text.empty()) {
    const Character character = first_character(text);
    const std::size_t length = std::max<std::size_t>(character.length, 1);
    append_character(json, text.substr(0, length), character.code);
    text.remove_prefix(length);
  }
  json += '"';
}

std::string base64_of(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t group = 0;
    for (std::size_t j = 0; j < 3; ++j)
      group = group << 8 | (j < count ? static_cast<unsigned char>(bytes[i + j]) : 0u);
    for (std::size_t j = 0; j < 4; ++j)
      text += j <= count ? digits[group >> (18 - 6 * j) & 63] : '=';
  }
  return text;
}

std::optional<std::string> bytes_of_base64(std::string_view text) {
  std::string bytes;
  std::uint32_t group = 0;
  std::size_t bits = 0;
  for (const char digit : text.substr(0, text.find('='))) {
    const std::size_t value = digits.find(digit);
    if (value == std::string_view::npos) return std::nullopt;
    group = group << 6 | static_cast<std::uint32_t>(value);
    bits += 6;
    if (bits < 8) continue;
    bits -= 8;
    bytes += static_cast<char>(group >> bits & 0xff);
  }
  // One text for the same bytes: padding is there, and what is left over is 0.
  if (base64_of(bytes) != text) return std::nullopt;
  return bytes;
}
