#include "tool/packet_print.h"

#include <poll.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>

#include "tool/connection.h"
#include "tool/files.h"

namespace {

void print_text(std::string_view text) {
  const std::string shown = visible(text, true);
  std::fwrite(shown.data(), 1, shown.size(), stdout);
}

// What the dump writes to a stream.
std::string dumped(const comm_socket_v4_packet& packet,
                   void (*dump)(const comm_socket_v4_packet*, std::FILE*)) {
  char* text = nullptr;
  std::size_t length = 0;
  std::FILE* const stream = ::open_memstream(&text, &length);
  if (stream == nullptr) throw std::bad_alloc();
  dump(&packet, stream);
  const bool complete = std::fclose(stream) == 0;
  std::string result(complete ? text : "", complete ? length : 0);
  std::free(text);
  if (!complete) throw std::bad_alloc();
  return result;
}

std::string_view data_of(const comm_socket_v4_packet& packet) {
  return {reinterpret_cast<const char*>(packet.data()), packet.data_length()};
}

// The listing leaves out descriptors and the size of the data.
void print_readable(const comm_socket_v4_packet& packet) {
  print_text(dumped(packet, comm_socket_v4_packet_dump_header_user_friendly));
  if (!packet.attached_fd.empty()) std::printf("*Descriptors: %zu\n", packet.attached_fd.size());
  const std::string_view data = data_of(packet);
  if (data.empty()) return;
  std::printf("*Data:       %zu bytes\n", data.size());
  print_text(data);
  if (data.back() != '\n') std::putchar('\n');
}

// Waits for what a pipe or a socket brings. A file is always ready.
void wait_for_bytes(int fd, std::uint64_t deadline_us) {
  struct pollfd ready = {fd, POLLIN, 0};
  const std::uint64_t now = now_us();
  const int timeout = now < deadline_us ? static_cast<int>((deadline_us - now) / 1000 + 1) : 0;
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

}  // namespace

std::string visible(std::string_view text, bool keep_lines) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
    const bool c1_control = byte == 0xC2 && next >= 0x80 && next <= 0x9F;  // in UTF-8
    const bool control = byte < 0x20 || byte == 0x7F || c1_control;
    if (!control || (keep_lines && (byte == '\n' || byte == '\t'))) {
      result += text[i];
      continue;
    }
    char escape[8];
    std::snprintf(escape, sizeof(escape), "\\x%02x", byte);
    result += escape;
  }
  return result;
}

Option format_option(Format& target) {
  return {
      "format", 'f', true, [&target](auto& value, auto& what) {
        const std::map<std::string, Format> formats = {{"readable", Format::readable},
                                                       {"full", Format::full},
                                                       {"data", Format::data},
                                                       {"none", Format::none}};
        const auto found = formats.find(value);
        if (found == formats.end())
          throw UsageError(what + ": " + in_quotes(value) + " is not readable, full, data or none");
        target = found->second;
      }};
}

void print_packet(const comm_socket_v4_packet& packet, Format format) {
  const std::string_view data = data_of(packet);
  if (format == Format::readable) print_readable(packet);
  if (format == Format::full) print_text(dumped(packet, comm_socket_v4_packet_dump));
  if (format == Format::data) std::fwrite(data.data(), 1, data.size(), stdout);
}

void print_event(std::string_view text) {
  struct timespec now;
  struct tm local;
  char clock[16];
  std::timespec_get(&now, TIME_UTC);
  ::localtime_r(&now.tv_sec, &local);
  std::strftime(clock, sizeof(clock), "%H:%M:%S", &local);
  std::printf("%s.%06ld %s\n", clock, now.tv_nsec / 1000, visible(text, false).c_str());
  std::fflush(stdout);
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
    const OwnedFd from(packet.get_attached_fd(i));
    const OwnedFd to = create_file(path_, name);
    try {
      copy_descriptor(from.get(), to.get(), deadline_us);
    } catch (const Failure& failure) {
      throw Failure(name + ": " + failure.what());
    }
  }
}
