#include "tool/arguments.h"

#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tool/files.h"

Failure system_failure(const std::string& what) {
  return Failure(what + ": " + std::strerror(errno));
}

std::string in_quotes(std::string_view text) { return "'" + std::string(text) + "'"; }

// --- Options ------------------------------------------------------------------------------------

Option flag_option(const char* name, char letter, bool& target, bool value) {
  return {name, letter, false, [&target, value](auto&, auto&) { target = value; }};
}

Option text_option(const char* name, char letter, std::optional<std::string>& target) {
  return {name, letter, true, [&target](auto& value, auto&) { target = value; }};
}

namespace {

std::vector<std::string> operands_in(std::vector<std::string> words,
                                     std::initializer_list<const char*> required,
                                     std::size_t optional) {
  for (std::size_t i = 0; i < required.size(); ++i) {
    const std::string name = required.begin()[i];
    if (i >= words.size()) throw UsageError(name + " is missing");
    if (words[i].empty()) throw UsageError(name + " is empty");
  }
  if (words.size() - required.size() > optional)
    throw UsageError("unexpected argument " + in_quotes(words[required.size() + optional]));
  return words;
}

}  // namespace

std::vector<std::string> parse_options(const Subcommand& subcommand, int argc, char** argv,
                                       const std::vector<Option>& options,
                                       std::initializer_list<const char*> required,
                                       std::size_t optional) {
  constexpr int long_codes = 256;  // An option is known by this and its place in `options`.
  std::string letters = "h";
  std::vector<option> words = {{"help", no_argument, nullptr, 'h'}};
  for (const Option& o : options) {
    words.push_back({o.name, o.takes_value ? required_argument : no_argument, nullptr,
                     long_codes + static_cast<int>(&o - options.data())});
    if (o.letter != 0) letters += std::string(1, o.letter) + (o.takes_value ? ":" : "");
  }
  words.push_back({nullptr, 0, nullptr, 0});

  for (int code;
       (code = ::getopt_long(argc, argv, letters.c_str(), words.data(), nullptr)) != -1;) {
    if (code == '?') throw UsageError("");
    if (code == 'h') {
      std::fputs(subcommand.help, stdout);
      flush_standard_output();
      std::exit(exit_ok);
    }
    const auto found = std::find_if(options.begin(), options.end(), [&](const Option& o) {
      return o.letter == code || long_codes + (&o - options.data()) == code;
    });
    found->set(found->takes_value ? optarg : "", std::string("--") + found->name);
  }

  return operands_in({argv + optind, argv + argc}, required, optional);
}

// --- Numbers ------------------------------------------------------------------------------------

namespace {

[[noreturn]] void refuse(std::string_view text, const std::string& what, const char* why) {
  throw UsageError(what + ": " + in_quotes(text) + " " + why);
}

// A number from `min` to `max`; `text` is the whole of it for the error, `digits` without a sign.
std::uint64_t parse_digits(std::string_view digits, std::string_view text, const std::string& what,
                           std::uint64_t min, std::uint64_t max) {
  const bool hex = digits.starts_with("0x") || digits.starts_with("0X");
  if (hex) digits.remove_prefix(2);
  std::uint64_t number = 0;
  const char* const end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, number, hex ? 16 : 10);
  if (error == std::errc::invalid_argument || stop != end)
    refuse(text, what, "is not a number (decimal, or hexadecimal after 0x)");
  if (error != std::errc() || number < min || number > max) refuse(text, what, "is out of range");
  return number;
}

}  // namespace

std::uint64_t parse_uint64(std::string_view text, const std::string& what, std::uint64_t min,
                           std::uint64_t max) {
  return parse_digits(text, text, what, min, max);
}

std::int64_t parse_int64(std::string_view text, const std::string& what) {
  const bool negative = text.starts_with('-');
  const std::uint64_t max = std::numeric_limits<std::int64_t>::max();
  const std::uint64_t number =
      parse_digits(text.substr(negative ? 1 : 0), text, what, 0, negative ? max + 1 : max);
  return static_cast<std::int64_t>(negative ? 0 - number : number);
}

double parse_double(std::string_view text, const std::string& what) {
  double number = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  if (error == std::errc::invalid_argument || stop != end)
    refuse(text, what, "is not a decimal number");
  if (error != std::errc()) refuse(text, what, "is out of range");
  return number;
}

std::uint64_t parse_seconds(std::string_view text, const std::string& what) {
  constexpr double most = 1e6;
  const double seconds = parse_double(text, what);
  if (!(seconds >= 0 && seconds <= most)) refuse(text, what, "is not a time in seconds");
  return static_cast<std::uint64_t>(std::llround(seconds * 1e6));
}
