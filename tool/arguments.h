// The command line: its errors, options, operands and numbers.
#ifndef TOOL_ARGUMENTS_H
#define TOOL_ARGUMENTS_H

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tool/subcommand.h"

// The command line cannot be carried out as it stands. Without a text when getopt has said why.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
// What was asked for was tried, and failed.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};
// `what`, and the text of errno.
Failure system_failure(const std::string& what);

std::string in_quotes(std::string_view text);

// An option and what its value is for.
struct Option {
  const char* name;
  char letter;  // 0 for a long option only
  bool takes_value;
  // `value` is empty for an option without one; `name` is the option's, with its dashes.
  std::function<void(const std::string& value, const std::string& name)> set;
};

Option flag_option(const char* name, char letter, bool& target, bool value = true);
Option text_option(const char* name, char letter, std::optional<std::string>& target);

// Reads the words behind the subcommand with getopt_long, answers --help, and returns what is no
// option: `required` words, named for the error, and at most `optional` more.
std::vector<std::string> parse_options(const Subcommand& subcommand, int argc, char** argv,
                                       const std::vector<Option>& options,
                                       std::initializer_list<const char*> required,
                                       std::size_t optional);

// Numbers are decimal, or hexadecimal behind 0x, and nothing may follow them. `what` names the
// place in the error.
std::uint64_t parse_uint64(std::string_view text, const std::string& what, std::uint64_t min = 0,
                           std::uint64_t max = std::numeric_limits<std::uint64_t>::max());
std::int64_t parse_int64(std::string_view text, const std::string& what);
double parse_double(std::string_view text, const std::string& what);
// Seconds, with a fraction if need be, as microseconds.
std::uint64_t parse_seconds(std::string_view text, const std::string& what);

// The target is a number, or an optional one.
template <class Target>
Option seconds_option(const char* name, char letter, Target& target_us) {
  return {name, letter, true,
          [&target_us](auto& value, auto& what) { target_us = parse_seconds(value, what); }};
}
template <class Target>
Option number_option(const char* name, char letter, Target& target, std::uint64_t min = 0,
                     std::uint64_t max = std::numeric_limits<std::uint64_t>::max()) {
  return {name, letter, true, [&target, min, max](auto& value, auto& what) {
            target = parse_uint64(value, what, min, max);
          }};
}

#endif
