// tarn-comm decode: is this a packet, and what does it say?
#include <tarn_utils_v4/comm.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "tool/files.h"
#include "tool/packet_check.h"
#include "tool/packet_print.h"
#include "tool/visible_text.h"

namespace {

constexpr char help[] =
    "usage: tarn-comm decode [OPTION...] [FILE...]\n"
    "Checks the bytes of one packet, from each FILE or from standard input, as a receiver does, "
    "and\n"
    "prints the packet. If they break a rule it says which one, and where.\n\n" FORMAT_OPTION_HELP
    "  -h, --help                this text\n\n"
    "Exit status: 0 for packets only, 1 for anything else, 2 for wrong usage.\n";

constexpr std::size_t max_file = std::size_t{16} * 1024 * 1024;

void decode(const std::string& file, Format format, bool named) {
  const std::string what = file == "-" ? "standard input" : in_quotes(file);
  const CommPacket packet = packet_of(read_file(file, max_file));
  const std::string rule = broken_rule(*packet);
  if (!rule.empty()) throw Failure(what + " is no valid packet: " + rule);
  if (named && format != Format::data && format != Format::json)
    std::printf("%s:\n", visible(what).c_str());
  print_packet(*packet, format);
  if (packet->buffer_length > COMM_V4_MAX_RECEIVED_PACKET)
    throw Failure(what + " has " + std::to_string(packet->buffer_length) +
                  " bytes; receivers drop a packet of more than " +
                  std::to_string(COMM_V4_MAX_RECEIVED_PACKET));
}

int run(int argc, char** argv) {
  Format format = Format::readable;
  std::vector<std::string> files =
      parse_options(decode_subcommand, argc, argv, {format_option(format)}, {}, SIZE_MAX);
  if (files.empty()) files = {"-"};
  int status = exit_ok;
  for (const std::string& file : files) {
    try {
      decode(file, format, files.size() > 1);
    } catch (const Failure& failure) {
      if (std::ferror(stdout) != 0) throw;
      // The others are looked at all the same.
      flush_standard_output();
      std::fprintf(stderr, "%s: %s\n", argv[0], failure.what());
      status = exit_failed;
    }
  }
  return status;
}

}  // namespace

const Subcommand decode_subcommand = {"decode", "check and print the bytes of a packet", help, run};
