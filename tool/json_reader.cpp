#include "tool/json_reader.h"

#include <algorithm>
#include <charconv>
#include <vector>

#include "tool/arguments.h"
#include "tool/visible_text.h"

namespace {

// Far more than a packet takes, however its texts are escaped.
constexpr std::size_t max_object = std::size_t{4} * 1024 * 1024;

bool is_space(char byte) { return byte == ' ' || byte == '\t' || byte == '\n' || byte == '\r'; }

std::string position(std::size_t line, std::size_t column) {
  return "line " + std::to_string(line) + ", column " + std::to_string(column) + ": ";
}

void append_utf8(std::string& text, char32_t code) {
  const auto add = [&text](char32_t byte) { text += static_cast<char>(byte); };
  if (code < 0x80) return add(code);
  if (code < 0x800) {
    add(0xc0 | code >> 6);
  } else if (code < 0x10000) {
    add(0xe0 | code >> 12);
    add(0x80 | (code >> 6 & 0x3f));
  } else {
    add(0xf0 | code >> 18);
    add(0x80 | (code >> 12 & 0x3f));
    add(0x80 | (code >> 6 & 0x3f));
  }
  add(0x80 | (code & 0x3f));
}

}  // namespace

// --- Objects in a stream ------------------------------------------------------------------------

void JsonStream::add(std::string_view bytes) {
  bytes_.erase(0, taken_);
  taken_ = 0;
  bytes_ += bytes;
}

std::optional<JsonText> JsonStream::next() {
  while (taken_ < bytes_.size())
    if (take(bytes_[taken_++])) return std::move(object_);
  return std::nullopt;
}

bool JsonStream::take(char byte) {
  if (depth_ == 0 && byte == '{') object_ = {"", line_, column_};
  if (depth_ == 0 && byte != '{' && !is_space(byte))
    throw Failure(position(line_, column_) + "a packet is an object, which begins with {");
  const bool was_inside = depth_ != 0;
  if (was_inside || byte == '{') {
    if (object_.text.size() >= max_object)
      throw Failure(position(object_.line, object_.column) + "the object is too long");
    object_.text += byte;
    take_inside(byte);
  }
  column_ = byte == '\n' ? 1 : column_ + 1;
  line_ += byte == '\n' ? 1 : 0;
  return was_inside && depth_ == 0;
}

void JsonStream::take_inside(char byte) {
  if (is_escaped_) {
    is_escaped_ = false;
  } else if (in_string_) {
    is_escaped_ = byte == '\\';
    in_string_ = byte != '"';
  } else if (byte == '"') {
    in_string_ = true;
  } else if (byte == '{' || byte == '[') {
    ++depth_;
  } else if (byte == '}' || byte == ']') {
    --depth_;
  }
}

// --- Values -------------------------------------------------------------------------------------

void JsonReader::fail(const std::string& why, std::size_t place) const {
  const std::string_view before = std::string_view(json_.text).substr(0, place);
  const auto lines = static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
  const std::size_t column = lines == 0 ? json_.column + place : place - before.find_last_of('\n');
  throw Failure(position(json_.line + lines, column) + why);
}

// NUL at the end, which is no character of JSON.
char JsonReader::peek() {
  const std::string& text = json_.text;
  while (at_ < text.size() && is_space(text[at_])) ++at_;
  return at_ < text.size() ? text[at_] : '\0';
}

bool JsonReader::is_next(char first) { return peek() == first; }

bool JsonReader::take(char wanted) {
  if (peek() != wanted) return false;
  ++at_;
  return true;
}

void JsonReader::expect(char wanted) {
  if (!take(wanted)) fail(std::string("expected ") + wanted);
}

void JsonReader::end() {
  if (peek() != '\0' || at_ != json_.text.size()) fail("expected the end");
}

void JsonReader::list(char first, char last, const std::function<void()>& read) {
  expect(first);
  if (take(last)) return;
  do read();
  while (take(','));
  if (!take(last)) fail(std::string("expected , or ") + last);
}

void JsonReader::array(const std::function<void()>& element) { list('[', ']', element); }

void JsonReader::object(const std::function<void(const std::string& name)>& member) {
  constexpr std::size_t most = 64;
  std::vector<std::string> names;
  list('{', '}', [&] {
    peek();
    const std::size_t place = at_;
    names.push_back(text());
    const std::string name = names.back();
    if (std::count(names.begin(), names.end(), name) > 1)
      fail(visible(in_quotes(name)) + " is there twice", place);
    if (names.size() > most) fail("too many members", place);
    expect(':');
    peek();
    name_at_ = place;
    member(name);
  });
}

