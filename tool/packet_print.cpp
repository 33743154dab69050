#include "tool/packet_print.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>

#include "tool/connection.h"
#include "tool/files.h"
#include "tool/packet_json.h"
#include "tool/packet_listing.h"
#include "tool/visible_text.h"

namespace {

// Waits for what a pipe or a socket brings. A file is always ready.
void wait_for_bytes(int fd, std::uint64_t deadline_us) {
  struct pollfd ready = {fd, POLLIN, 0};
  const std::uint64_t now = now_us();
  const std::uint64_t left_ms = (deadline_us - std::min(now, deadline_us)) / 1000;
  const int timeout =
      now < deadline_us ? static_cast<int>(std::min<std::uint64_t>(left_ms, INT_MAX - 1) + 1) : 0;
  if (::poll(&ready, 1, timeout) == 0) throw Failure("it had not ended in time");
}

// A file is read from its start, wherever the sender has got to.
void copy_descriptor(int from, int to, std::uint64_t deadline_us) {
  struct stat status;
  const bool is_file = ::fstat(from, &status) == 0 && S_ISREG(status.st_mode);
  char chunk[65536];
  for (off_t offset = 0;;) {
    wait_for_bytes(from, deadline_us);
    const ssize_t got =
        is_file ? ::pread(from, chunk, sizeof(chunk), offset) : ::read(from, chunk, sizeof(chunk));
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got < 0) throw system_failure("cannot be read");
    if (got == 0) return;
    offset += got;
    write_all(to, {chunk, static_cast<std::size_t>(got)}, "the copy");
    if (now_us() >= deadline_us) throw Failure("it had not ended in time");
  }
}

bool wants_colours() {
  const char* const refused = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  return ::isatty(STDOUT_FILENO) == 1 && (refused == nullptr || *refused == '\0') &&
         terminal != nullptr && std::string_view(terminal) != "dumb";
}

// The labels at the margin, of errors in red. No other line begins with an asterisk.
std::string coloured(std::string_view listing) {
  std::string text;
  while (!listing.empty()) {
    const std::string_view line =
        listing.substr(0, std::min(listing.find('\n'), listing.size() - 1) + 1);
    const std::size_t label = line[0] == '*' ? line.find(':') + 1 : 0;
    if (label != 0) text += line.starts_with("*Error str") ? "\033[1;31m" : "\033[1m";
    text += line.substr(0, label);
    if (label != 0) text += "\033[0m";
    text += line.substr(label);
    listing.remove_prefix(line.size());
  }
  return text;
}

void write_out(std::string_view bytes) {
  if (std::fwrite(bytes.data(), 1, bytes.size(), stdout) < bytes.size())
    throw system_failure("cannot write standard output");
}

}  // namespace

Option format_option(Format& target) {
  return {"format", 'f', true, [&target](auto& value, auto& what) {
            const std::map<std::string, Format> formats = {{"readable", Format::readable},
                                                           {"full", Format::full},
                                                           {"json", Format::json},
                                                           {"data", Format::data},
                                                           {"none", Format::none}};
            const auto found = formats.find(value);
            if (found == formats.end())
              throw UsageError(what + ": " + in_quotes(value) +
                               " is not readable, full, json, data or none");
            target = found->second;
          }};
}

void print_packet(const comm_socket_v4_packet& packet, Format format, const std::string& more) {
  if (format == Format::json) {
    write_out(json_of(packet, more));
  } else if (format == Format::data) {
    write_out({reinterpret_cast<const char*>(packet.data()), packet.data_length()});
  } else if (format != Format::none) {
    static const bool colours = wants_colours();
    std::string listing = listing_of(packet, format == Format::full);
    if (colours) listing = coloured(listing);
    write_out(listing);
  }
}

void print_event(std::FILE* out, std::string_view text) {
  struct timespec now;
  struct tm local;
  char clock[16];
  std::timespec_get(&now, TIME_UTC);
  ::localtime_r(&now.tv_sec, &local);
  std::strftime(clock, sizeof(clock), "%H:%M:%S", &local);
  std::fprintf(out, "%s.%06ld %s\n", clock, now.tv_nsec / 1000, visible(text).c_str());
}

std::string count_of(std::size_t count, const char* thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

std::string summary(const comm_socket_v4_packet& packet) {
  std::string text =
      in_quotes(packet.command()) + ", " + std::to_string(packet.buffer_length) + " bytes";
  if (!packet.attached_fd.empty()) text += ", " + count_of(packet.attached_fd.size(), "descriptor");
  return text;
}

void DescriptorFolder::save(comm_socket_v4_packet& packet, std::uint64_t deadline_us) {
  for (std::size_t i = 0; i < packet.attached_fd_count(); ++i) {
    const std::string name = "descriptor-" + std::to_string(next_++);
    const CommDescriptor from(packet.get_attached_fd(i));
    const CommDescriptor to = create_file(path_, name);
    try {
      copy_descriptor(from.get(), to.get(), deadline_us);
    } catch (const Failure& failure) {
      throw Failure(name + ": " + failure.what());
    }
  }
}
