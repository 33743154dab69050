// A strict reader of JSON for objects whose members are known. Nothing is nested deeper than the
// caller asks for, nothing is built, and every error has its line and column.
#ifndef TOOL_JSON_READER_H
#define TOOL_JSON_READER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

// An object, and where in its file it begins.
struct JsonText {
  std::string text;
  std::size_t line = 1;
  std::size_t column = 1;  // in bytes
};

// Finds the objects in a stream of bytes, with white space between them or none. They may have
// errors inside.
class JsonStream {
 public:
  void add(std::string_view bytes);
  // The next whole object, if there is one. Throws Failure for anything else than objects, and for
  // one that is too long.
  std::optional<JsonText> next();
  // Whether an object has begun and not ended.
  bool is_inside() const { return depth_ != 0; }

 private:
  // Takes one byte; returns whether an object has ended with it.
  bool take(char byte);
  void take_inside(char byte);

  std::string bytes_;
  std::size_t taken_ = 0;  // of the bytes
  JsonText object_;
  std::size_t line_ = 1;
  std::size_t column_ = 1;
  std::size_t depth_ = 0;
  bool in_string_ = false;
  bool is_escaped_ = false;
};

// Each function reads what its name says, and throws Failure when there is something else.
class JsonReader {
 public:
  explicit JsonReader(const JsonText& text) : json_(text) {}

  // `member` and `element` read the value. No name may come twice.
  void object(const std::function<void(const std::string& name)>& member);
  void array(const std::function<void()>& element);
  std::string text();
  bool boolean();
  std::uint64_t uint64(std::uint64_t max = UINT64_MAX);
  std::int64_t int64();
  double number();
  // The next value begins with this character; it is not read.
  bool is_next(char first);
  bool take_null();
  // Anything but an object or an array.
  void skip_scalar();
  // Likewise, or an array of such values.
  void skip_value();
  void end();

  // Of the member whose value is next.
  std::size_t name_place() const { return name_at_; }
  // For values that are read once it is known how.
  std::size_t place() const { return at_; }
  void go_to(std::size_t place) { at_ = place; }
  // Throws Failure that begins with the line and the column of the place.
  [[noreturn]] void fail(const std::string& why, std::size_t place) const;
  [[noreturn]] void fail(const std::string& why) const { fail(why, at_); }

 private:
  char peek();
  void expect(char wanted);
  bool take(char wanted);
  void list(char first, char last, const std::function<void()>& read);
  std::string_view word();
  std::string_view number_word();
  char32_t escaped();
  char32_t hex4();

  const JsonText& json_;
  std::size_t at_ = 0;
  std::size_t name_at_ = 0;
};

#endif
