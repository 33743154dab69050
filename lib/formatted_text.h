// A text as printf(3) makes it, behind a prefix, for a line of the log.
#ifndef TARN_LIB_FORMATTED_TEXT_H
#define TARN_LIB_FORMATTED_TEXT_H

#include <cstdarg>
#include <cstddef>

// Without memory for a long text it is cut. What cannot be formatted is empty.
class FormattedText {
 public:
  FormattedText(const char* prefix, const char* format, va_list args) noexcept
      __attribute__((format(printf, 3, 0)));
  ~FormattedText();
  FormattedText(const FormattedText&) = delete;
  FormattedText& operator=(const FormattedText&) = delete;

  void add_newline() noexcept;
  void remove_newlines() noexcept;  // at the end

  const char* c_str() const noexcept { return text_; }
  std::size_t length() const noexcept { return length_; }

 private:
  static constexpr std::size_t usual_size = 1024;
  static constexpr std::size_t spare = 2;  // for a newline and the NUL

  char usual_[usual_size];
  char* text_ = usual_;
  std::size_t length_ = 0;
};

#endif
