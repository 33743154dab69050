#include "tool/visible_text.h"

#include <algorithm>
#include <bit>
#include <cstdio>

Character first_character(std::string_view text) {
  constexpr char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};  // in so many bytes
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto ones = static_cast<std::size_t>(std::countl_one(byte(0)));
  const std::size_t length = std::max<std::size_t>(ones, 1);
  if (ones == 1 || ones > 4 || length > text.size()) return {0, 0};
  char32_t code = byte(0) & (0xffu >> ones);
  for (std::size_t i = 1; i < length; ++i) {
    if (byte(i) >> 6 != 2) return {0, 0};
    code = code << 6 | (byte(i) & 0x3fu);
  }
  const bool surrogate = code >= 0xd800 && code <= 0xdfff;
  if (code < least[ones] || code > 0x10ffff || surrogate) return {0, 0};
  return {length, code};
}

bool is_utf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = first_character(text).length;
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

bool is_harmful(char32_t code) {
  constexpr char32_t ranges[][2] = {{0, 0x1f},        {0x7f, 0x9f},     {0x61c, 0x61c},
                                    {0x200e, 0x200f}, {0x2028, 0x202e}, {0x2066, 0x206f}};
  return std::any_of(std::begin(ranges), std::end(ranges),
                     [code](auto& range) { return code >= range[0] && code <= range[1]; });
}

void append_visible(std::string& shown, std::string_view text, std::size_t max) {
  while (!text.empty() && shown.size() < max) {
    const Character character = first_character(text);
    const std::string_view bytes = text.substr(0, std::max<std::size_t>(character.length, 1));
    text.remove_prefix(bytes.size());
    if (character.length != 0 && !is_harmful(character.code)) {
      shown += bytes;
      continue;
    }
    for (const char byte : bytes) {
      char escape[8];
      std::snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned char>(byte));
      shown += escape;
    }
  }
}

std::string visible(std::string_view text) {
  std::string shown;
  append_visible(shown, text, std::string::npos);
  return shown;
}