std::string JsonReader::text() {
  if (!take('"')) fail("expected a string");
  const std::string_view json = json_.text;
  std::string text;
  for (;;) {
    if (at_ >= json.size()) fail("the string has no end");
    if (json[at_] == '"') break;
    if (static_cast<unsigned char>(json[at_]) < 0x20) fail("a control character in a string");
    if (json[at_] == '\\') {
      append_utf8(text, escaped());
      continue;
    }
    const std::size_t length = first_character(json.substr(at_)).length;
    if (length == 0) fail("a string that is not UTF-8");
    text += json.substr(at_, length);
    at_ += length;
  }
  ++at_;
  return text;
}

// The character behind a backslash.
char32_t JsonReader::escaped() {
  constexpr std::string_view letters = "\"\\/bfnrtu";
  constexpr std::string_view meanings = "\"\\/\b\f\n\r\t";
  const std::size_t start = at_++;
  const std::size_t letter =
      at_ < json_.text.size() ? letters.find(json_.text[at_]) : std::string_view::npos;
  if (letter == std::string_view::npos) fail("an unknown escape", start);
  ++at_;
  if (letter < meanings.size()) return static_cast<unsigned char>(meanings[letter]);
  const char32_t code = hex4();
  if (code < 0xd800 || code > 0xdfff) return code;
  const bool has_other = json_.text.compare(at_, 2, "\\u") == 0;
  if (has_other) at_ += 2;
  const char32_t low = has_other ? hex4() : 0;
  if (code > 0xdbff || low < 0xdc00 || low > 0xdfff) fail("half of a surrogate pair", start);
  return 0x10000 + ((code & 0x3ff) << 10 | (low & 0x3ff));
}

char32_t JsonReader::hex4() {
  std::uint32_t code = 0;
  const char* const start = json_.text.data() + at_;
  const char* const end = start + std::min<std::size_t>(4, json_.text.size() - at_);
  const auto [stop, error] = std::from_chars(start, end, code, 16);
  if (error != std::errc() || stop != start + 4) fail("expected four hexadecimal digits");
  at_ += 4;
  return code;
}

// Letters, digits and what belongs to a number.
std::string_view JsonReader::word() {
  peek();
  const std::string_view rest = std::string_view(json_.text).substr(at_);
  const std::string_view found = rest.substr(
      0, std::min(rest.find_first_not_of("abcdefghijklmnopqrstuvwxyzE0123456789+-."), rest.size()));
  at_ += found.size();
  return found;
}

bool JsonReader::boolean() {
  peek();
  const std::size_t place = at_;
  const std::string_view found = word();
  if (found != "true" && found != "false") fail("expected true or false", place);
  return found == "true";
}

bool JsonReader::take_null() {
  peek();
  const std::size_t place = at_;
  if (word() == "null") return true;
  at_ = place;
  return false;
}

// [-] 0 or 1 to 9 and more [. digits] [e [+-] digits]
std::string_view JsonReader::number_word() {
  peek();
  const std::size_t place = at_;
  const std::string_view found = word();
  std::string_view rest = found;
  const auto take_digits = [&rest] {
    const std::size_t count = std::min(rest.find_first_not_of("0123456789"), rest.size());
    rest.remove_prefix(count);
    return count;
  };
  const auto take_one_of = [&rest](std::string_view wanted) {
    const bool has_it = !rest.empty() && wanted.find(rest[0]) != std::string_view::npos;
    if (has_it) rest.remove_prefix(1);
    return has_it;
  };
  take_one_of("-");
  bool is_good = take_one_of("0") || take_digits() != 0;
  if (take_one_of(".")) is_good = take_digits() != 0 && is_good;
  if (take_one_of("eE")) {
    take_one_of("+-");
    is_good = take_digits() != 0 && is_good;
  }
  if (!is_good || !rest.empty()) fail("expected a number", place);
  return found;
}

namespace {

template <class Number>
std::optional<Number> exact(std::string_view text) {
  Number number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

}  // namespace

std::uint64_t JsonReader::uint64(std::uint64_t max) {
  peek();
  const std::size_t place = at_;
  const std::optional<std::uint64_t> number = exact<std::uint64_t>(number_word());
  if (!number.has_value() || *number > max)
    fail("expected a whole number from 0 to " + std::to_string(max), place);
  return *number;
}

std::int64_t JsonReader::int64() {
  peek();
  const std::size_t place = at_;
  const std::optional<std::int64_t> number = exact<std::int64_t>(number_word());
  if (!number.has_value()) fail("expected a whole number of 64 bits with a sign", place);
  return *number;
}

double JsonReader::number() {
  peek();
  const std::size_t place = at_;
  const std::optional<double> number = exact<double>(number_word());
  if (!number.has_value()) fail("the number is out of range", place);
  return *number;
}

void JsonReader::skip_scalar() {
  if (is_next('"'))
    text();
  else if (is_next('t') || is_next('f'))
    boolean();
  else if (!take_null())
    number_word();
}

void JsonReader::skip_value() {
  if (!is_next('[')) return skip_scalar();
  array([this] { skip_scalar(); });
}
