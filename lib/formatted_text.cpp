#include "lib/formatted_text.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

FormattedText::FormattedText(const char* prefix, const char* format, va_list args) noexcept {
  const std::size_t start = std::strlen(prefix);
  va_list again;
  va_copy(again, args);
  const int formatted = std::vsnprintf(usual_ + start, usual_size - start, format, args);
  length_ = start + (formatted > 0 ? static_cast<std::size_t>(formatted) : 0);

  if (length_ + spare > usual_size) {
    const std::size_t size = length_ + spare;
    if (char* const longer = static_cast<char*>(std::malloc(size))) {
      std::vsnprintf(longer + start, size - start, format, again);
      text_ = longer;
    }
    if (text_ == usual_) length_ = usual_size - spare;
  }
  va_end(again);
  std::memcpy(text_, prefix, start);
  text_[length_] = '\0';
}

FormattedText::~FormattedText() {
  if (text_ != usual_) std::free(text_);
}

void FormattedText::add_newline() noexcept {
  text_[length_++] = '\n';
  text_[length_] = '\0';
}

void FormattedText::remove_newlines() noexcept {
  while (length_ > 0 && text_[length_ - 1] == '\n') text_[--length_] = '\0';
}
